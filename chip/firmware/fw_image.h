// The IC firmware image carried by the library: its header, the parsed
// record, and the flash layout its geometry bytes describe.
//
// Image layout (little-endian): a 64-byte header, then the code, config and
// cx sections back to back. The header holds the signature 0xAA55AA55,
// format version 1, the chip id "6H", the fw version, config id and config
// version, 8 external release bytes and the three section lengths. The flash
// geometry (pages of code, unused gap, cx and config) sits at image offsets
// 280-283 and the cx version at bytes 20-21 of the cx section.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/export.h"

// The embedded image (generated at build time from data/firmware_image.bin)
// and its length in bytes.
AFEHAL_EXPORT const uint8_t myArray[];
extern const uint32_t myArray_size;

constexpr uint32_t FW_HEADER_SIZE = 64;
constexpr uint32_t FW_SIGNATURE = 0xAA55AA55;
constexpr uint32_t FW_FORMAT_VERSION = 1;
constexpr uint8_t FW_CHIP_ID_HIGH = 0x36; // '6'
constexpr uint8_t FW_CHIP_ID_LOW = 0x48;  // 'H'
constexpr size_t FW_EXT_RELEASE_SIZE = 8;
// Image offset of the four geometry bytes (bytes 216-219 of the code section).
constexpr uint32_t FW_GEOMETRY_OFFSET = 280;
// Offset of the cx version inside the cx section.
constexpr uint32_t FW_CX_VERSION_OFFSET = 20;

constexpr uint32_t FLASH_PAGE_SIZE = 4096;
// Geometry taken when its byte in the image is zero.
constexpr uint8_t FW_DEFAULT_FW_PAGES = 28;
constexpr uint8_t FW_DEFAULT_GAP_PAGES = 1;
constexpr uint8_t FW_DEFAULT_CX_PAGES = 2;
constexpr uint8_t FW_DEFAULT_CFG_PAGES = 1;

// Results of parse_fw_header_file.
constexpr uint32_t FW_PARSE_OK = 0;
constexpr uint32_t FW_PARSE_BAD_HEADER = 1;
constexpr uint32_t FW_PARSE_NO_MEMORY = 2;

// A parsed image. It owns the three section buffers (heap blocks, or null
// when the section is empty); clean_fw_file_info releases them.
struct fw_file_info {
  uint16_t fw_ver;
  uint16_t cfg_ver;
  uint16_t cfg_id;
  uint16_t cx_ver; // 0 without a cx section
  uint8_t ext_release[FW_EXT_RELEASE_SIZE];
  uint8_t *fw_data;
  uint32_t fw_size;
  uint8_t *cfg_data;
  uint32_t cfg_size;
  uint8_t *cx_data;
  uint32_t cx_size;
  uint8_t fw_pages;
  uint8_t gap_pages;
  uint8_t cx_pages;
  uint8_t cfg_pages;
};

// Checks the header of a complete image and copies its sections into
// buffers of their own. The image is trusted to hold every byte its header
// describes (no length is passed): only the embedded image, whose bounds the
// build checks, or one that passed fw_image_check may be given.
// 0 parsed, 1 header rejected (nothing allocated), 2 a section buffer could
// not be allocated (the buffers made before it stay in the record).
uint32_t parse_fw_header_file(fw_file_info *record, const uint8_t *image);

// Frees each section buffer that is set and clears its pointer.
void clean_fw_file_info(fw_file_info *record);

// Bounds and header check of an image of size bytes from outside the build:
// signature, format version, every section and the geometry bytes inside
// the image. 0 when acceptable; otherwise 1 with the reason written into
// reason (cut to reason_size, always terminated; reason may be null).
uint32_t fw_image_check(const uint8_t *image, size_t size, char *reason, size_t reason_size);

// One area of the IC's flash, as the update programs it.
struct fw_flash_area {
  const char *name;      // "code", "gap", "cx", "config"
  uint32_t first_page;   // in FLASH_PAGE_SIZE pages from flash offset 0
  uint32_t pages;        // may be 0
  uint32_t flash_offset; // first_page * FLASH_PAGE_SIZE
  uint32_t length;       // bytes programmed there (0 for the gap)
  bool fits;             // length <= pages * FLASH_PAGE_SIZE
};
constexpr size_t FW_FLASH_AREAS = 4;
using fw_flash_map = std::array<fw_flash_area, FW_FLASH_AREAS>;

// The flash map of a parsed record, in flash order: code, gap, cx, config.
fw_flash_map fw_describe_flash_map(const fw_file_info &record);

// The same map as text, one line per area, e.g.
//   "code    pages   0-27  offset 0x00000 (     0)   99076 bytes\n"
// Writes at most out_size bytes, always terminated; returns the length the
// whole text needs (as snprintf does).
size_t fw_format_flash_map(const fw_file_info &record, char *out, size_t out_size);
