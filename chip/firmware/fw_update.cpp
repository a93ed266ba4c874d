#include "chip/firmware/fw_update.h"

#include <array>
#include <cstring>

#include "chip/chip.h"
#include "chip/transport/fw_cmd.h"
#include "chip/transport/host_data.h"
#include "chip/transport/reg_access.h"
#include "platform/heap.h"
#include "platform/log.h"
#include "platform/os.h"

// The update is rare and its progress matters in the field, so its progress
// lines go out at error level (sink and Android log) through log_error;
// only the per-page and per-poll lines stay at information level.

namespace {

constexpr size_t ADDRESS_FRAME_SIZE = 5; // 0xFA + 4 address bytes
constexpr size_t BLOCK_SIZE = 7;         // DMA descriptor and start block

// Writes bytes at an IC address as one write-at frame built in a fresh heap
// buffer: 0xFA, the address most significant byte first, then the bytes.
template <size_t N> uint32_t write_frame_at(uint32_t address, const std::array<uint8_t, N> &bytes) {
  heap_buffer<uint8_t> frame(ADDRESS_FRAME_SIZE + N);
  if (!frame) {
    return FLASH_ERR_ALLOC;
  }
  frame[0] = SPI_CMD_MEM_WRITE;
  frame[1] = static_cast<uint8_t>(address >> 24);
  frame[2] = static_cast<uint8_t>(address >> 16);
  frame[3] = static_cast<uint8_t>(address >> 8);
  frame[4] = static_cast<uint8_t>(address);
  memcpy(frame.get() + ADDRESS_FRAME_SIZE, bytes.data(), N);
  return quillon_write(frame.get(), static_cast<int32_t>(ADDRESS_FRAME_SIZE + N));
}

uint32_t write_byte_at(uint32_t address, uint8_t value) {
  return write_frame_at<1>(address, {value});
}

// Polls a status register every 25 ms until its busy bit clears; 3 when it
// is still busy after 3 s. The done line carries the elapsed time as last
// measured (0.00 when the first read already shows the end).
uint32_t poll_until_idle(uint32_t address, const char *tag, bool log_each_status,
                         const char *done_format) {
  const int64_t start = sys_get_cur_systime();
  int64_t elapsed = 0;
  for (;;) {
    uint8_t status = 0;
    const uint32_t result = quillon_read_at(address, &status, 1);
    if (result != 0) {
      return result;
    }
    if (log_each_status) {
      NLOG(LOG_LEVEL_INFO, tag, "status %d ", status);
    }
    if ((status & FLASH_BUSY) == 0) {
      NLOG(LOG_LEVEL_INFO, tag, done_format, static_cast<double>(elapsed));
      return FLASH_OK;
    }
    os().usleep(FLASH_POLL_INTERVAL_MS * 1000);
    elapsed = sys_get_cur_systime() - start;
    if (elapsed >= FLASH_POLL_TIMEOUT_MS) {
      return FLASH_ERR_TIMEOUT;
    }
  }
}

// One write of the pre-setup sequence, in the order the IC needs them.
struct presetup_step {
  const char *log_before; // progress line, or null
  bool settle_before;     // 1 ms pause before the write
  uint32_t address;
  uint8_t value;
  const char *failure;
};

// The failure messages count the failing step in dots; the count skips four
// dots on purpose and is kept so the field logs stay comparable.
constexpr presetup_step PRESETUP_STEPS[] = {
    {"Hold M3..", false, FLASH_CORE_CONTROL, 0x01, "Error in hold m3.."},
    {"SPI4 configuration..", false, FLASH_SPI4_32, 0x10, "Error in spi4 mode configuration."},
    {nullptr, false, FLASH_SPI4_34, 0x02, "Error in spi4 mode configuration.."},
    {nullptr, false, FLASH_SPI4_3E, 0x70, "Error in spi4 mode configuration..."},
    {nullptr, false, FLASH_SPI4_3D, 0x30, "Error in spi4 mode configuration....."},
    {nullptr, false, FLASH_SPI4_2D, 0x02, "Error in spi4 mode configuration......"},
    {nullptr, true, FLASH_PRESETUP_1B, 0x66, "Error in flash pre setup."},
    {nullptr, false, FLASH_PRESETUP_68, 0x13, "Error in flash pre setup.."},
    {"flash unlock..\n", false, FLASH_UNLOCK_25, 0x20, "Error in flash unlock."},
    {nullptr, false, FLASH_CONTROL_BLOCK, 0x00, "Error in flash unlock.."},
    {nullptr, false, FLASH_UNLOCK_DE, 0x03, "Error in flash unlock..."},
};

// The three section buffers and the image copy of one update, freed on
// every way out of fw_update.
struct update_buffers {
  heap_buffer<uint8_t> image;
  fw_file_info record{};
  update_buffers() = default;
  update_buffers(const update_buffers &) = delete;
  update_buffers &operator=(const update_buffers &) = delete;
  ~update_buffers() { clean_fw_file_info(&record); }
};

bool section_differs(const uint8_t *data, uint32_t size, uint16_t chip_ver, uint16_t file_ver) {
  return data != nullptr && size != 0 && (chip_ver == 0 || chip_ver != file_ver);
}

} // namespace

