// The embedded firmware image, its header parser, the bounds check for
// images from outside the build, and the flash map description.
#include <cstring>
#include <string>
#include <vector>

#include "chip/firmware/fw_image.h"
#include "support/fixture.h"

namespace {

constexpr size_t kCodeAt = 64, kCodeLen = 99076, kCfgLen = 3380, kCxLen = 1516;
constexpr size_t kCfgAt = kCodeAt + kCodeLen, kCxAt = kCfgAt + kCfgLen;
constexpr const char *kTag = "parse_fw_header_file";

std::vector<uint8_t> embedded() {
  return {myArray, myArray + myArray_size};
}

void put_le(std::vector<uint8_t> &image, size_t offset, uint32_t value, int bytes = 4) {
  for (int i = 0; i < bytes; ++i) {
    image[offset + i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

// A parsed record whose section buffers are released when the test ends.
struct parsed {
  fw_file_info rec{};
  uint32_t result;
  explicit parsed(const std::vector<uint8_t> &image)
      : result(parse_fw_header_file(&rec, image.data())) {}
  ~parsed() { clean_fw_file_info(&rec); }
  std::vector<int> pages() const {
    return {rec.fw_pages, rec.gap_pages, rec.cx_pages, rec.cfg_pages};
  }
};

bool same_bytes(const uint8_t *a, const std::vector<uint8_t> &image, size_t offset, size_t len) {
  return a != nullptr && memcmp(a, image.data() + offset, len) == 0;
}

// Every message logged so far, each followed by '|'.
std::string joined_log() {
  std::string all;
  for (const auto &message : log_messages()) {
    all += message + "|";
  }
  return all;
}

class FwImageTest : public SimTest {};

TEST_F(FwImageTest, EachFieldComesFromItsOwnOffsetIntoOwnedSections) {
  std::vector<uint8_t> img = embedded();
  // Bytes no field owns, scribbled over.
  for (const auto &[from, to] : std::vector<std::pair<size_t, size_t>>{
           {10, 16}, {18, 20}, {22, 24}, {26, 36}, {56, 64}, {kCxAt + kCxLen, img.size()}}) {
    memset(img.data() + from, 0xEE, to - from);
  }
  put_le(img, 16, 0xA1B2, 2);
  put_le(img, 20, 0xC3D4, 2);
  put_le(img, 24, 0xE5F6, 2);
  put_le(img, 36, 0x04030201);
  put_le(img, 40, 0x08070605);
  put_le(img, kCxAt + 20, 0x9A8B, 2);
  put_le(img, 280, 0xFF030005); // geometry: code 5, gap default 1, cx 3, config 255
  parsed p(img);
  ASSERT_EQ(p.result, 0u);
  EXPECT_EQ(p.rec.fw_ver, 0xA1B2);
  EXPECT_EQ(p.rec.cfg_id, 0xC3D4);
  EXPECT_EQ(p.rec.cfg_ver, 0xE5F6);
  EXPECT_EQ(p.rec.cx_ver, 0x9A8B);
  EXPECT_EQ(std::vector<uint8_t>(p.rec.ext_release, p.rec.ext_release + 8),
            (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(p.pages(), (std::vector<int>{5, 1, 3, 255}));
  EXPECT_TRUE(same_bytes(p.rec.fw_data, img, kCodeAt, kCodeLen));
  EXPECT_TRUE(same_bytes(p.rec.cfg_data, img, kCfgAt, kCfgLen));
  EXPECT_TRUE(same_bytes(p.rec.cx_data, img, kCxAt, kCxLen));
  EXPECT_EQ((std::vector<size_t>{p.rec.fw_size, p.rec.cfg_size, p.rec.cx_size}),
            (std::vector<size_t>{kCodeLen, kCfgLen, kCxLen}));

  // Progress at level 3; the external release through the plain logger.
  for (const char *text :
       {"FW signature OK", "Fw binary version OK", "HW Chip Id: 0x3648", "FW version: 0xA1B2",
        "config id: 0xC3D4", "config version: 0xE5F6", "fw data length: 99076 bytes",
        "fw config data length: 3380 bytes", "cx data length: 1516 bytes", "cx version: 0x9A8B"}) {
    EXPECT_TRUE(logged_at(3, kTag, text));
  }
  EXPECT_EQ(joined_log(),
            "FW signature OK|Fw binary version OK|HW Chip Id: 0x3648|FW version: 0xA1B2|"
            "config id: 0xC3D4|config version: 0xE5F6|external release: |01 |02 |03 |04 |05 |06 |"
            "07 |08 |\n|fw data length: 99076 bytes|fw config data length: 3380 bytes|"
            "cx data length: 1516 bytes|cx version: 0x9A8B|");
  EXPECT_TRUE(android_errors().empty());

  clean_fw_file_info(&p.rec);
  EXPECT_TRUE(!p.rec.fw_data && !p.rec.cfg_data && !p.rec.cx_data);
  clean_fw_file_info(nullptr); // nothing to free
}

TEST_F(FwImageTest, HeaderFaultsRejectOrOnlyWarn) {
  struct header_fault {
    size_t offset;
    uint32_t value;
    int bytes;
    uint32_t result;
    const char *error;
    const char *log; // everything logged up to the error and the line after it
  };
  const header_fault cases[] = {
      {0, 0x55AA55AA, 4, 1, "Wrong FW header signature", "Wrong FW header signature|"},
      {4, 2, 4, 1, "Wrong FW QLB version", "FW signature OK|Wrong FW QLB version|"},
      {8, '7', 1, 0, "Wrong Hardware Chip ID", "|Wrong Hardware Chip ID|HW Chip Id: 0x3748|"},
      {9, 'I', 1, 0, "Wrong Hardware Chip ID", "|Wrong Hardware Chip ID|HW Chip Id: 0x3649|"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.error);
    clear_log();
    std::vector<uint8_t> img = embedded();
    put_le(img, c.offset, c.value, c.bytes);
    fw_file_info rec;
    memset(&rec, 0x5A, sizeof rec);
    EXPECT_EQ(parse_fw_header_file(&rec, img.data()), c.result);
    EXPECT_TRUE(logged_error(kTag, c.error));
    EXPECT_NE(joined_log().find(c.log), std::string::npos) << joined_log();
    EXPECT_EQ(android_errors().size(), 1u);
    if (c.result == 0) {
      EXPECT_EQ(rec.fw_ver, 0x0084); // the parse went on
      clean_fw_file_info(&rec);
      continue;
    }
    // A rejected header allocates nothing and leaves the rest as it was.
    EXPECT_EQ(sim::heap_live_blocks(), heap_at_start_);
    EXPECT_TRUE(!rec.fw_data && !rec.cfg_data && !rec.cx_data && rec.cx_ver == 0);
    EXPECT_EQ(rec.fw_ver, 0x5A5A);
    EXPECT_EQ(rec.fw_size, 0x5A5A5A5Au);
  }
}

TEST_F(FwImageTest, SectionLengthsPlaceTheSectionsAndZeroMeansNone) {
  struct lengths_case {
    uint32_t code, cfg, cx;
    bool has_version; // the cx section holds bytes 20-21
  };
  const lengths_case cases[] = {{kCodeLen, kCfgLen, 0, false},
                                {0, kCfgLen, kCxLen, true},
                                {kCodeLen, 0, 22, true},
                                {kCodeLen, 0, 21, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.code) + "/" + std::to_string(c.cfg) + "/" + std::to_string(c.cx));
    clear_log();
    std::vector<uint8_t> img = embedded();
    put_le(img, 44, c.code);
    put_le(img, 48, c.cfg);
    put_le(img, 52, c.cx);
    parsed p(img);
    ASSERT_EQ(p.result, 0u);
    // An empty section has no buffer; the others hold their own bytes.
    EXPECT_EQ(same_bytes(p.rec.fw_data, img, kCodeAt, c.code), c.code != 0);
    EXPECT_EQ(same_bytes(p.rec.cfg_data, img, kCodeAt + c.code, c.cfg), c.cfg != 0);
    EXPECT_EQ(same_bytes(p.rec.cx_data, img, kCodeAt + c.code + c.cfg, c.cx), c.cx != 0);
    const uint8_t *version = img.data() + kCodeAt + c.code + c.cfg + 20;
    EXPECT_EQ(p.rec.cx_ver, c.has_version ? version[0] | version[1] << 8 : 0);
    EXPECT_EQ(count_logged_starting(3, "cx version: "), c.has_version ? 1 : 0);
  }
  std::vector<uint8_t> img = embedded();
  put_le(img, 280, 0);
  EXPECT_EQ(parsed(img).pages(), (std::vector<int>{28, 1, 2, 1}));
}

TEST_F(FwImageTest, AllocationFailureKeepsEarlierSectionsForTheCaller) {
  const std::vector<uint8_t> img = embedded();
  for (int nth = 1; nth <= 3; ++nth) {
    SCOPED_TRACE(nth);
    clear_log();
    sim::fail_allocation(nth);
    parsed p(img);
    sim::fail_allocation(0);
    EXPECT_EQ(p.result, 2u);
    EXPECT_TRUE(logged_error(kTag, "Error allocating memory"));
    EXPECT_EQ(p.rec.fw_data != nullptr, nth > 1);
    EXPECT_EQ(p.rec.cfg_data != nullptr, nth > 2);
    EXPECT_EQ(p.rec.cx_data, nullptr);
    EXPECT_FALSE(mentioned("cx version: 0x0011"));
  }
}

TEST_F(FwImageTest, CheckAcceptsWhatFitsAndGivesTheReasonOtherwise) {
  const auto check = [](size_t size, const std::vector<std::pair<size_t, uint32_t>> &writes,
                        const char *expected) {
    SCOPED_TRACE(expected);
    std::vector<uint8_t> img = embedded();
    for (const auto &[offset, value] : writes) {
      put_le(img, offset, value);
    }
    char reason[160];
    EXPECT_EQ(fw_image_check(img.data(), size, reason, sizeof reason),
              std::string(expected) == "ok" ? 0u : 1u);
    EXPECT_STREQ(reason, expected);
  };
  const size_t n = myArray_size;
  check(n, {}, "ok");
  check(63, {}, "image of 63 bytes is shorter than its 64-byte header");
  check(64, {}, "code section of 99076 bytes at offset 64 runs past the end of the 64-byte image");
  check(n, {{0, 0x55AA55AA}}, "wrong signature 0x55AA55AA, expected 0xAA55AA55");
  check(n, {{4, 2}}, "wrong format version 2, expected 1");
  // The sum of the lengths must not wrap.
  check(n, {{48, 0xFFFFFFF0}},
        "config section of 4294967280 bytes at offset 99140 runs past the end of the 104040-byte "
        "image");
  check(n, {{52, static_cast<uint32_t>(n - kCxAt + 1)}},
        "cx section of 1521 bytes at offset 102520 runs past the end of the 104040-byte image");
  // The geometry bytes are the last four of a header and 220 code bytes.
  check(284, {{44, 220}, {48, 0}, {52, 0}}, "ok");
  check(283, {{44, 219}, {48, 0}, {52, 0}},
        "flash geometry bytes at offsets 280-283 lie past the end of the 283-byte image");
  EXPECT_EQ(fw_image_check(nullptr, n, nullptr, 0), 1u);
  // A short reason buffer is cut and still terminated.
  char reason[9];
  memset(reason, 'x', sizeof reason);
  EXPECT_EQ(fw_image_check(myArray, 10, reason, sizeof reason), 1u);
  EXPECT_STREQ(reason, "image of");
}

TEST_F(FwImageTest, FlashMapShowsPagesOffsetsAndWhatDoesNotFit) {
  parsed p(embedded());
  char text[512];
  const size_t needed = fw_format_flash_map(p.rec, text, sizeof text);
  EXPECT_EQ(needed, strlen(text));
  EXPECT_STREQ(text, "code    pages   0-27   offset 0x00000 (     0)   99076 bytes\n"
                     "gap     pages  28-28   offset 0x1C000 (114688)       0 bytes\n"
                     "cx      pages  29-30   offset 0x1D000 (118784)    1516 bytes\n"
                     "config  pages  31-31   offset 0x1F000 (126976)    3380 bytes\n");
  // Too small a buffer, or none, still gets the full length reported.
  char small[20];
  EXPECT_EQ(fw_format_flash_map(p.rec, small, sizeof small), needed);
  EXPECT_EQ(strlen(small), sizeof small - 1);
  EXPECT_EQ(fw_format_flash_map(p.rec, nullptr, 0), needed);

  // Exactly full pages fit; one byte more does not. No gap moves cx up.
  fw_file_info shrunk = p.rec;
  shrunk.fw_pages = 24;
  shrunk.gap_pages = 0;
  shrunk.cx_size = 2 * 4096;
  shrunk.cfg_size = 4097;
  fw_format_flash_map(shrunk, text, sizeof text);
  EXPECT_STREQ(text, "code    pages   0-23   offset 0x00000 (     0)   99076 bytes  (larger than "
                     "its pages)\n"
                     "gap     pages none  offset 0x18000 ( 98304)       0 bytes\n"
                     "cx      pages  24-25   offset 0x18000 ( 98304)    8192 bytes\n"
                     "config  pages  26-26   offset 0x1A000 (106496)    4097 bytes  (larger than "
                     "its pages)\n");
}

} // namespace
