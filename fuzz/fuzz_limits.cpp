// The limits search fed arbitrary limits texts and labels. Input: one byte
// giving the label's length (mod 64), the label, then the text. The text
// lies in an area of exactly its size with no terminating NUL, as the
// embedded copy does.
#include <cstring>
#include <string>
#include <vector>

#include "chip/inspect/test_limits.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::begin_input(false);
  if (size == 0) {
    return 0;
  }
  const size_t label_size = std::min<size_t>(data[0] % 64, size - 1);
  const std::string label(reinterpret_cast<const char *>(data + 1), label_size);
  const size_t text_size = size - 1 - label_size;
  std::vector<char> text(data + 1 + label_size, data + size);
  test_limit_data record = new_test_limit_data();
  const uint32_t result = search_test_limit_entry(label.c_str(), text.data(),
                                                  static_cast<uint32_t>(text_size), &record);
  fuzz::check(result == TEST_LIMIT_OK || result == TEST_LIMIT_ERR_FORMAT ||
                  result == TEST_LIMIT_ERR_MEMORY,
              "search result");
  if (result == TEST_LIMIT_OK) {
    const uint32_t values = uint32_t{record.rows} * record.cols;
    fuzz::check(values == 0 || record.data != nullptr, "a found table without values");
    // Every value is there: read them all (ASan sees a short array).
    int64_t sum = 0;
    for (uint32_t i = 0; i < values; ++i) {
      sum += record.data[i];
    }
    (void)sum;
    fuzz::check(test_limit_covers(&record, record.rows, record.cols), "found table not covering");
  }
  // The record is reused for a second label, as the inspection does.
  parse_limits_file(text.data(), static_cast<uint32_t>(text_size), "MS_RAW_DATA_MIN_MAX", &record);
  clean_test_limit_data(&record);
  fuzz::check(record.data == nullptr, "values left after clean");
  fuzz::expect_heap_empty();
  return 0;
}