uint32_t flash_pre_setup() {
  static constexpr const char *tag = "flash_pre_setup";
  log_error(tag, "Flash pre setup..");
  // A plain reset without waiting for the ready event; the core is held next.
  system_reset(0);
  for (const presetup_step &step : PRESETUP_STEPS) {
    if (step.log_before != nullptr) {
      log_error(tag, "%s", step.log_before);
    }
    if (step.settle_before) {
      os().usleep(1000);
    }
    const uint32_t result = write_byte_at(step.address, step.value);
    if (result != 0) {
      log_error(tag, "%s", step.failure);
      return result;
    }
  }
  return FLASH_OK;
}

uint32_t flash_erase_done() {
  return poll_until_idle(FLASH_ERASE_CONTROL, "flash_erase_done", true,
                         "Flash erase done in %.2f ms");
}

uint32_t flash_program_done() {
  return poll_until_idle(FLASH_DMA_STATUS, "flash_program_done", false,
                         "Flash dma done in %.2f ms");
}

uint32_t flash_erase_pages(uint8_t first_page, uint8_t count) {
  static constexpr const char *tag = "flash_erase_pages";
  if (count == 0) {
    return FLASH_OK;
  }
  // The page register is 8 bits wide: a range past page 255 would wrap
  // around to the code pages, so it is refused before anything is erased.
  const uint32_t end = static_cast<uint32_t>(first_page) + count;
  if (end > 256) {
    log_error(tag, "Erase range %d+%d runs past page 255", first_page, count);
    return FLASH_ERR_TIMEOUT;
  }
  for (uint32_t page = first_page; page < end; ++page) {
    NLOG(LOG_LEVEL_INFO, tag, "Erasing page: %d", static_cast<int>(page));
    uint32_t result = write_byte_at(FLASH_CONTROL_BLOCK, 0x00);
    if (result == 0) {
      result = write_byte_at(FLASH_ERASE_CONTROL, static_cast<uint8_t>(page | FLASH_ERASE_START));
    }
    if (result == 0) {
      result = flash_erase_done();
    }
    if (result != 0) {
      return result;
    }
  }
  return FLASH_OK;
}

uint32_t flash_erase(fw_file_info record, uint8_t code, uint8_t cfg, uint8_t cx) {
  static constexpr const char *tag = "flash_erase";
  const auto cx_first = static_cast<uint8_t>(record.fw_pages + record.gap_pages);
  const auto cfg_first = static_cast<uint8_t>(cx_first + record.cx_pages);
  uint32_t result = FLASH_OK;
  if ((code & 1) != 0) {
    log_error(tag, "Erasing code..");
    if ((result = flash_erase_pages(0, record.fw_pages)) != 0) {
      return result;
    }
    log_error(tag, "Code erased sucessfully..");
  }
  if ((cx & 1) != 0) {
    log_error(tag, "Erasing cx..");
    if ((result = flash_erase_pages(cx_first, record.cx_pages)) != 0) {
      return result;
    }
    log_error(tag, "Cx erased sucessfully..");
  }
  if ((cfg & 1) != 0) {
    log_error(tag, "Erasing config..");
    if ((result = flash_erase_pages(cfg_first, record.cfg_pages)) != 0) {
      return result;
    }
    log_error(tag, "Config erased sucessfully..");
  }
  return FLASH_OK;
}

uint32_t fill_flash(uint32_t flash_offset, const uint8_t *data, uint32_t length) {
  uint32_t result = quillon_write_chunk_at(FLASH_RAM_BUFFER, data, static_cast<int32_t>(length));
  if (result != 0) {
    return result;
  }
  // The DMA works in 32-bit words: W is the flash word address, N the word
  // count less one (a length below 4 gives 0xFFFF). Trailing bytes of a
  // length that is not a multiple of 4 are staged but not programmed.
  const uint32_t word_address = (flash_offset / 4) & 0xFFFF;
  const uint32_t last_word = (length / 4 - 1) & 0xFFFF;
  const std::array<uint8_t, BLOCK_SIZE> descriptor = {0x00,
                                                      0x00,
                                                      static_cast<uint8_t>(word_address & 0xFF),
                                                      static_cast<uint8_t>(word_address >> 8),
                                                      static_cast<uint8_t>(last_word & 0xFF),
                                                      static_cast<uint8_t>(last_word >> 8),
                                                      0x00};
  if ((result = write_frame_at(FLASH_DMA_DESCRIPTOR, descriptor)) != 0) {
    return result;
  }
  // The block runs from 0x2000006B to 0x20000071; its last byte, 0xC0,
  // lands in the DMA status register and starts the transfer.
  constexpr std::array<uint8_t, BLOCK_SIZE> start_block = {0x00, 0x40, 0x42, 0x0F,
                                                           0x00, 0x00, 0xC0};
  if ((result = write_frame_at(FLASH_CONTROL_BLOCK, start_block)) != 0) {
    return result;
  }
  return flash_program_done();
}

