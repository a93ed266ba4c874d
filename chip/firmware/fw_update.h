// Bringing the IC's flash up to the embedded firmware image: the per-section
// decision, and the hold / unlock / erase / program / reset sequence.
//
// Sections are staged into the IC's RAM over SPI and moved into flash by the
// IC's DMA; erases and DMA transfers are polled every 25 ms for at most 3 s.
// Results: 0 success, 2 a work buffer could not be allocated, 3 a poll timed
// out, otherwise the transport's code passed up unchanged.
#pragma once

#include <cstdint>

#include "chip/firmware/fw_image.h"

// IC addresses of the flash programming path.
constexpr uint32_t FLASH_RAM_BUFFER = 0x00100000;  // staging buffer of one chunk
constexpr uint32_t FLASH_PRESETUP_1B = 0x2000001B; // pre-setup, 0x66
constexpr uint32_t FLASH_CORE_CONTROL = 0x20000024;
constexpr uint32_t FLASH_UNLOCK_25 = 0x20000025;
constexpr uint32_t FLASH_SPI4_2D = 0x2000002D;
constexpr uint32_t FLASH_SPI4_32 = 0x20000032;
constexpr uint32_t FLASH_SPI4_34 = 0x20000034;
constexpr uint32_t FLASH_SPI4_3D = 0x2000003D;
constexpr uint32_t FLASH_SPI4_3E = 0x2000003E;
constexpr uint32_t FLASH_PRESETUP_68 = 0x20000068; // pre-setup, 0x13
constexpr uint32_t FLASH_ERASE_CONTROL = 0x2000006A;
constexpr uint32_t FLASH_CONTROL_BLOCK = 0x2000006B;
constexpr uint32_t FLASH_DMA_STATUS = 0x20000071;
constexpr uint32_t FLASH_DMA_DESCRIPTOR = 0x20000072;
constexpr uint32_t FLASH_UNLOCK_DE = 0x200000DE;

constexpr uint8_t FLASH_BUSY = 0x80;        // status bit 7 while an erase or DMA runs
constexpr uint8_t FLASH_ERASE_START = 0x80; // or-ed with the page number
constexpr uint32_t FLASH_DMA_CHUNK = 32768; // bytes per DMA transfer
constexpr uint32_t FLASH_POLL_INTERVAL_MS = 25;
constexpr int64_t FLASH_POLL_TIMEOUT_MS = 3000;

// Results.
constexpr uint32_t FLASH_OK = 0;
constexpr uint32_t FLASH_ERR_ALLOC = 2;
constexpr uint32_t FLASH_ERR_TIMEOUT = 3;

// Entry point called on every start: runs fw_update and reports its outcome.
uint32_t vendor_afe_upgrade_fw();

// Reads the chip's versions, parses the embedded image, flashes the sections
// that differ, resets the IC and checks the versions again.
uint32_t fw_update();

// Pre-setup, erase and programming of the chosen sections (bit 0 of each
// flag), always in the order code, cx, config.
uint32_t flash_update(fw_file_info record, uint8_t code, uint8_t cfg, uint8_t cx);

// Resets the IC, holds its core, configures SPI4 mode and unlocks the flash.
uint32_t flash_pre_setup();

// Erases the page ranges of the chosen sections.
uint32_t flash_erase(fw_file_info record, uint8_t code, uint8_t cfg, uint8_t cx);

// Erases count pages from first_page (0: nothing to do).
uint32_t flash_erase_pages(uint8_t first_page, uint8_t count);

// Polls the erase control register until its busy bit clears.
uint32_t flash_erase_done();

// Programs length bytes of data at a byte offset of flash through the RAM
// staging buffer and one DMA transfer.
uint32_t fill_flash(uint32_t flash_offset, const uint8_t *data, uint32_t length);

// Polls the DMA status register until its busy bit clears.
uint32_t flash_program_done();
