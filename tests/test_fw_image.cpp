// The embedded firmware image, its header parser, the bounds check for
// images from outside the build, and the flash map description.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "support/fixture.h"
#include "vendor/firmware/fw_image.h"

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

uint16_t le16_at(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

// A parsed record whose section buffers are released when the test ends.
struct parsed {
  fw_file_info rec{};
  uint32_t result = 0;
  explicit parsed(const std::vector<uint8_t> &image) {
    result = parse_fw_header_file(&rec, image.data());
  }
  ~parsed() { clean_fw_file_info(&rec); }
};

bool same_bytes(const uint8_t *a, const std::vector<uint8_t> &image, size_t offset, size_t len) {
  return a != nullptr && memcmp(a, image.data() + offset, len) == 0;
}

ptrdiff_t index_of(const std::string &text) {
  const auto messages = log_messages();
  const auto it = std::find(messages.begin(), messages.end(), text);
  return it == messages.end() ? -1 : it - messages.begin();
}

std::string check_reason(const std::vector<uint8_t> &image, size_t size, uint32_t *result) {
  char reason[160];
  *result = fw_image_check(image.data(), size, reason, sizeof reason);
  return reason;
}

class FwImageTest : public SimTest {};

TEST_F(FwImageTest, EmbeddedImageHasTheDocumentedLayout) {
  ASSERT_EQ(myArray_size, 104040u);
  const std::vector<uint8_t> img = embedded();
  const std::vector<uint8_t> header_start = {0x55, 0xAA, 0x55, 0xAA, 0x01, 0x00, 0x00, 0x00,
                                             0x36, 0x48, 0x00, 0x00, 0x60, 0x35, 0x00, 0x00};
  EXPECT_TRUE(std::equal(header_start.begin(), header_start.end(), img.begin()));
  EXPECT_EQ(le16_at(&img[16]), 0x0084);
  EXPECT_EQ(le16_at(&img[20]), 0x00B9);
  EXPECT_EQ(le16_at(&img[24]), 0x0051);
  const std::vector<uint8_t> release = {0x51, 0x00, 0x21, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_TRUE(std::equal(release.begin(), release.end(), img.begin() + 36));
  const std::vector<uint8_t> geometry = {0x1C, 0x01, 0x02, 0x01};
  EXPECT_TRUE(std::equal(geometry.begin(), geometry.end(), img.begin() + 280));
  // The three sections fill the image up to 4 bytes before its end.
  EXPECT_EQ(kCxAt + kCxLen + 4, img.size());

  // Section headers the simulated chip reads its versions from.
  EXPECT_EQ(std::string(img.begin() + kCodeAt, img.begin() + kCodeAt + 4), "CODE");
  EXPECT_EQ(le16_at(&img[kCodeAt + 4]), 0x0084);
  EXPECT_EQ(std::string(img.begin() + kCfgAt, img.begin() + kCfgAt + 4), "CNFG");
  EXPECT_EQ(le16_at(&img[kCfgAt + 4]), 0x0051);
  EXPECT_EQ(le16_at(&img[kCfgAt + 6]), 0x00B9);
  EXPECT_EQ(img[kCfgAt + 8], 0x01);
  EXPECT_EQ(std::string(img.begin() + kCxAt, img.begin() + kCxAt + 4), "CXDT");
  EXPECT_EQ(le16_at(&img[kCxAt + 20]), 0x0011);
}

TEST_F(FwImageTest, EmbeddedImageParsesIntoOwnedSections) {
  const std::vector<uint8_t> img = embedded();
  parsed p(img);
  ASSERT_EQ(p.result, 0u);
  EXPECT_EQ(p.rec.fw_ver, 0x0084);
  EXPECT_EQ(p.rec.cfg_id, 0x00B9);
  EXPECT_EQ(p.rec.cfg_ver, 0x0051);
  EXPECT_EQ(p.rec.cx_ver, 0x0011);
  EXPECT_EQ(p.rec.fw_size, kCodeLen);
  EXPECT_EQ(p.rec.cfg_size, kCfgLen);
  EXPECT_EQ(p.rec.cx_size, kCxLen);
  EXPECT_EQ(p.rec.fw_pages, 28);
  EXPECT_EQ(p.rec.gap_pages, 1);
  EXPECT_EQ(p.rec.cx_pages, 2);
  EXPECT_EQ(p.rec.cfg_pages, 1);
  EXPECT_EQ(memcmp(p.rec.ext_release, &img[36], 8), 0);
  EXPECT_TRUE(same_bytes(p.rec.fw_data, img, kCodeAt, kCodeLen));
  EXPECT_TRUE(same_bytes(p.rec.cfg_data, img, kCfgAt, kCfgLen));
  EXPECT_TRUE(same_bytes(p.rec.cx_data, img, kCxAt, kCxLen));
  // Copies, not views into the image.
  EXPECT_NE(p.rec.fw_data, img.data() + kCodeAt);

  const std::vector<std::string> expected = {"FW signature OK",
                                             "Fw binary version OK",
                                             "HW Chip Id: 0x3648",
                                             "FW version: 0x0084",
                                             "config id: 0x00B9",
                                             "config version: 0x0051",
                                             "fw data length: 99076 bytes",
                                             "fw config data length: 3380 bytes",
                                             "cx data length: 1516 bytes",
                                             "cx version: 0x0011"};
  ptrdiff_t last = -1;
  for (const auto &text : expected) {
    const ptrdiff_t at = index_of(text);
    EXPECT_GT(at, last) << text;
    last = at;
  }
  // The external release goes out through the plain logger, byte by byte.
  std::string raw;
  for (const auto &line : log_lines()) {
    if (line.rfind("[", 0) != 0) {
      raw += line;
    }
  }
  EXPECT_EQ(raw, "external release: 51 00 21 00 00 00 00 00 \n");
  EXPECT_TRUE(android_errors().empty());

  clean_fw_file_info(&p.rec);
  EXPECT_EQ(p.rec.fw_data, nullptr);
  EXPECT_EQ(p.rec.cfg_data, nullptr);
  EXPECT_EQ(p.rec.cx_data, nullptr);
}

TEST_F(FwImageTest, HeaderRejectionsAllocateNothingAndKeepTheRecord) {
  struct bad_header {
    const char *what;
    size_t offset;
    uint32_t value;
    const char *error;
    bool signature_ok;
  };
  const bad_header cases[] = {
      {"signature bytes swapped", 0, 0x55AA55AA, "Wrong FW header signature", false},
      {"format version 2", 4, 2, "Wrong FW QLB version", true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    clear_log();
    sim::clear_recording();
    std::vector<uint8_t> img = embedded();
    put_le32(img, c.offset, c.value);
    fw_file_info rec;
    memset(&rec, 0x5A, sizeof rec);
    const size_t heap_before = sim::heap_live_blocks();
    EXPECT_EQ(parse_fw_header_file(&rec, img.data()), 1u);
    EXPECT_EQ(sim::heap_live_blocks(), heap_before);
    EXPECT_EQ(rec.fw_data, nullptr);
    EXPECT_EQ(rec.cfg_data, nullptr);
    EXPECT_EQ(rec.cx_data, nullptr);
    EXPECT_EQ(rec.cx_ver, 0);
    EXPECT_EQ(rec.fw_ver, 0x5A5A); // untouched
    EXPECT_EQ(rec.fw_size, 0x5A5A5A5Au);
    EXPECT_TRUE(logged("parse_fw_header_file", c.error));
    EXPECT_EQ(android_errors(), std::vector<std::string>{c.error});
    EXPECT_EQ(logged("FW signature OK"), c.signature_ok);
    if (c.signature_ok) {
      EXPECT_LT(index_of("FW signature OK"), index_of(c.error));
    }
    EXPECT_FALSE(logged("Fw binary version OK"));
  }
}

TEST_F(FwImageTest, ForeignChipIdOnlyWarns) {
  std::vector<uint8_t> img = embedded();
  img[8] = '7';
  parsed p(img);
  EXPECT_EQ(p.result, 0u);
  EXPECT_TRUE(logged("parse_fw_header_file", "Wrong Hardware Chip ID"));
  EXPECT_EQ(android_errors(), std::vector<std::string>{"Wrong Hardware Chip ID"});
  EXPECT_LT(index_of("Wrong Hardware Chip ID"), index_of("HW Chip Id: 0x3748"));
  EXPECT_NE(p.rec.fw_data, nullptr);
  EXPECT_EQ(p.rec.cx_ver, 0x0011);
}

TEST_F(FwImageTest, EmptySectionsGetNoBufferAndShiftTheOthers) {
  // No cx section: no buffer, cx version 0.
  std::vector<uint8_t> img = embedded();
  put_le32(img, 52, 0);
  {
    parsed p(img);
    EXPECT_EQ(p.result, 0u);
    EXPECT_EQ(p.rec.cx_data, nullptr);
    EXPECT_EQ(p.rec.cx_size, 0u);
    EXPECT_EQ(p.rec.cx_ver, 0);
    EXPECT_FALSE(logged("cx version: 0x0011"));
    EXPECT_TRUE(same_bytes(p.rec.cfg_data, img, kCfgAt, kCfgLen));
  }
  // No code section: config starts right after the header, cx after it.
  img = embedded();
  put_le32(img, 44, 0);
  {
    parsed p(img);
    EXPECT_EQ(p.result, 0u);
    EXPECT_EQ(p.rec.fw_data, nullptr);
    EXPECT_TRUE(same_bytes(p.rec.cfg_data, img, kCodeAt, kCfgLen));
    EXPECT_TRUE(same_bytes(p.rec.cx_data, img, kCodeAt + kCfgLen, kCxLen));
    EXPECT_EQ(p.rec.cx_ver, le16_at(&img[kCodeAt + kCfgLen + 20]));
  }
}

TEST_F(FwImageTest, GeometryZeroBytesTakeDefaults) {
  std::vector<uint8_t> img = embedded();
  std::fill(img.begin() + 280, img.begin() + 284, 0);
  {
    parsed p(img);
    ASSERT_EQ(p.result, 0u);
    EXPECT_EQ(p.rec.fw_pages, 28);
    EXPECT_EQ(p.rec.gap_pages, 1);
    EXPECT_EQ(p.rec.cx_pages, 2);
    EXPECT_EQ(p.rec.cfg_pages, 1);
  }
  img[280] = 5;
  img[282] = 3;
  img[283] = 0xFF;
  {
    parsed p(img);
    ASSERT_EQ(p.result, 0u);
    EXPECT_EQ(p.rec.fw_pages, 5);
    EXPECT_EQ(p.rec.gap_pages, 1);
    EXPECT_EQ(p.rec.cx_pages, 3);
    EXPECT_EQ(p.rec.cfg_pages, 0xFF);
  }
}

TEST_F(FwImageTest, AllocationFailureKeepsEarlierSectionsForTheCaller) {
  const std::vector<uint8_t> img = embedded();
  for (int nth = 1; nth <= 3; ++nth) {
    SCOPED_TRACE(nth);
    clear_log();
    sim::clear_recording();
    sim::fail_allocation(nth);
    parsed p(img);
    sim::fail_allocation(0);
    EXPECT_EQ(p.result, 2u);
    EXPECT_EQ(android_errors(), std::vector<std::string>{"Error allocating memory"});
    EXPECT_EQ(p.rec.fw_data != nullptr, nth > 1);
    EXPECT_EQ(p.rec.cfg_data != nullptr, nth > 2);
    EXPECT_EQ(p.rec.cx_data, nullptr);
    EXPECT_FALSE(logged("cx version: 0x0011"));
  }
}

TEST_F(FwImageTest, CheckAcceptsTheEmbeddedImageAndRefusesDamagedOnes) {
  uint32_t result = 1;
  EXPECT_EQ(check_reason(embedded(), myArray_size, &result), "ok");
  EXPECT_EQ(result, 0u);

  struct damage {
    const char *what;
    size_t offset; // where to write value; SIZE_MAX for none
    uint32_t value;
    size_t size; // size handed to the check
    const char *reason;
  };
  const size_t n = myArray_size;
  const damage cases[] = {
      {"short header", SIZE_MAX, 0, 63, "image of 63 bytes is shorter than its 64-byte header"},
      {"swapped signature", 0, 0x55AA55AA, n, "wrong signature 0x55AA55AA, expected 0xAA55AA55"},
      {"format version 2", 4, 2, n, "wrong format version 2, expected 1"},
      {"code length wraps", 44, 0xFFFFFFFF, n,
       "code section of 4294967295 bytes at offset 64 runs past the end of the 104040-byte "
       "image"},
      {"config length wraps the sum", 48, 0xFFFFFFF0, n,
       "config section of 4294967280 bytes at offset 99140 runs past the end of the 104040-byte "
       "image"},
      {"cx one byte past the end", 52, static_cast<uint32_t>(n - kCxAt + 1), n,
       "cx section of 1521 bytes at offset 102520 runs past the end of the 104040-byte image"},
      {"image cut inside cx", SIZE_MAX, 0, kCxAt + kCxLen - 1,
       "cx section of 1516 bytes at offset 102520 runs past the end of the 104035-byte image"},
  };
  for (const auto &d : cases) {
    SCOPED_TRACE(d.what);
    std::vector<uint8_t> img = embedded();
    if (d.offset != SIZE_MAX) {
      put_le32(img, d.offset, d.value);
    }
    const std::string reason = check_reason(img, d.size, &result);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(reason.rfind(d.reason, 0), 0u) << reason;
  }
  EXPECT_EQ(fw_image_check(nullptr, n, nullptr, 0), 1u);
}

TEST_F(FwImageTest, CheckNeedsTheGeometryBytesInsideTheImage) {
  // A header followed by a 220-byte code section: the geometry bytes are
  // the last four bytes of the image.
  std::vector<uint8_t> img(myArray, myArray + 64);
  put_le32(img, 44, 220);
  put_le32(img, 48, 0);
  put_le32(img, 52, 0);
  img.resize(284, 0);
  uint32_t result = 1;
  EXPECT_EQ(check_reason(img, img.size(), &result), "ok");
  EXPECT_EQ(result, 0u);

  put_le32(img, 44, 219);
  EXPECT_EQ(check_reason(img, 283, &result),
            "flash geometry bytes at offsets 280-283 lie past the end of the 283-byte image");
  EXPECT_EQ(result, 1u);

  // A short reason buffer is cut and still terminated.
  char reason[9];
  memset(reason, 'x', sizeof reason);
  EXPECT_EQ(fw_image_check(img.data(), 10, reason, sizeof reason), 1u);
  EXPECT_STREQ(reason, "image of");
}

TEST_F(FwImageTest, FlashMapOfTheEmbeddedImage) {
  parsed p(embedded());
  ASSERT_EQ(p.result, 0u);
  const fw_flash_map map = fw_describe_flash_map(p.rec);
  struct expected_area {
    std::string name;
    uint32_t first, pages, offset, length;
  };
  const expected_area expected[] = {{"code", 0, 28, 0, 99076},
                                    {"gap", 28, 1, 114688, 0},
                                    {"cx", 29, 2, 118784, 1516},
                                    {"config", 31, 1, 126976, 3380}};
  for (size_t i = 0; i < map.size(); ++i) {
    SCOPED_TRACE(expected[i].name);
    EXPECT_EQ(map[i].name, expected[i].name);
    EXPECT_EQ(map[i].first_page, expected[i].first);
    EXPECT_EQ(map[i].pages, expected[i].pages);
    EXPECT_EQ(map[i].flash_offset, expected[i].offset);
    EXPECT_EQ(map[i].length, expected[i].length);
    EXPECT_TRUE(map[i].fits);
  }

  const size_t needed = fw_format_flash_map(p.rec, nullptr, 0);
  std::string text(needed + 1, '\0');
  EXPECT_EQ(fw_format_flash_map(p.rec, text.data(), text.size()), needed);
  text.resize(needed);
  EXPECT_NE(text.find("cx      pages  29-30   offset 0x1D000 (118784)    1516 bytes\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("config  pages  31-31   offset 0x1F000 (126976)    3380 bytes\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);

  // A buffer too small for the text is cut, terminated, and the full length
  // is still reported.
  char small[20];
  EXPECT_EQ(fw_format_flash_map(p.rec, small, sizeof small), needed);
  EXPECT_EQ(strlen(small), sizeof small - 1);

  // 24 code pages hold 98,304 bytes: the code no longer fits, cx moves up.
  fw_file_info shrunk = p.rec;
  shrunk.fw_pages = 24;
  const fw_flash_map moved = fw_describe_flash_map(shrunk);
  EXPECT_FALSE(moved[0].fits);
  EXPECT_EQ(moved[2].first_page, 25u);
  text.assign(512, '\0');
  text.resize(fw_format_flash_map(shrunk, text.data(), text.size()));
  EXPECT_NE(text.find("99076 bytes  (larger than its pages)"), std::string::npos) << text;
}

} // namespace
