// The firmware update against the simulated chip: the per-section decision,
// the bytes of the pre-setup, erase and DMA sequence, what ends up in the
// chip's flash, the poll waits, and every failure path.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <numeric>
#include <string>
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
constexpr int64_t kPollTimeoutUs = 120 * 25000; // 3 s in 25 ms polls

uint32_t be32(const uint8_t *p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

bool is_write(const sim::spi_transfer &t, uint32_t address) {
  return t.tx.size() >= 6 && t.tx[0] == 0xFA && be32(&t.tx[1]) == address;
}
bool is_read(const sim::spi_transfer &t, uint32_t address) {
  return t.tx.size() >= 5 && t.tx[0] == 0xFB && be32(&t.tx[1]) == address;
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
  return std::count_if(all.begin(), all.end(), [&](const auto &t) { return is_read(t, address); });
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
  struct decision {
    const char *what;
    sim::chip_identity chip;
    bool fail_first_read; // leaves the chip info record cleared
    bool code, cx, cfg;   // the sections written
  };
  const decision cases[] = {
      {"all match", chip_with(0x0084, 0x0051, 0x0011), false, false, false, false},
      {"only cx differs", chip_with(0x0084, 0x0051, 0x0010), false, false, true, false},
      {"only config differs", chip_with(0x0084, 0x0052, 0x0011), false, false, false, true},
      {"newer fw on the chip", chip_with(0x0090, 0x0051, 0x0011), false, true, false, false},
      {"failed read writes everything", chip_with(0x0084, 0x0051, 0x0011), true, true, true, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    fresh_chip(c.chip);
    if (c.fail_first_read) {
      sim::fail_spi_transfer(1, EIO);
    }
    EXPECT_EQ(vendor_afe_upgrade_fw(), 0u);
    std::vector<int> pages = c.code ? page_range(0, 28) : std::vector<int>{};
    if (c.cx) {
      pages.insert(pages.end(), {29, 30});
    }
    if (c.cfg) {
      pages.push_back(31);
    }
    EXPECT_EQ(sim::erased_pages(), pages);
    EXPECT_EQ(sim::dma_transfers().size(), (c.code ? 4u : 0u) + c.cx + c.cfg);
    EXPECT_EQ(mentioned("Unable to read the sys info.."), c.fail_first_read);
    const bool any = c.code || c.cx || c.cfg;
    EXPECT_EQ(flash_traffic().empty(), !any); // a matching chip is not even reset
    EXPECT_TRUE(logged_error("fw_update", any ? "Flash completed successfully"
                                              : "FW in the chip matches with the file.. No need "
                                                "to update the firmware"));
    EXPECT_TRUE(logged_at(3, "vendor_afe_upgrade_fw", "FW booting success, FW is ready."));
  }
  EXPECT_TRUE(logged_error("FW ver: 0000 -> 0084, config ver: 0000 -> 0051, CX ver: 0000 -> 0011"));
}

TEST_F(FwUpdateTest, PollsEvery25msForAtMost3s) {
  struct poll_case {
    const char *what;
    std::function<void()> set_up;
    std::function<uint32_t()> run;
    uint32_t status_at;
    uint32_t result;
    size_t reads;
    int64_t slept_us;
    const char *done; // the level-3 line at the end, or ""
  };
  static const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const auto erase = [] { return flash_erase_pages(5, 1); };
  const auto program = [] { return fill_flash(0, data, sizeof data); };
  const poll_case cases[] = {
      {"erase done at once", [] { sim::set_erase_busy_ms(0); }, erase, 0x2000006A, 0, 1, 0,
       "Flash erase done in 0.00 ms"},
      {"erase busy 30 ms", [] {}, erase, 0x2000006A, 0, 3, 50000, "Flash erase done in 50.00 ms"},
      {"erase stuck", [] { sim::erase_stuck(true); }, erase, 0x2000006A, 3, 120, kPollTimeoutUs,
       ""},
      {"dma busy 10 ms", [] {}, program, 0x20000071, 0, 2, 25000, "Flash dma done in 25.00 ms"},
      {"dma stuck", [] { sim::dma_stuck(true); }, program, 0x20000071, 3, 120, kPollTimeoutUs, ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    fresh_chip({});
    const int64_t before = sim::slept_us();
    ASSERT_EQ(flash_pre_setup(), 0u);
    EXPECT_EQ(sim::slept_us() - before, 101000); // plain reset settles 100 ms, 1 ms pause
    c.set_up();
    sim::clear_recording();
    clear_log();
    const int64_t slept = sim::slept_us();
    EXPECT_EQ(c.run(), c.result);
    EXPECT_EQ(sim::slept_us() - slept, c.slept_us);
    EXPECT_EQ(count_reads(c.status_at), c.reads);
    // Only the erase logs each status it reads; the last carries the page.
    const bool erase_poll = c.status_at == 0x2000006A;
    EXPECT_EQ(count_logged_starting(3, "status "), erase_poll ? static_cast<int>(c.reads) : 0);
    EXPECT_EQ(count_logged(3, "status 5 "), erase_poll && c.result == 0 ? 1 : 0);
    EXPECT_EQ(count_logged(3, c.done), *c.done != 0 ? 1 : 0);
    EXPECT_EQ(count_logged_starting(3, "Flash "), *c.done != 0 ? 1 : 0);
  }
}

TEST_F(FwUpdateTest, DmaDescriptorCarriesWordAddressAndWordCountLessOne) {
  struct descriptor_case {
    uint32_t offset, length;
    const char *descriptor; // the 7 bytes at 0x20000072
  };
  const descriptor_case cases[] = {
      {0xFFFC, 0x404, "00 00 FF 3F 00 01 00"},
      {0x1000, 4, "00 00 00 04 00 00 00"},
      {0x1000, 7, "00 00 00 04 00 00 00"}, // trailing bytes staged, not programmed
      {0x1D000, 3, "00 00 00 74 FF FF 00"},
  };
  std::vector<uint8_t> zeros(4096, 0x00);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.length);
    fresh_chip({});
    ASSERT_EQ(flash_pre_setup(), 0u);
    sim::clear_recording();
    ASSERT_EQ(fill_flash(c.offset, zeros.data(), c.length), 0u);
    EXPECT_EQ(flash_traffic(), (std::vector<std::string>{"FA 00100000 +" + std::to_string(c.length),
                                                         std::string("FA 20000072 ") + c.descriptor,
                                                         "FA 2000006B 00 40 42 0F 00 00 C0",
                                                         "FB 20000071", "FB 20000071"}));
  }
}

TEST_F(FwUpdateTest, FailedTransferStopsTheUpdateWithItsMessage) {
  // Each case fails the nth matching transfer of a clean run of a chip whose
  // code differs; the stage it fails in decides the messages.
  using matcher = std::function<bool(const sim::spi_transfer &)>;
  const auto wr = [](uint32_t address, uint8_t value) -> matcher {
    return [=](const sim::spi_transfer &t) { return is_write(t, address) && t.tx[5] == value; };
  };
  const auto rd = [](uint32_t address, size_t min_size = 0) -> matcher {
    return
        [=](const sim::spi_transfer &t) { return is_read(t, address) && t.tx.size() > min_size; };
  };
  const matcher staged = [](const sim::spi_transfer &t) { return is_write(t, 0x00100000); };
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
  struct after_case {
    const char *what;
    sim::chip_identity chip;
    bool versions_stick, echo_lost;
    const char *verdict;
    bool panel_init_sent;
    uint8_t panel_cfg_after;
  };
  sim::chip_identity behind = chip_with(0x0080, 0x0051, 0x0011);
  behind.panel_cfg = 0x00; // behind the afe version of the config
  const after_case cases[] = {
      {"stale fw", chip_with(0x0080, 0x0051, 0x0011), true, false,
       "FW not updated correctly after flashing", false, 0x01},
      {"stale config", chip_with(0x0084, 0x0050, 0x0011), true, false,
       "FW not updated correctly after flashing", false, 0x01},
      {"stale cx is not checked", chip_with(0x0084, 0x0051, 0x0010), true, false,
       "Flash completed successfully", false, 0x01},
      {"panel init", behind, false, false, "Flash completed successfully", true, 0x01},
      {"panel init lost", behind, false, true, "Flash completed successfully", true, 0x00},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    fresh_chip(c.chip);
    sim::versions_stick(c.versions_stick);
    if (c.echo_lost) {
      sim::drop_echoes(-1);
    }
    const auto clean = sim::slept_us();
    EXPECT_EQ(vendor_afe_upgrade_fw(), 0u);
    EXPECT_TRUE(logged_error("fw_update", c.verdict));
    EXPECT_EQ(mentioned("Panel Init.."), c.panel_init_sent);
    const auto commands = sim::fw_commands();
    EXPECT_EQ(std::count(commands.begin(), commands.end(), std::vector<uint8_t>{0xA4, 0x00, 0x02}),
              c.panel_init_sent ? (c.echo_lost ? 2 : 1) : 0); // one retry
    EXPECT_EQ(info.panel_cfg, c.panel_cfg_after);
    EXPECT_EQ(mentioned("Unable to do panel init..."), c.echo_lost);
    if (c.echo_lost) {
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
