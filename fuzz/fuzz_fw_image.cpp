// The firmware image parser as a swapped-in image or `afehal-tool fw-info
// FILE` reads it: the bounds and header check first, and only an image
// that passes it is parsed and its flash map described.
#include <cstring>

#include "chip/firmware/fw_image.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::begin_input(false);
  char reason[96];
  // The reason is always terminated, however small its buffer.
  const size_t reason_size = size == 0 ? sizeof reason : 1 + data[0] % sizeof reason;
  memset(reason, 'x', sizeof reason);
  const uint32_t checked = fw_image_check(data, size, reason, reason_size);
  fuzz::check(checked == FW_PARSE_OK || checked == FW_PARSE_BAD_HEADER, "check result");
  fuzz::check(memchr(reason, '\0', reason_size) != nullptr || checked == FW_PARSE_OK,
              "reason not terminated");
  if (checked != FW_PARSE_OK) {
    return 0;
  }
  fw_file_info record{};
  const uint32_t parsed = parse_fw_header_file(&record, data);
  fuzz::check(parsed == FW_PARSE_OK, "an image that passed the check failed to parse");
  const fw_flash_map map = fw_describe_flash_map(record);
  for (const fw_flash_area &area : map) {
    fuzz::check(area.flash_offset == area.first_page * FLASH_PAGE_SIZE, "flash offset");
  }
  char text[512];
  const size_t needed = fw_format_flash_map(record, text, sizeof text);
  fuzz::check(strlen(text) == (needed < sizeof text ? needed : sizeof text - 1), "map length");
  clean_fw_file_info(&record);
  fuzz::check(record.fw_data == nullptr && record.cfg_data == nullptr && record.cx_data == nullptr,
              "section pointer left after clean");
  fuzz::expect_heap_empty();
  return 0;
}
