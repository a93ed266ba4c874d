// The frame parser fed raw driver frames: whatever bytes the driver hands
// over, in a receive area of exactly their size, must end in a parsed frame
// or a refusal, never in a read outside the area.
#include <cstring>
#include <vector>

#include "chip/ops/frame_parse.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::begin_input(false);
  std::vector<uint8_t> area(data, data + size);
  int64_t timestamp[2] = {0, 0};
  ioctrl_framedata request{area.data(), timestamp, static_cast<uint32_t>(size), 0};
  kvr_frame_data frame{};
  const uint32_t crc_errors = crc_error_count.load();
  const bool parsed = vendor_parse_ioctrl_frame(&request, &frame);
  // A frame that parses has a consistent rate and a counted-free CRC.
  if (parsed) {
    fuzz::check(frame.rate_hz == 120 || frame.rate_hz == 180, "rate neither 120 nor 180 Hz");
    fuzz::check(crc_error_count.load() == crc_errors, "a parsed frame counted a CRC error");
  }
  // The same frame again: the parser's lost-frame bookkeeping sees an old
  // index.
  vendor_parse_ioctrl_frame(&request, &frame);
  fuzz::expect_heap_empty();
  return 0;
}