uint32_t flash_update(fw_file_info record, uint8_t code, uint8_t cfg, uint8_t cx) {
  static constexpr const char *tag = "flash_update";
  log_error(tag, "Flash presetup..");
  uint32_t result = flash_pre_setup();
  if (result != 0) {
    log_error(tag, "Error in flash pre setup..");
    return result;
  }
  log_error(tag, "Flash erase..");
  result = flash_erase(record, code, cfg, cx);
  if (result != 0) {
    log_error(tag, "Error in flash erase..");
    return result;
  }

  if ((code & 1) != 0) {
    log_error(tag, "flashing code..");
    for (uint32_t offset = 0; offset < record.fw_size; offset += FLASH_DMA_CHUNK) {
      const uint32_t remaining = record.fw_size - offset;
      const uint32_t chunk = remaining < FLASH_DMA_CHUNK ? remaining : FLASH_DMA_CHUNK;
      if ((result = fill_flash(offset, record.fw_data + offset, chunk)) != 0) {
        return result;
      }
    }
    log_error(tag, "FW code burn completed");
  }

  const uint32_t cx_offset =
      (static_cast<uint32_t>(record.fw_pages) + record.gap_pages) * FLASH_PAGE_SIZE;
  if ((cx & 1) != 0) {
    log_error(tag, "flashing cx..");
    if ((result = fill_flash(cx_offset, record.cx_data, record.cx_size)) != 0) {
      return result;
    }
    log_error(tag, "cx burn completed");
  }

  const uint32_t cfg_offset = cx_offset + record.cx_pages * FLASH_PAGE_SIZE;
  if ((cfg & 1) != 0) {
    log_error(tag, "flashing config..");
    if ((result = fill_flash(cfg_offset, record.cfg_data, record.cfg_size)) != 0) {
      return result;
    }
    log_error(tag, "Fw config burn completed");
  }
  return FLASH_OK;
}

uint32_t fw_update() {
  static constexpr const char *tag = "fw_update";
  log_error(tag, "Starting flash procedure..");
  log_error(tag, "Write chunk: %d", SPI_WRITE_CHUNK);

  if (read_chip_info(&info) != 0) {
    // An unknown code version forces the code section to be written.
    log_error(tag, "Unable to read the sys info..");
    info.fw_ver = 0;
  }

  update_buffers buffers;
  buffers.image = heap_buffer<uint8_t>(myArray_size);
  if (!buffers.image) {
    return FLASH_ERR_ALLOC;
  }
  memcpy(buffers.image.get(), myArray, myArray_size);

  fw_file_info &record = buffers.record;
  uint32_t result = parse_fw_header_file(&record, buffers.image.get());
  if (result != 0) {
    // Section buffers of a parse that ran out of memory are freed too.
    log_error(tag, "Unable to parse the header file..");
    return result;
  }

  // Inequality, not "older than": an image older than the chip's firmware
  // is written over it. The config id is not compared.
  const bool code = section_differs(record.fw_data, record.fw_size, info.fw_ver, record.fw_ver);
  const bool cfg = section_differs(record.cfg_data, record.cfg_size, info.cfg_ver, record.cfg_ver);
  const bool cx = section_differs(record.cx_data, record.cx_size, info.cx_cfg_ver, record.cx_ver);
  log_error(tag, "FW ver: %04X -> %04X, config ver: %04X -> %04X, CX ver: %04X -> %04X",
            info.fw_ver, record.fw_ver, info.cfg_ver, record.cfg_ver, info.cx_cfg_ver,
            record.cx_ver);
  if (!code && !cfg && !cx) {
    log_error(tag, "FW in the chip matches with the file.. No need to update the firmware");
    return FLASH_OK;
  }

  result = flash_update(record, code, cfg, cx);
  if (result != 0) {
    log_error(tag, "Unable to flash the fw..");
    return result;
  }
  if ((result = system_reset(RESET_WAIT_READY)) != 0) {
    return result;
  }
  if ((result = read_chip_info(&info)) != 0) {
    log_error(tag, "Unable to read the sys info..");
    return result;
  }

  if (info.afe_ver_cfg != info.panel_cfg) {
    log_error(tag, "Panel Init..");
    static constexpr uint8_t panel_init[] = {0xA4, 0x00, 0x02};
    if (fw_write(panel_init, sizeof panel_init, 3000) != 0) {
      log_error(tag, "Unable to do panel init...");
    } else {
      info.panel_cfg = info.afe_ver_cfg;
    }
  }

  // The cx version is not checked again; a mismatch is reported only, and
  // the start goes on with whatever the chip runs.
  if (info.fw_ver == record.fw_ver && info.cfg_ver == record.cfg_ver) {
    log_error(tag, "Flash completed successfully");
  } else {
    log_error(tag, "FW not updated correctly after flashing");
  }
  return FLASH_OK;
}

uint32_t vendor_afe_upgrade_fw() {
  static constexpr const char *tag = "vendor_afe_upgrade_fw";
  const uint32_t result = fw_update();
  if (result != 0) {
    log_error(tag, "FW update failed");
  } else {
    NLOG(LOG_LEVEL_INFO, tag, "FW booting success, FW is ready.");
  }
  return result;
}
