// Host-data blocks published by the firmware, and the chip-info block.
#pragma once

#include <cstdint>

constexpr uint32_t HOST_DATA_ADDRESS = 0x20010000;
constexpr uint8_t HOST_DATA_SIGNATURE = 0xA5;
constexpr uint8_t HOST_DATA_CHIP_INFO = 0x01;
constexpr uint32_t CHIP_INFO_SIZE = 250;

// The chip-info block as the host keeps it.
struct chip_info {
  uint16_t load_count;
  uint8_t id;
  uint8_t signature;
  uint16_t api_ver_third;
  uint8_t api_ver_second;
  uint8_t api_ver_first;
  uint16_t chip0_ver;
  uint16_t chip0_id;
  uint16_t chip1_ver;
  uint16_t chip1_id;
  uint16_t fw_ver;
  uint16_t svn_rev;
  uint16_t cfg_ver;
  uint16_t cfg_id;
  uint16_t cx_cfg_ver;
  uint16_t cx_cfg_id;
  uint8_t afe_ver_cfg;
  uint8_t cx_ver;
  uint8_t panel_cfg;
  uint32_t ext_id_low;
  uint32_t ext_id_high;
  uint8_t force_len;
  uint8_t sense_len;
  uint16_t ms_raw_addr;
};

// Kept current by start, autotune and the firmware update.
extern chip_info info;
// Filled by the inspection.
extern chip_info sys_info;

// 0 loaded, 5 time-out, or the SPI code.
uint32_t request_host_data(uint8_t type, int64_t timeout_ms);
// 0, or the code of the failed step (the record is left cleared).
uint32_t read_chip_info(chip_info *record);
