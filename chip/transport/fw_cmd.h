// The IC's event FIFO, firmware commands with echo, SOS and system reset.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/export.h"

constexpr int EVENT_SIZE = 8;

// Event ids.
constexpr uint8_t EVT_EMPTY = 0x00;
constexpr uint8_t EVT_CONTROLLER_READY = 0x03;
constexpr uint8_t EVT_STATUS = 0x43; // sub-type in byte 1
constexpr uint8_t EVT_SUB_ECHO = 0x01;
constexpr uint8_t EVT_SUB_FRAME_STATUS = 0x09;
constexpr uint8_t EVT_FATAL = 0xF2;
constexpr uint8_t EVT_ERROR = 0xF3;
constexpr uint8_t EVT_IGNORED = 0xFF;

constexpr uint32_t ERROR_DUMP_ADDRESS = 0x2001EF80;
constexpr uint32_t ERROR_DUMP_SIZE = 128;

// fifo_event_poll modes.
constexpr int32_t POLL_CONTROLLER_READY = 0;
constexpr int32_t POLL_ECHO = 1;
constexpr int32_t POLL_FRAME_STATUS = 2;

// Results of this layer.
constexpr uint32_t FW_OK = 0;
constexpr uint32_t FW_ERR_ALLOC = 2;
constexpr uint32_t FW_ERR_FAILED = 3;
constexpr uint32_t FW_ERR_TIMEOUT = 5;
constexpr uint32_t FW_ERR_ECHO_WITH_ERRORS = 6;

// system_reset flag: wait for the controller-ready event.
constexpr uint32_t RESET_WAIT_READY = 1;

// Further attempts fw_write makes after the first.
AFEHAL_EXPORT const int32_t max_retry;

// 1 when the IC stopped answering and must be reset.
extern std::atomic<uint8_t> sos_flag;

// Reads one event; 0, the SPI code, or 5 after a fatal event.
uint32_t pop_fifo_event(uint8_t *event, uint32_t *error_count);
// Waits for an event: 0 found, 5 time-out or fatal, 6 echo after errors.
uint32_t fifo_event_poll(uint8_t *buf, int32_t match_len, int32_t mode, uint32_t timeout_ms);
// Sends a command and waits for its echo; two attempts, then SOS.
uint32_t fw_write(const uint8_t *cmd, int32_t len, uint32_t timeout_ms);
uint32_t clear_fifo();     // 0 or 3
uint32_t zeno_sense_on();  // fw_write's result
uint32_t zeno_sense_off(); // fw_write's result
uint32_t is_fw_alive();    // 1 alive, 0 dead
uint32_t system_reset(uint32_t flags);
void set_sos_flag(uint8_t value);
