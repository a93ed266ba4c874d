// The firmware update against the simulated chip: the per-section decision,
// the bytes of the pre-setup, erase and DMA sequence, what ends up in the
// chip's flash, and every failure path.
#include <algorithm>
#include <cerrno>
#include <numeric>
#include <string>
#include <vector>

#include "afehal/afehal.h"
#include "chip/firmware/fw_image.h"
#include "chip/firmware/fw_update.h"
#include "chip/transport/host_data.h"
#include "platform/log.h"
#include "platform/os.h"
#include "support/fixture.h"

namespace {

constexpr uint32_t kCodeLen = 99076;
constexpr uint32_t kCfgLen = 3380;
constexpr uint32_t kCxLen = 1516;
constexpr uint32_t kCodeAt = 64;
constexpr uint32_t kCfgAt = kCodeAt + kCodeLen;
constexpr uint32_t kCxAt = kCfgAt + kCfgLen;
constexpr uint32_t kCxFlash = 118784;
constexpr uint32_t kCfgFlash = 126976;

// One write-at or read-at frame seen on the wire: address, data.
using frame = std::pair<uint32_t, std::vector<uint8_t>>;

uint32_t be32(const uint8_t *p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// The write-at (0xFA) or read-at (0xFB) frames sent so far; only those to
// address unless it is 0.
std::vector<frame> frames(uint8_t command = 0xFA, uint32_t address = 0) {
  std::vector<frame> out;
  for (const auto &t : sim::spi_transfers()) {
    if (t.tx.size() >= 5 && t.tx[0] == command && (address == 0 || be32(&t.tx[1]) == address)) {
      out.push_back({be32(&t.tx[1]), {t.tx.begin() + 5, t.tx.end()}});
    }
  }
  return out;
}

std::vector<int> page_range(int first, int count) {
  std::vector<int> pages(count);
  std::iota(pages.begin(), pages.end(), first);
  return pages;
}

template <class T> bool contains(const std::vector<T> &list, const std::type_identity_t<T> &item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

// True when texts appear in lines in this order (others may lie between).
bool in_order(const std::vector<std::string> &lines, const std::vector<std::string> &texts) {
  size_t next = 0; // past the end once a text was missing
  for (const auto &text : texts) {
    const auto from = lines.begin() + std::min(next, lines.size());
    next = static_cast<size_t>(std::find(from, lines.end(), text) - lines.begin()) + 1;
  }
  return next <= lines.size();
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
};

TEST_F(FwUpdateTest, MatchingChipIsNotTouched) {
  EXPECT_EQ(vendor_afe_upgrade_fw(), 0u);
  EXPECT_TRUE(logged("fw_update", "FW ver: 0084 -> 0084, config ver: 0051 -> 0051, "
                                  "CX ver: 0011 -> 0011"));
  EXPECT_TRUE(
      logged("fw_update", "FW in the chip matches with the file.. No need to update the firmware"));
  EXPECT_TRUE(logged("vendor_afe_upgrade_fw", "FW booting success, FW is ready."));
  EXPECT_TRUE(frames().empty()); // no reset, erase or DMA
}

TEST_F(FwUpdateTest, FullUpdateOnTheWireAndInFlash) {
  fresh_chip(chip_with(0x0080, 0x0050, 0x0010));
  ASSERT_EQ(fw_update(), 0u);

  // Every register write in order, the staged chunk data aside: plain reset
  // and pre-setup; per page the control block cleared, then page | 0x80
  // (page 28 is the unused gap); per DMA the descriptor (word address, word
  // count less one) and the start block: code in chunks of 32 KiB, cx and
  // config (0x1F000, 3,380 bytes) in one; a last reset boots the firmware.
  std::vector<frame> expected = {{0x20000024, {0x80}}};
  for (const auto &w : kPreSetup) {
    expected.push_back({w.address, {w.value}});
  }
  std::vector<int> pages = page_range(0, 28);
  pages.insert(pages.end(), {29, 30, 31});
  for (int page : pages) {
    expected.push_back({0x2000006B, {0x00}});
    expected.push_back({0x2000006A, {static_cast<uint8_t>(0x80 | page)}});
  }
  const std::vector<uint8_t> descriptors[] = {
      {0x00, 0x00, 0x00, 0x00, 0xFF, 0x1F, 0x00}, {0x00, 0x00, 0x00, 0x20, 0xFF, 0x1F, 0x00},
      {0x00, 0x00, 0x00, 0x40, 0xFF, 0x1F, 0x00}, {0x00, 0x00, 0x00, 0x60, 0xC0, 0x00, 0x00},
      {0x00, 0x00, 0x00, 0x74, 0x7A, 0x01, 0x00}, {0x00, 0x00, 0x00, 0x7C, 0x4C, 0x03, 0x00}};
  for (const auto &descriptor : descriptors) {
    expected.push_back({0x20000072, descriptor});
    expected.push_back({0x2000006B, {0x00, 0x40, 0x42, 0x0F, 0x00, 0x00, 0xC0}});
  }
  expected.push_back({0x20000024, {0x80}});
  std::vector<frame> registers = frames();
  std::erase_if(registers, [](const frame &f) { return f.first < 0x20000000; });
  EXPECT_EQ(registers, expected);

  const std::vector<uint8_t> flash = sim::flash();
  EXPECT_TRUE(std::equal(myArray + kCodeAt, myArray + kCodeAt + kCodeLen, flash.begin()));
  EXPECT_TRUE(std::equal(myArray + kCxAt, myArray + kCxAt + kCxLen, flash.begin() + kCxFlash));
  EXPECT_TRUE(std::equal(myArray + kCfgAt, myArray + kCfgAt + kCfgLen, flash.begin() + kCfgFlash));

  // Progress goes out at error level, the per-page lines only at level 3.
  EXPECT_TRUE(in_order(android_errors(),
                       {"Starting flash procedure..", "Write chunk: 16384", "Flash presetup..",
                        "Hold M3..", "SPI4 configuration..", "flash unlock..\n", "Erasing code..",
                        "Erasing cx..", "Erasing config..", "flashing code..", "flashing cx..",
                        "flashing config..", "Flash completed successfully"}));
  EXPECT_FALSE(contains(android_errors(), "Erasing page: 0"));
  EXPECT_FALSE(contains(sim::fw_commands(), {0xA4, 0x00, 0x02})); // panel configuration current
}

TEST_F(FwUpdateTest, DecisionIsPerSectionAndByInequality) {
  struct decision {
    const char *what;
    sim::chip_identity chip;
    bool fail_first_read; // the chip-info read before the decision
    std::vector<int> pages;
    std::vector<uint32_t> dma_offsets;
  };
  std::vector<int> all_pages = page_range(0, 28);
  all_pages.insert(all_pages.end(), {29, 30, 31});
  const std::vector<uint32_t> code = {0, 32768, 65536, 98304},
                              all = {0, 32768, 65536, 98304, kCxFlash, kCfgFlash};
  const decision cases[] = {
      {"only cx differs", chip_with(0x0084, 0x0051, 0x0010), false, {29, 30}, {kCxFlash}},
      {"only config differs", chip_with(0x0084, 0x0052, 0x0011), false, {31}, {kCfgFlash}},
      {"failed read writes all", chip_with(0x0084, 0x0051, 0x0011), true, all_pages, all},
      {"newer fw on the chip", chip_with(0x0090, 0x0051, 0x0011), false, page_range(0, 28), code},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    fresh_chip(c.chip);
    if (c.fail_first_read) {
      sim::fail_spi_transfer(1, EIO);
    }
    EXPECT_EQ(fw_update(), 0u);
    EXPECT_EQ(sim::erased_pages(), c.pages);
    std::vector<uint32_t> offsets;
    for (const auto &d : sim::dma_transfers()) {
      offsets.push_back(d.flash_offset);
    }
    EXPECT_EQ(offsets, c.dma_offsets);
    EXPECT_EQ(contains(android_errors(), "Unable to read the sys info.."), c.fail_first_read);
    EXPECT_TRUE(logged("Flash completed successfully"));
  }
  // The downgrade of the last case, as logged.
  EXPECT_TRUE(logged("fw_update", "FW ver: 0090 -> 0084, config ver: 0051 -> 0051, "
                                  "CX ver: 0011 -> 0011"));
}

TEST_F(FwUpdateTest, EraseOrDmaThatNeverEndsTimesOut) {
  // started_at is written once, then polled every 25 ms for 3 s.
  const auto check = [&](void (*stick)(bool), uint32_t started_at, uint32_t polled, size_t dmas,
                         const std::vector<std::string> &log) {
    SCOPED_TRACE(log[0]);
    fresh_chip(chip_with(0x0080, 0x0051, 0x0011));
    stick(true);
    EXPECT_EQ(vendor_afe_upgrade_fw(), 3u);
    EXPECT_EQ(frames(0xFA, started_at).size(), 1u);
    EXPECT_GE(frames(0xFB, polled).size(), 100u);
    EXPECT_LE(frames(0xFB, polled).size(), 121u);
    EXPECT_EQ(sim::dma_transfers().size(), dmas);
    EXPECT_TRUE(in_order(android_errors(), log));
    EXPECT_EQ(sim::ic().resets, 1); // only the plain reset of the pre-setup
  };
  check(
      sim::erase_stuck, 0x2000006A, 0x2000006A, 0,
      {"Erasing code..", "Error in flash erase..", "Unable to flash the fw..", "FW update failed"});
  check(sim::dma_stuck, 0x20000072, 0x20000071, 1,
        {"flashing code..", "Unable to flash the fw..", "FW update failed"});
}

TEST_F(FwUpdateTest, AfterFlashingPanelInitAndStaleVersionsAreOnlyReported) {
  sim::chip_identity id = chip_with(0x0080, 0x0051, 0x0011);
  id.panel_cfg = 0x00; // behind afe_ver_cfg
  fresh_chip(id);
  sim::versions_stick(true);
  ASSERT_EQ(kvr_afe_start(), 0u); // every start brings the firmware up to date
  EXPECT_TRUE(logged("fw_update", "Panel Init.."));
  EXPECT_TRUE(contains(sim::fw_commands(), {0xA4, 0x00, 0x02}));
  EXPECT_EQ(info.panel_cfg, info.afe_ver_cfg);
  EXPECT_TRUE(logged("fw_update", "FW not updated correctly after flashing"));
  EXPECT_TRUE(logged("FW booting success, FW is ready."));
}

TEST_F(FwUpdateTest, PreSetupStopsAtTheFirstFailedWriteWithItsOwnMessage) {
  const sim::chip_identity chip = chip_with(0x0080, 0x0051, 0x0011);
  fresh_chip(chip);
  ASSERT_EQ(fw_update(), 0u);
  const auto clean_run = sim::spi_transfers();
  for (const auto &s : kPreSetup) {
    SCOPED_TRACE(s.failure);
    // Where the write falls among the transfers of the clean run.
    const auto at =
        std::find_if(clean_run.begin(), clean_run.end(), [&](const sim::spi_transfer &t) {
          return t.tx.size() == 6 && t.tx[0] == 0xFA && be32(&t.tx[1]) == s.address &&
                 t.tx[5] == s.value;
        });
    ASSERT_NE(at, clean_run.end());
    const auto index = static_cast<size_t>(at - clean_run.begin());

    fresh_chip(chip);
    sim::fail_spi_transfer(static_cast<int>(index) + 1, EIO);
    EXPECT_NE(fw_update(), 0u);
    EXPECT_TRUE(logged("flash_pre_setup", s.failure));
    EXPECT_TRUE(in_order(android_errors(),
                         {s.failure, "Error in flash pre setup..", "Unable to flash the fw.."}));
    EXPECT_LE(sim::spi_transfers().size(), index + 1); // nothing sent after the failed write
  }
}

TEST_F(FwUpdateTest, ErasePageRangesAtTheEdges) {
  EXPECT_EQ(flash_erase_pages(5, 0), 0u);
  // A range past page 255 would wrap onto the code pages: refused whole.
  EXPECT_EQ(flash_erase_pages(250, 10), 3u);
  EXPECT_TRUE(frames().empty());
  EXPECT_TRUE(sim::erased_pages().empty());
}

TEST_F(FwUpdateTest, EveryAllocationFailureFreesWhatWasTaken) {
  const sim::chip_identity chip = chip_with(0x0080, 0x0050, 0x0010);
  bool image_copy_failed = false, parse_failed = false, reached = true;
  for (int nth = 1; reached; ++nth) {
    SCOPED_TRACE(nth);
    fresh_chip(chip);
    const size_t live = sim::heap_live_blocks();
    sim::fail_allocation(nth);
    const uint32_t result = fw_update();
    // A probe gets the armed failure once the update made fewer allocations.
    void *probe = os().malloc(1);
    reached = probe != nullptr;
    os().free(probe);
    sim::fail_allocation(0);
    ASSERT_EQ(sim::heap_live_blocks(), live);
    if (!reached) {
      EXPECT_EQ(result, 0u);
      EXPECT_TRUE(logged("Flash completed successfully"));
    } else if (logged("Unable to parse the header file..")) {
      EXPECT_EQ(result, 2u);
      EXPECT_TRUE(logged("parse_fw_header_file", "Error allocating memory"));
      parse_failed = true;
    } else if (result == 2 && !logged("FW signature OK")) {
      image_copy_failed = true;
    }
  }
  EXPECT_TRUE(image_copy_failed && parse_failed);
}

} // namespace
