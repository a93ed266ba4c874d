// SPI framing of the IC's system memory, configuration space and FIFO.
// Results: 0 success, 2 allocation failure or NULL buffer, otherwise the
// device node's code (negative on failure) as a 32-bit value.
#pragma once

#include <cstdint>

constexpr uint8_t SPI_CMD_MEM_READ = 0xFB;
constexpr uint8_t SPI_CMD_MEM_WRITE = 0xFA;
constexpr uint8_t SPI_CMD_CFG_READ = 0xA9;
constexpr uint8_t SPI_CMD_CFG_WRITE = 0xA8;
constexpr uint8_t SPI_CMD_FIFO_READ = 0x87;

constexpr int32_t SPI_WRITE_CHUNK = 16384;
constexpr int32_t SPI_READ_CHUNK = 8192;

// One transfer: cmd_len command bytes, a dummy byte, count bytes read.
uint32_t quillon_read(const uint8_t *cmd, int32_t cmd_len, uint8_t *dest, int32_t count);
// One transfer of exactly len bytes; the received bytes are discarded.
uint32_t quillon_write(const uint8_t *bytes, int32_t len);
uint32_t quillon_read_at(uint32_t address, uint8_t *dest, uint32_t count);
uint32_t quillon_write_at(uint32_t address, const uint8_t *src, uint32_t count);
uint32_t fw_cfg_read_at(uint32_t address, uint8_t *dest, uint32_t count);
uint32_t fw_cfg_write_at(uint32_t address, const uint8_t *src, uint32_t count);
// Writes in transfers of at most 16,384 data bytes.
uint32_t quillon_write_chunk_at(uint32_t address, const uint8_t *src, int32_t length);
// Reads in transfers of at most 8,192 data bytes.
uint32_t quillon_read_chunk_at(uint32_t address, uint8_t *dest, int32_t length);
uint32_t u8ToU32(const uint32_t *src, uint32_t *dst);
void safe_free_char(char **holder);
void safe_free_uchar(uint8_t **holder);
