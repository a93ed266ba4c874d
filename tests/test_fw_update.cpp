// The firmware update against the simulated chip: the per-section decision,
// the bytes of the pre-setup, erase and DMA sequence, what ends up in the
// chip's flash, and every failure path.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "afehal/afehal.h"
#include "platform/log.h"
#include "platform/os.h"
#include "support/fixture.h"
#include "vendor/firmware/fw_image.h"
#include "vendor/firmware/fw_update.h"
#include "vendor/transport/host_data.h"

namespace {

constexpr uint32_t kCodeLen = 99076;
constexpr uint32_t kCfgLen = 3380;
constexpr uint32_t kCxLen = 1516;
constexpr uint32_t kCodeAt = 64;
constexpr uint32_t kCfgAt = kCodeAt + kCodeLen;
constexpr uint32_t kCxAt = kCfgAt + kCfgLen;
constexpr uint32_t kCxFlash = 118784;
constexpr uint32_t kCfgFlash = 126976;

// One write-at frame seen on the wire: 0xFA, address, data.
struct write_frame {
  uint32_t address;
  std::vector<uint8_t> data;
  bool operator==(const write_frame &) const = default;
};

uint32_t be32(const uint8_t *p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

std::vector<write_frame> written_frames() {
  std::vector<write_frame> out;
  for (const auto &t : sim::spi_transfers()) {
    if (t.tx.size() >= 5 && t.tx[0] == 0xFA) {
      out.push_back({be32(&t.tx[1]), {t.tx.begin() + 5, t.tx.end()}});
    }
  }
  return out;
}

std::vector<write_frame> writes_to(uint32_t address) {
  std::vector<write_frame> out;
  for (const auto &f : written_frames()) {
    if (f.address == address) {
      out.push_back(f);
    }
  }
  return out;
}

int reads_of(uint32_t address) {
  int n = 0;
  for (const auto &t : sim::spi_transfers()) {
    n += t.tx.size() >= 5 && t.tx[0] == 0xFB && be32(&t.tx[1]) == address ? 1 : 0;
  }
  return n;
}

std::vector<uint8_t> image_bytes(uint32_t offset, uint32_t length) {
  return {myArray + offset, myArray + offset + length};
}

std::vector<uint8_t> flash_bytes(const std::vector<uint8_t> &flash, uint32_t at, uint32_t len) {
  return {flash.begin() + at, flash.begin() + at + len};
}

std::vector<int> page_range(int first, int count) {
  std::vector<int> pages;
  for (int p = first; p < first + count; ++p) {
    pages.push_back(p);
  }
  return pages;
}

std::vector<uint8_t> descriptor(uint16_t word_address, uint16_t last_word) {
  return {0x00,
          0x00,
          static_cast<uint8_t>(word_address),
          static_cast<uint8_t>(word_address >> 8),
          static_cast<uint8_t>(last_word),
          static_cast<uint8_t>(last_word >> 8),
          0x00};
}

bool sent_command(const std::vector<uint8_t> &cmd) {
  const auto cmds = sim::fw_commands();
  return std::find(cmds.begin(), cmds.end(), cmd) != cmds.end();
}

bool logged_in_order(const std::vector<std::string> &texts) {
  const auto messages = log_messages();
  auto from = messages.begin();
  for (const auto &text : texts) {
    from = std::find(from, messages.end(), text);
    if (from == messages.end()) {
      return false;
    }
    ++from;
  }
  return true;
}

bool android_logged(const std::string &text) {
  const auto errors = android_errors();
  return std::find(errors.begin(), errors.end(), text) != errors.end();
}

sim::chip_identity chip_with(uint16_t fw, uint16_t cfg, uint16_t cx) {
  sim::chip_identity id;
  id.fw_ver = fw;
  id.cfg_ver = cfg;
  id.cx_cfg_ver = cx;
  return id;
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
    saved_sink_ = log_callback.load();
    ASSERT_EQ(kvr_afe_open(), 0u);
    sim::clear_recording();
    clear_log();
  }

  // A fresh chip with this identity, the library reopened on it.
  void fresh_chip(const sim::chip_identity &id) {
    sim::reset();
    reset_library_state();
    log_callback.store(saved_sink_);
    log_level.store(5);
    sim::set_identity(id);
    ASSERT_EQ(kvr_afe_open(), 0u);
    sim::clear_recording();
    clear_log();
  }

  log_sink_fn saved_sink_ = nullptr;
};

TEST_F(FwUpdateTest, MatchingChipIsNotTouched) {
  EXPECT_EQ(vendor_afe_upgrade_fw(), 0u);
  EXPECT_TRUE(logged("fw_update", "FW ver: 0084 -> 0084, config ver: 0051 -> 0051, "
                                  "CX ver: 0011 -> 0011"));
  EXPECT_TRUE(
      logged("fw_update", "FW in the chip matches with the file.. No need to update the firmware"));
  EXPECT_TRUE(logged("vendor_afe_upgrade_fw", "FW booting success, FW is ready."));
  EXPECT_TRUE(written_frames().empty());
  EXPECT_TRUE(sim::erased_pages().empty());
  EXPECT_TRUE(sim::dma_transfers().empty());
  EXPECT_EQ(sim::ic().resets, 0);
  EXPECT_FALSE(logged("Flash presetup.."));
}

TEST_F(FwUpdateTest, FullUpdateOnTheWireAndInFlash) {
  fresh_chip(chip_with(0x0080, 0x0050, 0x0010));
  ASSERT_EQ(fw_update(), 0u);
  const std::vector<write_frame> frames = written_frames();

  // Pre-setup: plain reset, then the eleven single-byte writes in order.
  std::vector<write_frame> presetup = {{0x20000024, {0x80}}};
  for (const auto &w : kPreSetup) {
    presetup.push_back({w.address, {w.value}});
  }
  ASSERT_GE(frames.size(), presetup.size());
  EXPECT_TRUE(std::equal(presetup.begin(), presetup.end(), frames.begin()));

  // Erase: code pages, cx pages, config page; page 28 is the unused gap.
  // Each page: control block cleared, then page | 0x80.
  std::vector<int> pages = page_range(0, 28);
  pages.insert(pages.end(), {29, 30, 31});
  EXPECT_EQ(sim::erased_pages(), pages);
  std::vector<write_frame> erase, expected_erase;
  for (auto it = frames.begin() + presetup.size(); it != frames.end(); ++it) {
    if (it->address == 0x2000006A) {
      erase.insert(erase.end(), {*(it - 1), *it});
    }
  }
  for (int page : pages) {
    expected_erase.push_back({0x2000006B, {0x00}});
    expected_erase.push_back({0x2000006A, {static_cast<uint8_t>(0x80 | page)}});
  }
  EXPECT_EQ(erase, expected_erase);
  EXPECT_FALSE(android_logged("Erasing page: 0")); // per-page lines stay at level 3

  // DMA: code in chunks of 32 KiB, then cx and config in one piece each.
  // Descriptor = word address, word count less one; config at 0x1F000 with
  // 3,380 bytes gives 00 7C and 4C 03.
  const std::vector<std::pair<uint32_t, uint32_t>> chunks = {
      {0, 32768},   {32768, 32768},     {65536, 32768},
      {98304, 772}, {kCxFlash, kCxLen}, {kCfgFlash, kCfgLen}};
  const auto dmas = sim::dma_transfers();
  const auto descriptors = writes_to(0x20000072);
  ASSERT_EQ(dmas.size(), chunks.size());
  ASSERT_EQ(descriptors.size(), chunks.size());
  for (size_t i = 0; i < chunks.size(); ++i) {
    EXPECT_EQ(dmas[i].flash_offset, chunks[i].first) << i;
    EXPECT_EQ(dmas[i].length, chunks[i].second) << i;
    EXPECT_EQ(descriptors[i].data, descriptor(static_cast<uint16_t>(chunks[i].first / 4),
                                              static_cast<uint16_t>(chunks[i].second / 4 - 1)))
        << i;
  }
  EXPECT_EQ(descriptors.back().data,
            (std::vector<uint8_t>{0x00, 0x00, 0x00, 0x7C, 0x4C, 0x03, 0x00}));
  int start_blocks = 0;
  for (const auto &f : writes_to(0x2000006B)) {
    if (f.data.size() != 1) {
      EXPECT_EQ(f.data, (std::vector<uint8_t>{0x00, 0x40, 0x42, 0x0F, 0x00, 0x00, 0xC0}));
      ++start_blocks;
    }
  }
  EXPECT_EQ(start_blocks, 6);

  // Each chunk is staged at the RAM buffer in consecutive SPI writes of at
  // most 16 KiB.
  std::vector<std::vector<uint8_t>> staged;
  uint32_t next = 0;
  for (const auto &f : frames) {
    if (f.address >= 0x00100000 && f.address < 0x00108000) {
      EXPECT_LE(f.data.size(), 16384u);
      if (f.address == 0x00100000) {
        staged.emplace_back();
      } else {
        EXPECT_EQ(f.address, next);
      }
      ASSERT_FALSE(staged.empty());
      staged.back().insert(staged.back().end(), f.data.begin(), f.data.end());
      next = f.address + static_cast<uint32_t>(f.data.size());
    }
  }
  ASSERT_EQ(staged.size(), 6u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(staged[i], image_bytes(kCodeAt + chunks[i].first, chunks[i].second)) << i;
  }
  EXPECT_EQ(staged[4], image_bytes(kCxAt, kCxLen));
  EXPECT_EQ(staged[5], image_bytes(kCfgAt, kCfgLen));

  // What the flash holds afterwards; the gap page is never touched.
  const std::vector<uint8_t> flash = sim::flash();
  EXPECT_EQ(flash_bytes(flash, 0, kCodeLen), image_bytes(kCodeAt, kCodeLen));
  EXPECT_EQ(flash_bytes(flash, kCxFlash, kCxLen), image_bytes(kCxAt, kCxLen));
  EXPECT_EQ(flash_bytes(flash, kCfgFlash, kCfgLen), image_bytes(kCfgAt, kCfgLen));
  EXPECT_EQ(flash_bytes(flash, 28 * 4096, 4096), std::vector<uint8_t>(4096, 0xFF));

  const std::vector<std::string> progress = {"Starting flash procedure..",
                                             "Write chunk: 16384",
                                             "Flash presetup..",
                                             "Hold M3..",
                                             "SPI4 configuration..",
                                             "flash unlock..\n",
                                             "Erasing code..",
                                             "Erasing cx..",
                                             "Erasing config..",
                                             "flashing code..",
                                             "flashing cx..",
                                             "flashing config..",
                                             "Flash completed successfully"};
  EXPECT_TRUE(logged_in_order(progress));
  for (const auto &line : progress) {
    EXPECT_TRUE(android_logged(line)) << line; // progress goes out at error level
  }
  EXPECT_FALSE(sent_command({0xA4, 0x00, 0x02})); // panel configuration already current
}

TEST_F(FwUpdateTest, DecisionIsPerSectionAndByInequality) {
  struct decision {
    const char *what;
    sim::chip_identity chip;
    std::vector<int> pages;
    std::vector<uint32_t> dma_offsets;
  };
  const decision cases[] = {
      {"newer fw on the chip",
       chip_with(0x0090, 0x0051, 0x0011),
       page_range(0, 28),
       {0, 32768, 65536, 98304}},
      {"only cx differs", chip_with(0x0084, 0x0051, 0x0010), {29, 30}, {kCxFlash}},
      {"only config differs", chip_with(0x0084, 0x0052, 0x0011), {31}, {kCfgFlash}},
      {"zero cx version", chip_with(0x0084, 0x0051, 0x0000), {29, 30}, {kCxFlash}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    fresh_chip(c.chip);
    EXPECT_EQ(fw_update(), 0u);
    EXPECT_EQ(sim::erased_pages(), c.pages);
    std::vector<uint32_t> offsets;
    for (const auto &d : sim::dma_transfers()) {
      offsets.push_back(d.flash_offset);
    }
    EXPECT_EQ(offsets, c.dma_offsets);
    EXPECT_TRUE(logged("Flash completed successfully"));
  }
  // The downgrade of the first case, as logged.
  fresh_chip(cases[0].chip);
  EXPECT_EQ(fw_update(), 0u);
  EXPECT_TRUE(logged("fw_update", "FW ver: 0090 -> 0084, config ver: 0051 -> 0051, "
                                  "CX ver: 0011 -> 0011"));
}

TEST_F(FwUpdateTest, FailedFirstChipInfoReadForcesTheCode) {
  // The chip already runs the image's versions; only the failed read makes
  // the code section look out of date.
  sim::fail_spi_transfer(1, EIO);
  EXPECT_EQ(fw_update(), 0u);
  EXPECT_TRUE(logged("fw_update", "Unable to read the sys info.."));
  EXPECT_TRUE(android_logged("Unable to read the sys info.."));
  const auto pages = sim::erased_pages();
  ASSERT_GE(pages.size(), 28u);
  EXPECT_EQ(std::vector<int>(pages.begin(), pages.begin() + 28), page_range(0, 28));
  EXPECT_EQ(flash_bytes(sim::flash(), 0, kCodeLen), image_bytes(kCodeAt, kCodeLen));
  EXPECT_TRUE(logged("Flash completed successfully"));
  EXPECT_EQ(info.fw_ver, 0x0084);
}

TEST_F(FwUpdateTest, EraseThatNeverEndsTimesOutAfterThreeSeconds) {
  fresh_chip(chip_with(0x0080, 0x0051, 0x0011));
  sim::erase_stuck(true);
  const int64_t start = sim::now_us();
  EXPECT_EQ(vendor_afe_upgrade_fw(), 3u);
  const int64_t spent_ms = (sim::now_us() - start) / 1000;
  EXPECT_GE(spent_ms, 3000);
  EXPECT_LT(spent_ms, 3500);
  // Only the first page was started, and polled every 25 ms until 3 s.
  EXPECT_EQ(writes_to(0x2000006A).size(), 1u);
  EXPECT_GE(reads_of(0x2000006A), 100);
  EXPECT_LE(reads_of(0x2000006A), 121);
  EXPECT_TRUE(sim::dma_transfers().empty());
  EXPECT_TRUE(logged_in_order({"Erasing code..", "Error in flash erase..",
                               "Unable to flash the fw..", "FW update failed"}));
  EXPECT_FALSE(logged("Code erased sucessfully.."));
  EXPECT_TRUE(android_logged("FW update failed"));
  EXPECT_EQ(sim::ic().resets, 1); // only the plain reset of the pre-setup
}

TEST_F(FwUpdateTest, DmaThatNeverEndsTimesOutAfterThreeSeconds) {
  fresh_chip(chip_with(0x0080, 0x0051, 0x0011));
  sim::dma_stuck(true);
  EXPECT_EQ(vendor_afe_upgrade_fw(), 3u);
  EXPECT_EQ(writes_to(0x20000072).size(), 1u);
  EXPECT_GE(reads_of(0x20000071), 100);
  EXPECT_LE(reads_of(0x20000071), 121);
  EXPECT_TRUE(logged_in_order({"flashing code..", "Unable to flash the fw..", "FW update failed"}));
  EXPECT_FALSE(logged("FW code burn completed"));
}

TEST_F(FwUpdateTest, VersionsThatStayWrongAreOnlyReported) {
  fresh_chip(chip_with(0x0080, 0x0051, 0x0011));
  sim::versions_stick(true);
  EXPECT_EQ(vendor_afe_upgrade_fw(), 0u);
  EXPECT_TRUE(logged("fw_update", "FW not updated correctly after flashing"));
  EXPECT_FALSE(logged("Flash completed successfully"));
  EXPECT_TRUE(logged("FW booting success, FW is ready."));
  EXPECT_FALSE(logged("FW update failed"));
}

TEST_F(FwUpdateTest, PanelInitWhenThePanelConfigLagsBehind) {
  sim::chip_identity id = chip_with(0x0080, 0x0051, 0x0011);
  id.afe_ver_cfg = 0x01;
  id.panel_cfg = 0x00;
  fresh_chip(id);
  EXPECT_EQ(fw_update(), 0u);
  EXPECT_TRUE(logged("fw_update", "Panel Init.."));
  EXPECT_TRUE(sent_command({0xA4, 0x00, 0x02}));
  EXPECT_FALSE(logged("Unable to do panel init..."));
  EXPECT_EQ(info.panel_cfg, info.afe_ver_cfg);
}

TEST_F(FwUpdateTest, PreSetupStopsAtTheFirstFailedWriteWithItsOwnMessage) {
  const sim::chip_identity chip = chip_with(0x0080, 0x0051, 0x0011);

  // Where each write falls among the transfers of a clean run.
  fresh_chip(chip);
  ASSERT_EQ(fw_update(), 0u);
  const auto clean_run = sim::spi_transfers();
  for (const auto &s : kPreSetup) {
    SCOPED_TRACE(s.failure);
    const std::vector<uint8_t> frame = {0xFA,
                                        static_cast<uint8_t>(s.address >> 24),
                                        static_cast<uint8_t>(s.address >> 16),
                                        static_cast<uint8_t>(s.address >> 8),
                                        static_cast<uint8_t>(s.address),
                                        s.value};
    const auto at = std::find_if(clean_run.begin(), clean_run.end(),
                                 [&](const sim::spi_transfer &t) { return t.tx == frame; });
    ASSERT_NE(at, clean_run.end());

    fresh_chip(chip);
    sim::fail_spi_transfer(static_cast<int>(at - clean_run.begin()) + 1, EIO);
    EXPECT_NE(fw_update(), 0u);
    EXPECT_TRUE(logged("flash_pre_setup", s.failure));
    EXPECT_TRUE(android_logged(s.failure));
    EXPECT_TRUE(
        logged_in_order({s.failure, "Error in flash pre setup..", "Unable to flash the fw.."}));
    EXPECT_FALSE(logged("Flash erase.."));
    // Nothing after the failed write reached the chip.
    const auto seen = sim::spi_transfers();
    const size_t index = static_cast<size_t>(at - clean_run.begin());
    EXPECT_LE(seen.size(), index + 1);
    EXPECT_TRUE(std::equal(
        seen.begin(), seen.begin() + std::min(seen.size(), index), clean_run.begin(),
        [](const sim::spi_transfer &a, const sim::spi_transfer &b) { return a.tx == b.tx; }));
    EXPECT_TRUE(sim::erased_pages().empty());
  }
}

TEST_F(FwUpdateTest, ErasePageRangesAtTheEdges) {
  EXPECT_EQ(flash_erase_pages(5, 0), 0u);
  EXPECT_TRUE(written_frames().empty());
  // A range past page 255 would wrap onto the code pages: refused whole.
  EXPECT_EQ(flash_erase_pages(250, 10), 3u);
  EXPECT_TRUE(written_frames().empty());
  EXPECT_TRUE(sim::erased_pages().empty());
}

// Counts the library's allocations while it is installed.
const afehal_os_ops *g_inner_ops = nullptr;
int g_allocations = 0;
void *counting_malloc(size_t size) {
  ++g_allocations;
  return g_inner_ops->malloc(size);
}

TEST_F(FwUpdateTest, EveryAllocationFailureFreesWhatWasTaken) {
  const sim::chip_identity chip = chip_with(0x0080, 0x0050, 0x0010);
  fresh_chip(chip);
  g_inner_ops = &os();
  afehal_os_ops counting = *g_inner_ops;
  counting.malloc = counting_malloc;
  g_allocations = 0;
  os_install(&counting);
  ASSERT_EQ(fw_update(), 0u);
  os_install(g_inner_ops);
  const int total = g_allocations;
  ASSERT_GT(total, 3);

  bool image_copy_failed = false;
  bool parse_failed = false;
  for (int nth = 1; nth <= total; ++nth) {
    SCOPED_TRACE(nth);
    fresh_chip(chip);
    const size_t live = sim::heap_live_blocks();
    sim::fail_allocation(nth);
    const uint32_t result = fw_update();
    sim::fail_allocation(0);
    ASSERT_EQ(sim::heap_live_blocks(), live);
    if (logged("Unable to parse the header file..")) {
      EXPECT_EQ(result, 2u);
      EXPECT_TRUE(logged("parse_fw_header_file", "Error allocating memory"));
      parse_failed = true;
    } else if (result == 2 && !logged("Flash presetup..") && logged("Starting flash procedure..") &&
               !logged("FW signature OK")) {
      image_copy_failed = true;
    }
    if (result != 0) {
      EXPECT_FALSE(logged("Flash completed successfully"));
    }
  }
  EXPECT_TRUE(image_copy_failed);
  EXPECT_TRUE(parse_failed);
}

TEST_F(FwUpdateTest, StartBringsAnOutdatedChipUpToDate) {
  fresh_chip(chip_with(0x0080, 0x0051, 0x0011));
  ASSERT_EQ(kvr_afe_start(), 0u);
  EXPECT_TRUE(logged("FW booting success, FW is ready."));
  EXPECT_EQ(flash_bytes(sim::flash(), 0, kCodeLen), image_bytes(kCodeAt, kCodeLen));
  EXPECT_EQ(info.fw_ver, 0x0084);
}

} // namespace
