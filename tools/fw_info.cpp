// `afehal-tool fw-info [FILE]`: the header, sections and flash map of the
// embedded firmware image or of an image file, or what is wrong with a file
// that cannot be used.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "chip/firmware/fw_image.h"
#include "tools/tool.h"

namespace tool {

namespace {

// Anything larger cannot be an image for a 128 KiB flash.
constexpr size_t kMaxImageFile = 16u << 20;
constexpr uint32_t kFlashBytes = sim::kFlashSize;

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitIoError = 1;
constexpr int kExitRejected = 2;
constexpr int kExitWarnings = 3;

uint32_t le32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

char printable(uint8_t c) {
  return c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
}

// The first four bytes of a section as text (each section starts with a
// small header of its own).
std::string section_tag(const uint8_t *data, uint32_t size) {
  std::string tag;
  for (uint32_t i = 0; i < 4 && i < size; ++i) {
    tag += printable(data[i]);
  }
  return tag;
}

bool read_file(const std::string &path, std::vector<uint8_t> &out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "afehal-tool: cannot open %s\n", path.c_str());
    return false;
  }
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size < 0) {
    std::fprintf(stderr, "afehal-tool: cannot read %s\n", path.c_str());
    return false;
  }
  if (static_cast<uint64_t>(size) > kMaxImageFile) {
    std::fprintf(stderr, "afehal-tool: %s is %lld bytes, too large for a firmware image\n",
                 path.c_str(), static_cast<long long>(size));
    return false;
  }
  in.seekg(0, std::ios::beg);
  out.resize(static_cast<size_t>(size));
  if (size > 0 && !in.read(reinterpret_cast<char *>(out.data()), size)) {
    std::fprintf(stderr, "afehal-tool: cannot read %s\n", path.c_str());
    return false;
  }
  return true;
}

// Only called on an image that passed fw_image_check: every offset read
// here lies inside it.
void print_header(std::span<const uint8_t> image, const fw_file_info &info) {
  const uint8_t *p = image.data();
  const uint16_t chip_id = static_cast<uint16_t>((p[8] << 8) | p[9]);
  const bool chip_ok = p[8] == FW_CHIP_ID_HIGH && p[9] == FW_CHIP_ID_LOW;
  std::printf("signature       0x%08X\n", le32(p));
  std::printf("format version  %u\n", le32(p + 4));
  std::printf("chip id         0x%04X \"%c%c\"%s\n", chip_id, printable(p[8]), printable(p[9]),
              chip_ok ? "" : "  (not this IC's 0x3648; the library flashes it anyway)");
  std::printf("fw version      0x%04X\n", info.fw_ver);
  std::printf("config id       0x%04X\n", info.cfg_id);
  std::printf("config version  0x%04X\n", info.cfg_ver);
  std::printf("cx version      0x%04X%s\n", info.cx_ver,
              info.cx_data == nullptr ? "  (no cx section)" : "");
  std::printf("external release");
  for (uint8_t b : info.ext_release) {
    std::printf(" %02X", b);
  }
  std::printf("\n");
}

// Returns the number of warnings printed.
int print_sections(std::span<const uint8_t> image, const fw_file_info &info) {
  struct section {
    const char *name;
    const uint8_t *data;
    uint32_t size;
  };
  const section sections[] = {{"code", info.fw_data, info.fw_size},
                              {"config", info.cfg_data, info.cfg_size},
                              {"cx", info.cx_data, info.cx_size}};
  std::printf("\nsections\n");
  uint64_t offset = FW_HEADER_SIZE;
  int warnings = 0;
  for (const section &s : sections) {
    std::printf("  %-7s offset %6llu  %6u bytes", s.name, static_cast<unsigned long long>(offset),
                s.size);
    if (s.data != nullptr) {
      std::printf("  starts \"%s\"", section_tag(s.data, s.size).c_str());
    }
    if (s.size % 4 != 0) {
      ++warnings;
      std::printf("  (not whole words: the last %u bytes are never programmed)", s.size % 4);
    }
    std::printf("\n");
    offset += s.size;
  }
  std::printf("  %llu bytes after the sections, image %zu bytes\n",
              static_cast<unsigned long long>(image.size() - offset), image.size());
  return warnings;
}

// Returns the number of warnings printed.
int print_flash_map(std::span<const uint8_t> image, const fw_file_info &info) {
  const uint8_t *geometry = image.data() + FW_GEOMETRY_OFFSET;
  std::printf("\nflash geometry bytes %02X %02X %02X %02X (pages of %u bytes; 00 = default)\n",
              geometry[0], geometry[1], geometry[2], geometry[3], FLASH_PAGE_SIZE);
  std::printf("flash map\n");
  std::vector<char> text(fw_format_flash_map(info, nullptr, 0) + 1);
  fw_format_flash_map(info, text.data(), text.size());
  std::fputs(text.data(), stdout);

  int warnings = 0;
  for (const fw_flash_area &area : fw_describe_flash_map(info)) {
    if (!area.fits) {
      ++warnings;
      std::printf("warning: the %s section (%u bytes) is larger than its %u pages\n", area.name,
                  area.length, area.pages);
    }
    const uint64_t end = static_cast<uint64_t>(area.first_page + area.pages) * FLASH_PAGE_SIZE;
    if (end > kFlashBytes) {
      ++warnings;
      std::printf("warning: the %s area ends at byte %llu, past the %u-byte flash\n", area.name,
                  static_cast<unsigned long long>(end), kFlashBytes);
    }
  }
  return warnings;
}

} // namespace

int run_fw_info(const fw_info_options &options) {
  std::vector<uint8_t> file;
  std::span<const uint8_t> image;
  std::string name;
  if (options.file.empty()) {
    image = {myArray, myArray_size};
    name = "embedded image (myArray)";
  } else {
    if (!read_file(options.file, file)) {
      return kExitIoError;
    }
    image = file;
    name = options.file;
  }
  std::printf("%s, %zu bytes\n", name.c_str(), image.size());

  char reason[256];
  if (fw_image_check(image.data(), image.size(), reason, sizeof reason) != FW_PARSE_OK) {
    std::printf("rejected: %s\n", reason);
    return kExitRejected;
  }

  fw_file_info info{};
  const uint32_t parsed = parse_fw_header_file(&info, image.data());
  if (parsed != FW_PARSE_OK) {
    clean_fw_file_info(&info);
    std::printf("rejected: the header could not be parsed (result %u%s)\n", parsed,
                parsed == FW_PARSE_NO_MEMORY ? ", out of memory" : "");
    return kExitRejected;
  }
  print_header(image, info);
  int warnings = print_sections(image, info);
  warnings += print_flash_map(image, info);
  clean_fw_file_info(&info);

  if (options.sim_update) {
    std::printf("\n");
    return run_sim_update(options);
  }
  return warnings == 0 ? kExitOk : kExitWarnings;
}

} // namespace tool
