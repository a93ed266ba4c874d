// The embedded firmware image, its header parser, the bounds check and the
// flash map description; the firmware update against the simulated chip:
// the per-section decision, the bytes of the pre-setup, erase and DMA
// sequence, what ends up in the chip's flash, the poll waits, and every
// failure path.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "afehal/afehal.h"
#include "chip/firmware/fw_image.h"
#include "chip/firmware/fw_update.h"
#include "chip/transport/host_data.h"
#include "chip/transport/reg_access.h"
#include "platform/log.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

constexpr uint32_t kCodeAt = 64, kCodeLen = 99076, kCfgLen = 3380, kCxLen = 1516;
constexpr uint32_t kCfgAt = kCodeAt + kCodeLen, kCxAt = kCfgAt + kCfgLen;
constexpr uint32_t kCxFlash = 118784, kCfgFlash = 126976;
constexpr const char *kTag = "parse_fw_header_file";
constexpr int64_t kPollTimeoutUs = 120 * 25000; // 3 s in 25 ms polls

uint32_t be32(const uint8_t *p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// A register write (0xFA) or read (0xFB) of this address.
bool is_at(const sim::spi_transfer &t, uint8_t op, uint32_t address) {
  return t.tx.size() >= 5 && t.tx[0] == op && be32(&t.tx[1]) == address;
}

// A register access as text: "FA 2000006A 80", "FB 20000071", and staging
// writes into the IC's RAM by their size, "FA 00100000 +16384".
std::string render(const sim::spi_transfer &t) {
  char head[16];
  snprintf(head, sizeof head, "%02X %08X", t.tx[0], be32(&t.tx[1]));
  std::string out = head;
  if (t.tx[0] == 0xFB) {
    return out;
  }
  if (be32(&t.tx[1]) < 0x20000000) {
    return out + " +" + std::to_string(t.tx.size() - 5);
  }
  for (size_t i = 5; i < t.tx.size(); ++i) {
    snprintf(head, sizeof head, " %02X", t.tx[i]);
    out += head;
  }
  return out;
}

// The flash path's register accesses and staging writes (the dummy write
// before each firmware command and the host-data reads left out).
std::vector<std::string> flash_traffic() {
  std::vector<std::string> out;
  for (const auto &t : sim::spi_transfers()) {
    if (t.tx.size() < 5 || (t.tx[0] != 0xFA && t.tx[0] != 0xFB)) {
      continue;
    }
    const uint32_t address = be32(&t.tx[1]);
    if ((address > 0x20000000 && address < 0x20000100) || (address >> 20) == 0x001) {
      out.push_back(render(t));
    }
  }
  return out;
}

size_t count_reads(uint32_t address) {
  const auto all = sim::spi_transfers();
  return std::count_if(all.begin(), all.end(),
                       [&](const auto &t) { return is_at(t, 0xFB, address); });
}

std::vector<int> page_range(int first, int count) {
  std::vector<int> pages(count);
  std::iota(pages.begin(), pages.end(), first);
  return pages;
}

// The lines, each followed by '|'.
std::string joined(const std::vector<std::string> &lines) {
  std::string all;
  for (const auto &line : lines) {
    all += line + "|";
  }
  return all;
}

// True when texts appear in lines in this order (others may lie between).
bool in_order(const std::vector<std::string> &lines, const std::vector<std::string> &texts) {
  auto from = lines.begin();
  for (const auto &text : texts) {
    from = std::find(from, lines.end(), text);
    if (from == lines.end()) {
      return false;
    }
    ++from;
  }
  return true;
}

sim::chip_identity chip_with(uint16_t fw, uint16_t cfg, uint16_t cx) {
  return {.fw_ver = fw, .cfg_ver = cfg, .cx_cfg_ver = cx};
}

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

using FwImageTest = SimTest;

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
  EXPECT_EQ(count_logged_starting(3, ""), 10);
  EXPECT_EQ(joined(log_messages()),
            "FW signature OK|Fw binary version OK|HW Chip Id: 0x3648|FW version: 0xA1B2|"
            "config id: 0xC3D4|config version: 0xE5F6|external release: |01 |02 |03 |04 |05 |06 |"
            "07 |08 |\n|fw data length: 99076 bytes|fw config data length: 3380 bytes|"
            "cx data length: 1516 bytes|cx version: 0x9A8B|");

  clean_fw_file_info(&p.rec);
  EXPECT_TRUE(!p.rec.fw_data && !p.rec.cfg_data && !p.rec.cx_data);
  clean_fw_file_info(nullptr); // nothing to free
}

