// One executable for every benchmark of the library.
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
