// The host-data readers fed arbitrary headers and blocks from the simulated
// IC. Input: a reader selector, a host-data type, a flags byte, then the
// block the IC serves for every host-data load (its first four bytes are
// stamped as a fresh load of the requested type unless flags bit 0 asks for
// the block exactly as given).
#include <vector>

#include "chip/inspect/diag_data.h"
#include "chip/transport/host_data.h"
#include "fuzz/fuzz_support.h"

namespace {

bool diag_result(uint32_t r) {
  return r == DIAG_OK || r == DIAG_ERR_READ || r == DIAG_ERR_DATA;
}

void mutual(uint8_t type) {
  mutual_frame frame = new_mutual_frame();
  const uint32_t r = read_ms_cx_data(type, &frame);
  fuzz::check(diag_result(r), "read_ms_cx_data result");
  fuzz::check(r != DIAG_OK || frame.force_len * frame.sense_len <= DIAG_MAX_NODES, "ms cx size");
  clean_mutual_frame(&frame);
}

void self(uint8_t type) {
  ss_cx_data ix = new_ss_cx_data();
  ss_cx_data cx = new_ss_cx_data();
  const uint32_t r = read_ss_cx_data(type, &ix, &cx);
  fuzz::check(diag_result(r), "read_ss_cx_data result");
  clean_ss_cx_data(&ix);
  clean_ss_cx_data(&cx);
}

void sync(uint8_t type, uint8_t flags) {
  mutual_frame ms = new_mutual_frame();
  self_frame ss = new_self_frame();
  request_host_data(type, 100);
  const uint32_t r = read_sync_frame(&ms, &ss, flags >> 1, flags >> 2);
  fuzz::check(diag_result(r), "read_sync_frame result");
  clean_mutual_frame(&ms);
  clean_self_frame(&ss);
}

void raw_frame() {
  if (read_chip_info(&sys_info) != 0) {
    return;
  }
  mutual_frame frame = new_mutual_frame();
  const uint32_t r = read_ms_frame(&frame);
  fuzz::check(diag_result(r), "read_ms_frame result");
  clean_mutual_frame(&frame);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::begin_input(true);
  if (size < 3 || ioctrl_open() != 0) {
    return 0;
  }
  const uint8_t type = data[1];
  const uint8_t flags = data[2];
  sim::serve_host_data(std::vector<uint8_t>(data + 3, data + size), (flags & 1) != 0);
  switch (data[0] % 5) {
  case 0: {
    chip_info record{};
    read_chip_info(&record);
    break;
  }
  case 1:
    mutual(type);
    break;
  case 2:
    self(type);
    break;
  case 3:
    sync(type, flags);
    break;
  default:
    raw_frame();
    break;
  }
  ioctrl_close();
  fuzz::expect_heap_empty();
  return 0;
}