TEST_F(FwImageTest, HeaderFaultsRejectOrOnlyWarn) {
  // Offset, value and its width; the result, the error, everything logged
  // up to the error and the line after it.
  const std::tuple<size_t, uint32_t, int, uint32_t, const char *, const char *> cases[] = {
      {0, 0x55AA55AA, 4, 1, "Wrong FW header signature", "Wrong FW header signature|"},
      {4, 2, 4, 1, "Wrong FW QLB version", "FW signature OK|Wrong FW QLB version|"},
      {8, '7', 1, 0, "Wrong Hardware Chip ID", "|Wrong Hardware Chip ID|HW Chip Id: 0x3748|"},
      {9, 'I', 1, 0, "Wrong Hardware Chip ID", "|Wrong Hardware Chip ID|HW Chip Id: 0x3649|"},
  };
  for (const auto &[offset, value, width, result, error, log] : cases) {
    SCOPED_TRACE(error);
    clear_log();
    std::vector<uint8_t> img = embedded();
    put_le(img, offset, value, width);
    fw_file_info rec;
    memset(&rec, 0x5A, sizeof rec);
    EXPECT_EQ(parse_fw_header_file(&rec, img.data()), result);
    EXPECT_TRUE(logged_error(kTag, error));
    EXPECT_NE(joined(log_messages()).find(log), std::string::npos) << joined(log_messages());
    EXPECT_EQ(android_errors().size(), 1u);
    if (result == 0) {
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
  // Code, config and cx lengths; whether the cx section holds bytes 20-21.
  const std::tuple<uint32_t, uint32_t, uint32_t, bool> cases[] = {{kCodeLen, kCfgLen, 0, false},
                                                                  {0, kCfgLen, kCxLen, true},
                                                                  {kCodeLen, 0, 22, true},
                                                                  {kCodeLen, 0, 21, false}};
  for (const auto &[code, cfg, cx, has_version] : cases) {
    SCOPED_TRACE(std::to_string(code) + "/" + std::to_string(cfg) + "/" + std::to_string(cx));
    clear_log();
    std::vector<uint8_t> img = embedded();
    put_le(img, 44, code);
    put_le(img, 48, cfg);
    put_le(img, 52, cx);
    parsed p(img);
    ASSERT_EQ(p.result, 0u);
    // An empty section has no buffer; the others hold their own bytes.
    EXPECT_EQ(same_bytes(p.rec.fw_data, img, kCodeAt, code), code != 0);
    EXPECT_EQ(same_bytes(p.rec.cfg_data, img, kCodeAt + code, cfg), cfg != 0);
    EXPECT_EQ(same_bytes(p.rec.cx_data, img, kCodeAt + code + cfg, cx), cx != 0);
    const uint8_t *version = img.data() + kCodeAt + code + cfg + 20;
    EXPECT_EQ(p.rec.cx_ver, has_version ? version[0] | version[1] << 8 : 0);
    EXPECT_EQ(count_logged_starting(3, "cx version: "), has_version ? 1 : 0);
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

// The single-byte writes of the pre-setup, in order, with the message of
// each one's failure.
struct presetup_write {
  uint32_t address;
  uint8_t value;
  const char *failure;
};
const presetup_write kPreSetup[] = {{0x20000024, 0x01, "Error in hold m3.."},
                                    {0x20000032, 0x10, "Error in spi4 mode configuration."},
                                    {0x20000034, 0x02, "Error in spi4 mode configuration.."},
                                    {0x2000003E, 0x70, "Error in spi4 mode configuration..."},
                                    {0x2000003D, 0x30, "Error in spi4 mode configuration....."},
                                    {0x2000002D, 0x02, "Error in spi4 mode configuration......"},
                                    {0x2000001B, 0x66, "Error in flash pre setup."},
                                    {0x20000068, 0x13, "Error in flash pre setup.."},
                                    {0x20000025, 0x20, "Error in flash unlock."},
                                    {0x2000006B, 0x00, "Error in flash unlock.."},
                                    {0x200000DE, 0x03, "Error in flash unlock..."}};

class FwUpdateTest : public SimTest {
protected:
  void SetUp() override {
    SimTest::SetUp();
    fresh_chip({});
  }
  // A fresh chip with this identity, the library reopened on it.
  void fresh_chip(const sim::chip_identity &id) {
    const log_sink_fn sink = log_callback.load();
    sim::reset();
    reset_library_state();
    log_callback.store(sink);
    log_level.store(5);
    sim::set_identity(id);
    ASSERT_EQ(kvr_afe_open(), 0u);
    sim::clear_recording();
    clear_log();
  }
  // The code of an SPI transfer that fails with EIO, as the transport
  // passes it up.
  uint32_t failed_write_code() {
    sim::fail_spi_transfer(1, EIO);
    const uint8_t value = 0;
    const uint32_t code = quillon_write_at(0x20000000, &value, 1);
    clear_log();
    sim::clear_recording();
    return code;
  }
};

TEST_F(FwUpdateTest, FullUpdateOnTheWireInFlashAndInTheLog) {
  fresh_chip(chip_with(0x0080, 0x0050, 0x0010));
  ASSERT_EQ(fw_update(), 0u);

  // Plain reset and pre-setup; per page the control block cleared, page |
  // 0x80 written and the status polled (busy, busy, done: an erase takes
  // 30 ms); page 28 is the unused gap. Per DMA the chunk staged in RAM in
  // writes of at most 16 KiB, the descriptor (word address, word count less
  // one), the start block and the status polled (busy, done). Code goes in
  // chunks of 32 KiB, cx and config (0x1F000, 3,380 bytes) in one each. A
  // last reset boots the new firmware.
  std::vector<std::string> expected = {"FA 20000024 80"};
  for (const auto &w : kPreSetup) {
    char line[32];
    snprintf(line, sizeof line, "FA %08X %02X", w.address, w.value);
    expected.push_back(line);
  }
  std::vector<int> pages = page_range(0, 28);
  pages.insert(pages.end(), {29, 30, 31});
  for (int page : pages) {
    char line[32];
    snprintf(line, sizeof line, "FA 2000006A %02X", 0x80 | page);
    expected.insert(expected.end(),
                    {"FA 2000006B 00", line, "FB 2000006A", "FB 2000006A", "FB 2000006A"});
  }
  const std::vector<std::vector<std::string>> dmas = {{"+16384", "+16384", "00 00 00 00 FF 1F 00"},
                                                      {"+16384", "+16384", "00 00 00 20 FF 1F 00"},
                                                      {"+16384", "+16384", "00 00 00 40 FF 1F 00"},
                                                      {"+772", "00 00 00 60 C0 00 00"},
                                                      {"+1516", "00 00 00 74 7A 01 00"},
                                                      {"+3380", "00 00 00 7C 4C 03 00"}};
  for (const auto &dma : dmas) {
    uint32_t staged = 0x00100000;
    for (size_t i = 0; i + 1 < dma.size(); ++i, staged += 16384) {
      char line[32];
      snprintf(line, sizeof line, "FA %08X %s", staged, dma[i].c_str());
      expected.push_back(line);
    }
    expected.insert(expected.end(),
                    {"FA 20000072 " + dma.back(), "FA 2000006B 00 40 42 0F 00 00 C0", "FB 20000071",
                     "FB 20000071"});
  }
  expected.push_back("FA 20000024 80");
  EXPECT_EQ(flash_traffic(), expected);

  const std::vector<uint8_t> flash = sim::flash();
  EXPECT_TRUE(std::equal(myArray + kCodeAt, myArray + kCodeAt + kCodeLen, flash.begin()));
  EXPECT_TRUE(std::equal(myArray + kCxAt, myArray + kCxAt + kCxLen, flash.begin() + kCxFlash));
  EXPECT_TRUE(std::equal(myArray + kCfgAt, myArray + kCfgAt + kCfgLen, flash.begin() + kCfgFlash));

  // Progress goes out at error level, the per-page lines only at level 3.
  EXPECT_EQ(joined(android_errors()),
            "Starting flash procedure..|Write chunk: 16384|FW ver: 0080 -> 0084, config ver: 0050 "
            "-> 0051, CX ver: 0010 -> 0011|Flash presetup..|Flash pre setup..|System reset..|Hold "
            "M3..|SPI4 configuration..|flash unlock..\n|Flash erase..|Erasing code..|Code erased "
            "sucessfully..|Erasing cx..|Cx erased sucessfully..|Erasing config..|Config erased "
            "sucessfully..|flashing code..|FW code burn completed|flashing cx..|cx burn "
            "completed|flashing config..|Fw config burn completed|System reset..|Flash completed "
            "successfully|");
  EXPECT_EQ(count_logged_starting(3, "Erasing page: "), 31);
  EXPECT_EQ(count_logged(3, "Erasing page: 31"), 1);
  EXPECT_FALSE(mentioned("Panel Init..")); // the panel configuration is current
  // Only the last reset waits for the controller to come up.
  EXPECT_EQ(count_logged_starting(3, "Controller ready event found in "), 1);
}

TEST_F(FwUpdateTest, DecisionIsPerSectionAndByInequality) {
  // A failed first read leaves the chip info record cleared; then the
  // sections written.
  const std::tuple<const char *, sim::chip_identity, bool, bool, bool, bool> cases[] = {
      {"all match", chip_with(0x0084, 0x0051, 0x0011), false, false, false, false},
      {"only cx differs", chip_with(0x0084, 0x0051, 0x0010), false, false, true, false},
      {"only config differs", chip_with(0x0084, 0x0052, 0x0011), false, false, false, true},
      {"newer fw on the chip", chip_with(0x0090, 0x0051, 0x0011), false, true, false, false},
      {"failed read writes everything", chip_with(0x0084, 0x0051, 0x0011), true, true, true, true},
  };
  for (const auto &[what, chip, fail_first_read, code, cx, cfg] : cases) {
    SCOPED_TRACE(what);
    fresh_chip(chip);
    if (fail_first_read) {
      sim::fail_spi_transfer(1, EIO);
    }
    EXPECT_EQ(vendor_afe_upgrade_fw(), 0u);
    std::vector<int> pages = code ? page_range(0, 28) : std::vector<int>{};
    if (cx) {
      pages.insert(pages.end(), {29, 30});
    }
    if (cfg) {
      pages.push_back(31);
    }
    EXPECT_EQ(sim::erased_pages(), pages);
    EXPECT_EQ(sim::dma_transfers().size(), (code ? 4u : 0u) + cx + cfg);
    EXPECT_EQ(mentioned("Unable to read the sys info.."), fail_first_read);
    const bool any = code || cx || cfg;
    EXPECT_EQ(flash_traffic().empty(), !any); // a matching chip is not even reset
    EXPECT_TRUE(logged_error("fw_update", any ? "Flash completed successfully"
                                              : "FW in the chip matches with the file.. No need "
                                                "to update the firmware"));
    EXPECT_TRUE(logged_at(3, "vendor_afe_upgrade_fw", "FW booting success, FW is ready."));
  }
  EXPECT_TRUE(logged_error("FW ver: 0000 -> 0084, config ver: 0000 -> 0051, CX ver: 0000 -> 0011"));
}

TEST_F(FwUpdateTest, PollsEvery25msForAtMost3s) {
  static const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const auto erase = [] { return flash_erase_pages(5, 1); };
  const auto program = [] { return fill_flash(0, data, sizeof data); };
  // Set-up, the call, the status register it polls, result, status reads,
  // time slept, the level-3 line at the end (or "").
  const std::tuple<const char *, std::function<void()>, std::function<uint32_t()>, uint32_t,
                   uint32_t, size_t, int64_t, const char *>
      cases[] = {
          {"erase done at once", [] { sim::set_erase_busy_ms(0); }, erase, 0x2000006A, 0, 1, 0,
           "Flash erase done in 0.00 ms"},
          {"erase busy 30 ms", [] {}, erase, 0x2000006A, 0, 3, 50000,
           "Flash erase done in 50.00 ms"},
          {"erase stuck", [] { sim::erase_stuck(true); }, erase, 0x2000006A, 3, 120, kPollTimeoutUs,
           ""},
          {"dma busy 10 ms", [] {}, program, 0x20000071, 0, 2, 25000, "Flash dma done in 25.00 ms"},
          {"dma stuck", [] { sim::dma_stuck(true); }, program, 0x20000071, 3, 120, kPollTimeoutUs,
           ""},
      };
  for (const auto &[what, set_up, run, status_at, result, reads, slept_us, done] : cases) {
    SCOPED_TRACE(what);
    fresh_chip({});
    const int64_t before = sim::slept_us();
    ASSERT_EQ(flash_pre_setup(), 0u);
    EXPECT_EQ(sim::slept_us() - before, 101000); // plain reset settles 100 ms, 1 ms pause
    set_up();
    sim::clear_recording();
    clear_log();
    const int64_t slept = sim::slept_us();
    EXPECT_EQ(run(), result);
    EXPECT_EQ(sim::slept_us() - slept, slept_us);
    EXPECT_EQ(count_reads(status_at), reads);
    // Only the erase logs each status it reads; the last carries the page.
    const bool erase_poll = status_at == 0x2000006A;
    EXPECT_EQ(count_logged_starting(3, "status "), erase_poll ? static_cast<int>(reads) : 0);
    EXPECT_EQ(count_logged(3, "status 5 "), erase_poll && result == 0 ? 1 : 0);
    EXPECT_EQ(count_logged(3, done), *done != 0 ? 1 : 0);
    EXPECT_EQ(count_logged_starting(3, "Flash "), *done != 0 ? 1 : 0);
  }
}

TEST_F(FwUpdateTest, DmaDescriptorCarriesWordAddressAndWordCountLessOne) {
  // Offset, length, the 7 bytes at 0x20000072.
  const std::tuple<uint32_t, uint32_t, const char *> cases[] = {
      {0xFFFC, 0x404, "00 00 FF 3F 00 01 00"},
      {0x1000, 4, "00 00 00 04 00 00 00"},
      {0x1000, 7, "00 00 00 04 00 00 00"}, // trailing bytes staged, not programmed
      {0x1D000, 3, "00 00 00 74 FF FF 00"},
  };
  std::vector<uint8_t> zeros(4096, 0x00);
  for (const auto &[offset, length, descriptor] : cases) {
    SCOPED_TRACE(length);
    fresh_chip({});
    ASSERT_EQ(flash_pre_setup(), 0u);
    sim::clear_recording();
    ASSERT_EQ(fill_flash(offset, zeros.data(), length), 0u);
    EXPECT_EQ(flash_traffic(), (std::vector<std::string>{"FA 00100000 +" + std::to_string(length),
                                                         std::string("FA 20000072 ") + descriptor,
                                                         "FA 2000006B 00 40 42 0F 00 00 C0",
                                                         "FB 20000071", "FB 20000071"}));
  }
}

TEST_F(FwUpdateTest, FailedTransferStopsTheUpdateWithItsMessage) {
  // Each case fails the nth matching transfer of a clean run of a chip whose
  // code differs; the stage it fails in decides the messages.
  using matcher = std::function<bool(const sim::spi_transfer &)>;
  const auto wr = [](uint32_t address, uint8_t value) -> matcher {
    return [=](const sim::spi_transfer &t) {
      return is_at(t, 0xFA, address) && t.tx.size() > 5 && t.tx[5] == value;
    };
  };
  const auto rd = [](uint32_t address, size_t min_size = 0) -> matcher {
    return [=](const sim::spi_transfer &t) {
      return is_at(t, 0xFB, address) && t.tx.size() > min_size;
    };
  };
  const matcher staged = [](const sim::spi_transfer &t) { return is_at(t, 0xFA, 0x00100000); };
  enum stage { presetup, erase, program, reset, reread };
  const std::vector<std::string> said[] = {
      {"Error in flash pre setup..", "Unable to flash the fw.."},
      {"Erasing code..", "Error in flash erase..", "Unable to flash the fw.."},
      {"flashing code..", "Unable to flash the fw.."},
      {"FW code burn completed", "Unable to do system reset.."},
      {"Unable to read the sys info.."}};
  const char *never[] = {"Flash erase..", "Code erased sucessfully..", "FW code burn completed",
                         "Unable to flash the fw..", "Flash completed successfully"};
  struct fault_case {
    std::string what;
    matcher match;
    int nth;
    stage at;
    int pages;        // erased from page 0
    size_t dmas;      // started
    int64_t slept_us; // beyond the first case: the 1 ms pause and the polls
  };
  std::vector<fault_case> cases;
  int64_t s = 0;
  for (const auto &w : kPreSetup) {
    s += w.address == 0x2000001B ? 1000 : 0;
    cases.push_back({w.failure, wr(w.address, w.value), 1, presetup, 0, 0, s});
  }
  const int64_t erased = s + 28 * 50000;
  cases.insert(cases.end(),
               {{"control block before page 3", wr(0x2000006B, 0x00), 5, erase, 3, 0, s + 150000},
                {"erase of page 3", wr(0x2000006A, 0x83), 1, erase, 3, 0, s + 150000},
                {"erase status of page 3", rd(0x2000006A), 10, erase, 4, 0, s + 150000},
                {"staging of chunk 2", staged, 2, program, 28, 1, erased + 25000},
                {"descriptor of chunk 2", wr(0x20000072, 0x00), 2, program, 28, 1, erased + 25000},
                {"start of chunk 2", wr(0x2000006B, 0x00), 31, program, 28, 1, erased + 25000},
                {"dma status of chunk 2", rd(0x20000071), 3, program, 28, 2, erased + 25000},
                {"final reset", wr(0x20000024, 0x80), 2, reset, 28, 4, erased + 100000},
                {"chip info after the reset", rd(0x20010000, 200), 2, reread, 28, 4, -1}});

  const sim::chip_identity chip = chip_with(0x0080, 0x0051, 0x0011);
  fresh_chip(chip);
  const uint32_t code = failed_write_code();
  ASSERT_EQ(fw_update(), 0u);
  const auto clean_run = sim::spi_transfers();
  int64_t base_slept = -1; // of the first case
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    size_t index = 0;
    for (int seen = 0; index < clean_run.size(); ++index) {
      if (c.match(clean_run[index]) && ++seen == c.nth) {
        break;
      }
    }
    ASSERT_LT(index, clean_run.size());
    fresh_chip(chip);
    sim::fail_spi_transfer(static_cast<int>(index) + 1, EIO);
    const int64_t slept = sim::slept_us();
    EXPECT_EQ(vendor_afe_upgrade_fw(), code);
    EXPECT_EQ(sim::spi_transfers().size(), index); // nothing sent after the failure
    std::vector<std::string> expected = said[c.at];
    if (c.at == presetup) {
      expected.insert(expected.begin(), c.what);
    }
    expected.push_back("FW update failed");
    EXPECT_TRUE(in_order(android_errors(), expected));
    EXPECT_EQ(last_error(), "FW update failed");
    EXPECT_FALSE(mentioned(never[c.at]));
    EXPECT_EQ(sim::erased_pages(), page_range(0, c.pages));
    EXPECT_EQ(sim::dma_transfers().size(), c.dmas);
    base_slept = base_slept < 0 ? sim::slept_us() - slept : base_slept;
    if (c.slept_us >= 0) {
      EXPECT_EQ(sim::slept_us() - slept - base_slept, c.slept_us);
    }
  }
}

TEST_F(FwUpdateTest, AfterFlashingPanelInitAndStaleVersionsAreOnlyReported) {
  sim::chip_identity behind = chip_with(0x0080, 0x0051, 0x0011);
  behind.panel_cfg = 0x00; // behind the afe version of the config
  // The chip, whether its versions stick and the panel init echo is lost;
  // the verdict, whether panel init is sent, the panel config after.
  const std::tuple<const char *, sim::chip_identity, bool, bool, const char *, bool, uint8_t>
      cases[] = {
          {"stale fw", chip_with(0x0080, 0x0051, 0x0011), true, false,
           "FW not updated correctly after flashing", false, 0x01},
          {"stale config", chip_with(0x0084, 0x0050, 0x0011), true, false,
           "FW not updated correctly after flashing", false, 0x01},
          {"stale cx is not checked", chip_with(0x0084, 0x0051, 0x0010), true, false,
           "Flash completed successfully", false, 0x01},
          {"panel init", behind, false, false, "Flash completed successfully", true, 0x01},
          {"panel init lost", behind, false, true, "Flash completed successfully", true, 0x00},
      };
  for (const auto &[what, chip, versions_stick, echo_lost, verdict, panel_init, panel_cfg] :
       cases) {
    SCOPED_TRACE(what);
    fresh_chip(chip);
    sim::versions_stick(versions_stick);
    if (echo_lost) {
      sim::drop_echoes(-1);
    }
    const auto clean = sim::slept_us();
    EXPECT_EQ(vendor_afe_upgrade_fw(), 0u);
    EXPECT_TRUE(logged_error("fw_update", verdict));
    EXPECT_EQ(mentioned("Panel Init.."), panel_init);
    const auto commands = sim::fw_commands();
    EXPECT_EQ(std::count(commands.begin(), commands.end(), std::vector<uint8_t>{0xA4, 0x00, 0x02}),
              panel_init ? (echo_lost ? 2 : 1) : 0); // one retry
    EXPECT_EQ(info.panel_cfg, panel_cfg);
    EXPECT_EQ(mentioned("Unable to do panel init..."), echo_lost);
    if (echo_lost) {
      // Two attempts that each wait 3 s for the echo.
      EXPECT_GE(sim::slept_us() - clean, 2 * 3000000 + 100000);
      EXPECT_LT(sim::slept_us() - clean, 2 * 3100000 + 3000000);
    }
  }
}

TEST_F(FwUpdateTest, OnlyBitZeroOfAFlagCountsAndErasesStayInRange) {
  fw_file_info record{};
  ASSERT_EQ(parse_fw_header_file(&record, myArray), 0u);
  EXPECT_EQ(flash_update(record, 0xFE, 0xFE, 0xFE), 0u);
  EXPECT_TRUE(sim::erased_pages().empty());
  EXPECT_TRUE(sim::dma_transfers().empty());
  EXPECT_EQ(flash_update(record, 0, 0x03, 0), 0u);
  EXPECT_EQ(sim::erased_pages(), std::vector<int>{31});
  // Code that fills whole DMA chunks takes exactly that many transfers.
  ASSERT_GT(record.fw_size, 2 * FLASH_DMA_CHUNK);
  record.fw_size = 2 * FLASH_DMA_CHUNK;
  sim::clear_recording();
  EXPECT_EQ(flash_update(record, 1, 0, 0), 0u);
  const std::vector<sim::dma_record> dmas = sim::dma_transfers();
  ASSERT_EQ(dmas.size(), 2u);
  EXPECT_EQ(dmas[1].flash_offset, FLASH_DMA_CHUNK);
  EXPECT_EQ(dmas[1].length, FLASH_DMA_CHUNK);
  clean_fw_file_info(&record);

  sim::clear_recording();
  EXPECT_EQ(flash_erase_pages(5, 0), 0u);
  EXPECT_TRUE(flash_traffic().empty());
  // The page register is 8 bits: the last page is 255, and a range past it
  // is refused whole rather than wrapping onto the code pages.
  EXPECT_EQ(flash_erase_pages(250, 6), 0u);
  EXPECT_EQ(sim::erased_pages().size(), 6u);
  sim::clear_recording();
  EXPECT_EQ(flash_erase_pages(250, 7), 3u);
  EXPECT_TRUE(logged_error("flash_erase_pages", "Erase range 250+7 runs past page 255"));
  EXPECT_TRUE(sim::spi_transfers().empty());
}

TEST_F(FwUpdateTest, EveryAllocationFailureFreesWhatWasTaken) {
  const sim::chip_identity chip = chip_with(0x0084, 0x0050, 0x0011); // one page, one DMA
  bool image_copy_failed = false, parse_failed = false, presetup_failed = false, reached = true;
  for (int nth = 1; reached; ++nth) {
    SCOPED_TRACE(nth);
    fresh_chip(chip);
    const size_t live = sim::heap_live_blocks();
    sim::fail_allocation(nth);
    const uint32_t result = vendor_afe_upgrade_fw();
    // A probe gets the armed failure once the update made fewer allocations.
    void *probe = os().malloc(1);
    reached = probe != nullptr;
    os().free(probe);
    sim::fail_allocation(0);
    ASSERT_EQ(sim::heap_live_blocks(), live);
    if (result == 0) {
      // A failed first chip-info read or plain reset does not stop it.
      EXPECT_TRUE(logged_error("Flash completed successfully"));
      continue;
    }
    // A host-data request that was never sent ends in its time-out.
    EXPECT_TRUE(result == 2 || logged_error("Timeout after requesting host data type 01"));
    EXPECT_EQ(last_error(), "FW update failed");
    if (logged_error("Unable to parse the header file..")) {
      EXPECT_TRUE(logged_error("parse_fw_header_file", "Error allocating memory"));
      parse_failed = true;
    } else if (!mentioned("FW signature OK")) {
      image_copy_failed = true; // no message of its own
    } else if (mentioned("Error in flash pre setup..")) {
      presetup_failed = true;
    }
  }
  EXPECT_TRUE(image_copy_failed && parse_failed && presetup_failed);
}

} // namespace
