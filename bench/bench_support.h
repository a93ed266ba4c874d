// Set-up shared by the benchmarks: the simulated chip, a started library,
// and an OS table that drops the Android log copies.
#pragma once

#include <cstdint>
#include <vector>

#include "afehal/afehal.h"
#include "platform/os.h"
#include "sim/sim.h"

namespace bench {

// Installs a copy of the current OS table whose Android log does nothing, so
// that a benchmark measures the library and not the log daemon. Returns the
// table it replaced, for os_install.
const afehal_os_ops *install_quiet_os();

// Installs the simulator (virtual clock), opens and starts the library and
// refreshes the capability record. False when any step fails.
bool start_on_simulator();
// Stops and closes the library and removes the simulator.
void stop_on_simulator();

// A full frame of this panel (16 x 34) as the IC sends it, at the working
// point the library starts with, with a plausible signal in it.
std::vector<uint8_t> steady_state_frame(const kvr_hw_cap &cap);

} // namespace bench
