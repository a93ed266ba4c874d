// The embedded firmware image, its header parser, the bounds check for
// images from outside the build, and the flash map description.
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "chip/firmware/fw_image.h"
#include "support/fixture.h"

namespace {

constexpr size_t kCodeAt = 64;
constexpr size_t kCodeLen = 99076;
constexpr size_t kCfgLen = 3380;
constexpr size_t kCxLen = 1516;
constexpr size_t kCfgAt = kCodeAt + kCodeLen;
constexpr size_t kCxAt = kCfgAt + kCfgLen;

std::vector<uint8_t> embedded() {
  return {myArray, myArray + myArray_size};
}

void put_le32(std::vector<uint8_t> &image, size_t offset, uint32_t value) {
  for (int i = 0; i < 4; ++i) {
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

TEST_F(FwImageTest, EmbeddedImageParsesIntoOwnedSectionsAndItsFlashMap) {
  const std::vector<uint8_t> img = embedded();
  parsed p(img);
  ASSERT_EQ(p.result, 0u);
  EXPECT_TRUE(same_bytes(p.rec.fw_data, img, kCodeAt, kCodeLen));
  EXPECT_TRUE(same_bytes(p.rec.cfg_data, img, kCfgAt, kCfgLen));
  EXPECT_TRUE(same_bytes(p.rec.cx_data, img, kCxAt, kCxLen));
  EXPECT_NE(p.rec.fw_data, img.data() + kCodeAt); // copies, not views into the image

  // The external release goes out through the plain logger, byte by byte.
  EXPECT_EQ(log_lines().at(6), "external release: ");
  EXPECT_EQ(joined_log(),
            "FW signature OK|Fw binary version OK|HW Chip Id: 0x3648|FW version: 0x0084|"
            "config id: 0x00B9|config version: 0x0051|external release: |51 |00 |21 |00 |00 |00 |"
            "00 |00 |\n|fw data length: 99076 bytes|fw config data length: 3380 bytes|"
            "cx data length: 1516 bytes|cx version: 0x0011|");
  EXPECT_TRUE(android_errors().empty());

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

  // 24 code pages hold 98,304 bytes: the code no longer fits, cx moves up.
  fw_file_info shrunk = p.rec;
  shrunk.fw_pages = 24;
  fw_format_flash_map(shrunk, text, sizeof text);
  EXPECT_NE(strstr(text, "99076 bytes  (larger than its pages)\ngap     pages  24-24"), nullptr);
  EXPECT_NE(strstr(text, "cx      pages  25-26   offset 0x19000"), nullptr) << text;

  clean_fw_file_info(&p.rec);
  EXPECT_TRUE(!p.rec.fw_data && !p.rec.cfg_data && !p.rec.cx_data);
}

TEST_F(FwImageTest, ForeignChipIdWarnsAndHeaderRejectionsAllocateNothing) {
  // A foreign chip id is only reported, just before the id itself.
  std::vector<uint8_t> img = embedded();
  img[8] = '7';
  parsed p(img);
  EXPECT_EQ(p.result, 0u);
  EXPECT_TRUE(logged("parse_fw_header_file", "Wrong Hardware Chip ID"));
  EXPECT_EQ(android_errors(), std::vector<std::string>{"Wrong Hardware Chip ID"});
  EXPECT_NE(joined_log().find("|Wrong Hardware Chip ID|HW Chip Id: 0x3748|"), std::string::npos);

  // Header word overwritten, the error, and everything logged.
  const std::tuple<size_t, uint32_t, const char *, const char *> cases[] = {
      {0, 0x55AA55AA, "Wrong FW header signature", "Wrong FW header signature|"},
      {4, 2, "Wrong FW QLB version", "FW signature OK|Wrong FW QLB version|"}};
  for (const auto &[offset, value, error, log] : cases) {
    SCOPED_TRACE(error);
    clear_log();
    sim::clear_recording();
    img = embedded();
    put_le32(img, offset, value);
    fw_file_info rec;
    memset(&rec, 0x5A, sizeof rec);
    const size_t heap_before = sim::heap_live_blocks();
    EXPECT_EQ(parse_fw_header_file(&rec, img.data()), 1u);
    EXPECT_EQ(sim::heap_live_blocks(), heap_before);
    EXPECT_TRUE(!rec.fw_data && !rec.cfg_data && !rec.cx_data && rec.cx_ver == 0);
    EXPECT_EQ(rec.fw_ver, 0x5A5A); // the rest is left as it was
    EXPECT_EQ(rec.fw_size, 0x5A5A5A5Au);
    EXPECT_EQ(joined_log(), log);
    EXPECT_EQ(android_errors(), std::vector<std::string>{error});
  }
}

TEST_F(FwImageTest, ZeroFieldsMeanNoSectionOrTheDefaultGeometry) {
  // No cx section: no buffer, cx version 0.
  std::vector<uint8_t> img = embedded();
  put_le32(img, 52, 0);
  parsed no_cx(img);
  EXPECT_EQ(no_cx.result, 0u);
  EXPECT_TRUE(no_cx.rec.cx_data == nullptr && no_cx.rec.cx_ver == 0);
  EXPECT_FALSE(logged("cx version: 0x0011"));
  EXPECT_TRUE(same_bytes(no_cx.rec.cfg_data, img, kCfgAt, kCfgLen));
  // No code section: config starts right after the header, cx after it.
  img = embedded();
  put_le32(img, 44, 0);
  parsed no_code(img);
  EXPECT_EQ(no_code.result, 0u);
  EXPECT_EQ(no_code.rec.fw_data, nullptr);
  EXPECT_TRUE(same_bytes(no_code.rec.cfg_data, img, kCodeAt, kCfgLen));
  EXPECT_TRUE(same_bytes(no_code.rec.cx_data, img, kCodeAt + kCfgLen, kCxLen));
  // Each zero geometry byte takes its default page count.
  img = embedded();
  put_le32(img, 280, 0);
  EXPECT_EQ(parsed(img).pages(), (std::vector<int>{28, 1, 2, 1}));
  put_le32(img, 280, 0xFF030005);
  EXPECT_EQ(parsed(img).pages(), (std::vector<int>{5, 1, 3, 0xFF}));
}

TEST_F(FwImageTest, AllocationFailureKeepsEarlierSectionsForTheCaller) {
  const std::vector<uint8_t> img = embedded();
  for (int nth = 1; nth <= 3; ++nth) {
    SCOPED_TRACE(nth);
    sim::clear_recording();
    sim::fail_allocation(nth);
    parsed p(img);
    sim::fail_allocation(0);
    EXPECT_EQ(p.result, 2u);
    EXPECT_EQ(android_errors(), std::vector<std::string>{"Error allocating memory"});
    EXPECT_EQ(p.rec.fw_data != nullptr, nth > 1);
    EXPECT_EQ(p.rec.cfg_data != nullptr, nth > 2);
    EXPECT_EQ(p.rec.cx_data, nullptr);
  }
}

TEST_F(FwImageTest, CheckAcceptsWhatFitsAndGivesTheReasonOtherwise) {
  const auto check = [](size_t size, const std::vector<std::pair<size_t, uint32_t>> &writes,
                        const char *expected) {
    SCOPED_TRACE(expected);
    std::vector<uint8_t> img = embedded();
    for (const auto &[offset, value] : writes) {
      put_le32(img, offset, value);
    }
    char reason[160];
    EXPECT_EQ(fw_image_check(img.data(), size, reason, sizeof reason),
              std::string(expected) == "ok" ? 0u : 1u);
    EXPECT_STREQ(reason, expected);
  };
  const size_t n = myArray_size;
  check(n, {}, "ok");
  check(63, {}, "image of 63 bytes is shorter than its 64-byte header");
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

} // namespace
