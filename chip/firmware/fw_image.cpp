#include "chip/firmware/fw_image.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "chip/transport/le_bytes.h"
#include "platform/heap.h"
#include "platform/log.h"

namespace {

// Header fields (image offsets).
constexpr size_t OFF_SIGNATURE = 0;
constexpr size_t OFF_FORMAT_VERSION = 4;
constexpr size_t OFF_CHIP_ID_HIGH = 8;
constexpr size_t OFF_CHIP_ID_LOW = 9;
constexpr size_t OFF_FW_VERSION = 16;
constexpr size_t OFF_CONFIG_ID = 20;
constexpr size_t OFF_CONFIG_VERSION = 24;
constexpr size_t OFF_EXT_RELEASE = 36;
constexpr size_t OFF_FW_LENGTH = 44;
constexpr size_t OFF_CFG_LENGTH = 48;
constexpr size_t OFF_CX_LENGTH = 52;
constexpr size_t GEOMETRY_BYTES = 4;

uint8_t or_default(uint8_t value, uint8_t fallback) {
  return value != 0 ? value : fallback;
}

// Allocates a section buffer and copies length bytes from src into it. A
// zero length leaves the slot empty. False when the allocation fails.
bool copy_section(uint8_t **slot, const uint8_t *src, uint32_t length) {
  if (length == 0) {
    return true;
  }
  auto *buffer = static_cast<uint8_t *>(heap_alloc(length));
  if (buffer == nullptr) {
    return false;
  }
  memcpy(buffer, src, length);
  *slot = buffer;
  return true;
}

void set_reason(char *reason, size_t reason_size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

void set_reason(char *reason, size_t reason_size, const char *format, ...) {
  if (reason == nullptr || reason_size == 0) {
    return;
  }
  va_list args;
  va_start(args, format);
  vsnprintf(reason, reason_size, format, args);
  va_end(args);
}

} // namespace

uint32_t parse_fw_header_file(fw_file_info *record, const uint8_t *image) {
  static constexpr const char *tag = "parse_fw_header_file";
  record->fw_data = nullptr;
  record->cfg_data = nullptr;
  record->cx_data = nullptr;
  record->cx_ver = 0;

  if (le32(image + OFF_SIGNATURE) != FW_SIGNATURE) {
    log_error(tag, "Wrong FW header signature");
    return FW_PARSE_BAD_HEADER;
  }
  NLOG(LOG_LEVEL_INFO, tag, "FW signature OK");

  if (le32(image + OFF_FORMAT_VERSION) != FW_FORMAT_VERSION) {
    log_error(tag, "Wrong FW QLB version");
    return FW_PARSE_BAD_HEADER;
  }
  NLOG(LOG_LEVEL_INFO, tag, "Fw binary version OK");

  // A foreign chip id is reported but never stops the parse or the update.
  const uint8_t id_high = image[OFF_CHIP_ID_HIGH];
  const uint8_t id_low = image[OFF_CHIP_ID_LOW];
  if (id_high != FW_CHIP_ID_HIGH || id_low != FW_CHIP_ID_LOW) {
    log_error(tag, "Wrong Hardware Chip ID");
  }
  NLOG(LOG_LEVEL_INFO, tag, "HW Chip Id: 0x%04X", (id_high << 8) | id_low);

  record->fw_ver = le16(image + OFF_FW_VERSION);
  record->cfg_id = le16(image + OFF_CONFIG_ID);
  record->cfg_ver = le16(image + OFF_CONFIG_VERSION);
  NLOG(LOG_LEVEL_INFO, tag, "FW version: 0x%04X", record->fw_ver);
  NLOG(LOG_LEVEL_INFO, tag, "config id: 0x%04X", record->cfg_id);
  NLOG(LOG_LEVEL_INFO, tag, "config version: 0x%04X", record->cfg_ver);

  INFO("external release: ");
  for (size_t i = 0; i < FW_EXT_RELEASE_SIZE; ++i) {
    record->ext_release[i] = image[OFF_EXT_RELEASE + i];
    INFO("%02X ", record->ext_release[i]);
  }
  INFO("\n");

  record->fw_size = le32(image + OFF_FW_LENGTH);
  record->cfg_size = le32(image + OFF_CFG_LENGTH);
  record->cx_size = le32(image + OFF_CX_LENGTH);
  NLOG(LOG_LEVEL_INFO, tag, "fw data length: %d bytes", static_cast<int>(record->fw_size));
  NLOG(LOG_LEVEL_INFO, tag, "fw config data length: %d bytes", static_cast<int>(record->cfg_size));
  NLOG(LOG_LEVEL_INFO, tag, "cx data length: %d bytes", static_cast<int>(record->cx_size));

  const uint8_t *geometry = image + FW_GEOMETRY_OFFSET;
  record->fw_pages = or_default(geometry[0], FW_DEFAULT_FW_PAGES);
  record->gap_pages = or_default(geometry[1], FW_DEFAULT_GAP_PAGES);
  record->cx_pages = or_default(geometry[2], FW_DEFAULT_CX_PAGES);
  record->cfg_pages = or_default(geometry[3], FW_DEFAULT_CFG_PAGES);

  const uint8_t *code = image + FW_HEADER_SIZE;
  const uint8_t *config = code + record->fw_size;
  const uint8_t *cx = config + record->cfg_size;
  if (!copy_section(&record->fw_data, code, record->fw_size) ||
      !copy_section(&record->cfg_data, config, record->cfg_size) ||
      !copy_section(&record->cx_data, cx, record->cx_size)) {
    log_error(tag, "Error allocating memory");
    return FW_PARSE_NO_MEMORY;
  }

  // The cx version lives inside the cx section; a section too short to hold
  // it is treated as carrying none.
  if (record->cx_data != nullptr && record->cx_size >= FW_CX_VERSION_OFFSET + 2) {
    record->cx_ver = le16(record->cx_data + FW_CX_VERSION_OFFSET);
    NLOG(LOG_LEVEL_INFO, tag, "cx version: 0x%04X", record->cx_ver);
  }
  return FW_PARSE_OK;
}

void clean_fw_file_info(fw_file_info *record) {
  if (record == nullptr) {
    return;
  }
  for (uint8_t **slot : {&record->fw_data, &record->cfg_data, &record->cx_data}) {
    if (*slot != nullptr) {
      heap_free(*slot);
      *slot = nullptr;
    }
  }
}

uint32_t fw_image_check(const uint8_t *image, size_t size, char *reason, size_t reason_size) {
  set_reason(reason, reason_size, "ok");
  if (image == nullptr) {
    set_reason(reason, reason_size, "no image");
    return FW_PARSE_BAD_HEADER;
  }
  if (size < FW_HEADER_SIZE) {
    set_reason(reason, reason_size, "image of %zu bytes is shorter than its %u-byte header", size,
               FW_HEADER_SIZE);
    return FW_PARSE_BAD_HEADER;
  }
  const uint32_t signature = le32(image + OFF_SIGNATURE);
  if (signature != FW_SIGNATURE) {
    set_reason(reason, reason_size, "wrong signature 0x%08X, expected 0x%08X", signature,
               FW_SIGNATURE);
    return FW_PARSE_BAD_HEADER;
  }
  const uint32_t format_version = le32(image + OFF_FORMAT_VERSION);
  if (format_version != FW_FORMAT_VERSION) {
    set_reason(reason, reason_size, "wrong format version %u, expected %u", format_version,
               FW_FORMAT_VERSION);
    return FW_PARSE_BAD_HEADER;
  }
  struct section {
    const char *name;
    uint32_t length;
  };
  const section sections[] = {{"code", le32(image + OFF_FW_LENGTH)},
                              {"config", le32(image + OFF_CFG_LENGTH)},
                              {"cx", le32(image + OFF_CX_LENGTH)}};
  // 64-bit sums: three u32 lengths cannot wrap.
  uint64_t offset = FW_HEADER_SIZE;
  for (const section &s : sections) {
    const uint64_t end = offset + s.length;
    if (end > size) {
      set_reason(reason, reason_size,
                 "%s section of %u bytes at offset %llu runs past the end of the %zu-byte image",
                 s.name, s.length, static_cast<unsigned long long>(offset), size);
      return FW_PARSE_BAD_HEADER;
    }
    offset = end;
  }
  if (size < FW_GEOMETRY_OFFSET + GEOMETRY_BYTES) {
    set_reason(reason, reason_size,
               "flash geometry bytes at offsets %u-%u lie past the end of the %zu-byte image",
               FW_GEOMETRY_OFFSET, FW_GEOMETRY_OFFSET + 3, size);
    return FW_PARSE_BAD_HEADER;
  }
  return FW_PARSE_OK;
}

fw_flash_map fw_describe_flash_map(const fw_file_info &record) {
  const auto area = [](const char *name, uint32_t first, uint32_t pages, uint32_t length) {
    return fw_flash_area{
        name,   first,
        pages,  first * FLASH_PAGE_SIZE,
        length, static_cast<uint64_t>(length) <= static_cast<uint64_t>(pages) * FLASH_PAGE_SIZE};
  };
  const uint32_t gap_first = record.fw_pages;
  const uint32_t cx_first = gap_first + record.gap_pages;
  const uint32_t cfg_first = cx_first + record.cx_pages;
  return {area("code", 0, record.fw_pages, record.fw_size),
          area("gap", gap_first, record.gap_pages, 0),
          area("cx", cx_first, record.cx_pages, record.cx_size),
          area("config", cfg_first, record.cfg_pages, record.cfg_size)};
}

size_t fw_format_flash_map(const fw_file_info &record, char *out, size_t out_size) {
  size_t needed = 0;
  for (const fw_flash_area &a : fw_describe_flash_map(record)) {
    char line[128];
    char pages[24];
    if (a.pages == 0) {
      snprintf(pages, sizeof pages, "none");
    } else {
      snprintf(pages, sizeof pages, "%3u-%-3u", a.first_page, a.first_page + a.pages - 1);
    }
    const int n = snprintf(line, sizeof line, "%-7s pages %s  offset 0x%05X (%6u)  %6u bytes%s\n",
                           a.name, pages, a.flash_offset, a.flash_offset, a.length,
                           a.fits ? "" : "  (larger than its pages)");
    const size_t len = n > 0 ? static_cast<size_t>(n) : 0;
    if (out != nullptr && needed < out_size) {
      snprintf(out + needed, out_size - needed, "%s", line);
    }
    needed += len;
  }
  return needed;
}
