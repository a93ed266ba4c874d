#include "chip/transport/reg_access.h"

#include <cstring>

#include "platform/heap.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

namespace {

// One descriptor for reads and one for writes; never shared between them,
// nor between threads: the control thread's calls and the frame thread's
// queued commands both make transfers, and a descriptor shared by the two
// would have its buffers freed under the other's transfer.
thread_local ioctrl_spi_xfer read_xfer{};
thread_local ioctrl_spi_xfer write_xfer{};

constexpr int32_t kMemHeaderLen = 5; // opcode + 32-bit address
constexpr int32_t kCfgHeaderLen = 3; // opcode + 16-bit address
constexpr size_t kWriteChunkBufSize = kMemHeaderLen + SPI_WRITE_CHUNK;
// A chunk is received from the second byte on: the first byte is never used.
constexpr size_t kReadChunkBufSize = SPI_READ_CHUNK + 1;

const char *not_if(const void *ptr) {
  return ptr != nullptr ? " not" : "";
}

// Holds the two per-call buffers of a descriptor; on every way out it frees
// them and leaves the descriptor pointing at nothing.
class xfer_buffers {
public:
  explicit xfer_buffers(ioctrl_spi_xfer &xfer) : xfer_(xfer) {}
  xfer_buffers(const xfer_buffers &) = delete;
  xfer_buffers &operator=(const xfer_buffers &) = delete;
  ~xfer_buffers() {
    heap_free(xfer_.tx_buf);
    heap_free(xfer_.rx_buf);
    xfer_.tx_buf = nullptr;
    xfer_.rx_buf = nullptr;
  }

private:
  ioctrl_spi_xfer &xfer_;
};

// Allocates both buffers of total bytes each, filled with 0xFF so that every
// byte the host does not drive is clocked out as 0xFF. False when either
// allocation failed (whatever was taken is freed by the holder).
bool alloc_xfer(ioctrl_spi_xfer &xfer, uint32_t total) {
  xfer.tx_buf = static_cast<uint8_t *>(heap_alloc(total));
  if (xfer.tx_buf == nullptr) {
    return false;
  }
  xfer.rx_buf = static_cast<uint8_t *>(heap_alloc(total));
  if (xfer.rx_buf == nullptr) {
    return false;
  }
  xfer.len = total;
  memset(xfer.tx_buf, 0xFF, total);
  memset(xfer.rx_buf, 0xFF, total);
  return true;
}

void put_mem_header(uint8_t *out, uint8_t opcode, uint32_t address) {
  out[0] = opcode;
  out[1] = static_cast<uint8_t>(address >> 24);
  out[2] = static_cast<uint8_t>(address >> 16);
  out[3] = static_cast<uint8_t>(address >> 8);
  out[4] = static_cast<uint8_t>(address);
}

void put_cfg_header(uint8_t *out, uint8_t opcode, uint32_t address) {
  out[0] = opcode;
  out[1] = static_cast<uint8_t>(address >> 8);
  out[2] = static_cast<uint8_t>(address);
}

// Builds header + data in one block and writes it; 2 when the block cannot
// be had or the sizes do not fit one transfer.
uint32_t write_framed(const uint8_t *header, int32_t header_len, const uint8_t *src, uint32_t count,
                      const char *tag) {
  if (count > static_cast<uint32_t>(INT32_MAX - header_len)) {
    log_error(tag, "%s write of %u bytes is too long", tag, count);
    return 2;
  }
  if (src == nullptr && count > 0) {
    log_error(tag, "%s source is NULL, count = %u", tag, count);
    return 2;
  }
  const int32_t total = header_len + static_cast<int32_t>(count);
  heap_buffer<uint8_t> buf(static_cast<size_t>(total));
  if (!buf) {
    return 2;
  }
  memcpy(buf.get(), header, static_cast<size_t>(header_len));
  if (count > 0) {
    memcpy(buf.get() + header_len, src, count);
  }
  return quillon_write(buf.get(), total);
}

uint32_t read_counted(const uint8_t *cmd, int32_t cmd_len, uint8_t *dest, uint32_t count,
                      const char *tag) {
  if (count > static_cast<uint32_t>(INT32_MAX - cmd_len - 1)) {
    log_error(tag, "%s read of %u bytes is too long", tag, count);
    return 2;
  }
  return quillon_read(cmd, cmd_len, dest, static_cast<int32_t>(count));
}

} // namespace

uint32_t quillon_read(const uint8_t *cmd, int32_t cmd_len, uint8_t *dest, int32_t count) {
  if (cmd_len < 0 || count < 0 || cmd_len > INT32_MAX - 1 - count) {
    log_error("quillon_read", "quillon_read bad lengths, cmd length = %d, read_count = %d", cmd_len,
              count);
    return 2;
  }
  const int32_t total = cmd_len + count + 1; // one dummy byte between command and data
  xfer_buffers hold(read_xfer);
  if (!alloc_xfer(read_xfer, static_cast<uint32_t>(total))) {
    return 2;
  }
  if (cmd == nullptr || read_xfer.tx_buf == nullptr) {
    log_error("quillon_read", "quillon_read tx buff is%s NULL, cmd is%s NULL, cmd length = %d",
              not_if(read_xfer.tx_buf), not_if(cmd), cmd_len);
    return 2;
  }
  memcpy(read_xfer.tx_buf, cmd, static_cast<size_t>(cmd_len));
  const int32_t result = ioctrl_spi_sync(&read_xfer, 1);
  if (result != 0) {
    log_error("quillon_read", "quillon_read ioctrl_spi_sync failed %d", result);
    return static_cast<uint32_t>(result);
  }
  if (read_xfer.rx_buf == nullptr) {
    // Cannot happen after a successful allocation; kept as the firmware
    // tools have always behaved.
    log_error("quillon_read", "quillon_read rx buff is NULL");
    return 0;
  }
  if (dest == nullptr) {
    log_error("quillon_read",
              "quillon_read rx buff is%s NULL, read_buff is%s NULL, read_count = %d, "
              "buff_size = %d",
              not_if(read_xfer.rx_buf), not_if(dest), count, total);
    return 2;
  }
  if (count > 0) {
    memcpy(dest, read_xfer.rx_buf + cmd_len + 1, static_cast<size_t>(count));
  }
  return 0;
}

uint32_t quillon_write(const uint8_t *bytes, int32_t len) {
  if (len < 0) {
    log_error("quillon_write", "quillon_write bad length, cmd length = %d", len);
    return 2;
  }
  xfer_buffers hold(write_xfer);
  if (!alloc_xfer(write_xfer, static_cast<uint32_t>(len))) {
    return 2;
  }
  if (bytes == nullptr || write_xfer.tx_buf == nullptr) {
    log_error("quillon_write", "quillon_write tx buff is%s NULL, cmd is%s NULL, cmd length = %d",
              not_if(write_xfer.tx_buf), not_if(bytes), len);
    return 2;
  }
  memcpy(write_xfer.tx_buf, bytes, static_cast<size_t>(len));
  const int32_t result = ioctrl_spi_sync(&write_xfer, 1);
  if (result != 0) {
    log_error("quillon_write", "quillon_write ioctrl_spi_sync failed %d", result);
    return static_cast<uint32_t>(result);
  }
  if (write_xfer.rx_buf == nullptr) {
    // Unreachable after a successful allocation, as in quillon_read.
    log_error("quillon_write", "quillon_write rx buff is NULL");
  }
  return 0;
}

uint32_t quillon_read_at(uint32_t address, uint8_t *dest, uint32_t count) {
  uint8_t cmd[kMemHeaderLen];
  put_mem_header(cmd, SPI_CMD_MEM_READ, address);
  return read_counted(cmd, kMemHeaderLen, dest, count, "quillon_read_at");
}

uint32_t quillon_write_at(uint32_t address, const uint8_t *src, uint32_t count) {
  uint8_t header[kMemHeaderLen];
  put_mem_header(header, SPI_CMD_MEM_WRITE, address);
  return write_framed(header, kMemHeaderLen, src, count, "quillon_write_at");
}

uint32_t fw_cfg_read_at(uint32_t address, uint8_t *dest, uint32_t count) {
  uint8_t cmd[kCfgHeaderLen];
  put_cfg_header(cmd, SPI_CMD_CFG_READ, address);
  return read_counted(cmd, kCfgHeaderLen, dest, count, "fw_cfg_read_at");
}

uint32_t fw_cfg_write_at(uint32_t address, const uint8_t *src, uint32_t count) {
  uint8_t header[kCfgHeaderLen];
  put_cfg_header(header, SPI_CMD_CFG_WRITE, address);
  return write_framed(header, kCfgHeaderLen, src, count, "fw_cfg_write_at");
}

uint32_t quillon_write_chunk_at(uint32_t address, const uint8_t *src, int32_t length) {
  heap_buffer<uint8_t> buf(kWriteChunkBufSize);
  if (!buf) {
    return 2;
  }
  if (length == 0) {
    return 0;
  }
  // A negative length would walk off the end of the source.
  if (length < 0 || src == nullptr) {
    log_error("quillon_write_chunk_at", "quillon_write_chunk_at src is%s NULL, length = %d",
              not_if(src), length);
    return 2;
  }
  int32_t remaining = length;
  size_t offset = 0;
  while (remaining > 0) {
    const int32_t chunk = remaining < SPI_WRITE_CHUNK ? remaining : SPI_WRITE_CHUNK;
    put_mem_header(buf.get(), SPI_CMD_MEM_WRITE, address);
    memcpy(buf.get() + kMemHeaderLen, src + offset, static_cast<size_t>(chunk));
    const uint32_t result = quillon_write(buf.get(), chunk + kMemHeaderLen);
    if (result != 0) {
      return result;
    }
    address += static_cast<uint32_t>(chunk);
    offset += static_cast<size_t>(chunk);
    remaining -= chunk;
  }
  return 0;
}

uint32_t quillon_read_chunk_at(uint32_t address, uint8_t *dest, int32_t length) {
  heap_buffer<uint8_t> buf(kReadChunkBufSize);
  if (!buf) {
    return 2;
  }
  if (length == 0) {
    return 0;
  }
  if (length < 0 || dest == nullptr) {
    log_error("quillon_read_chunk_at", "quillon_read_chunk_at dest is%s NULL, length = %d",
              not_if(dest), length);
    return 2;
  }
  int32_t remaining = length;
  size_t offset = 0;
  while (remaining > 0) {
    const int32_t chunk = remaining < SPI_READ_CHUNK ? remaining : SPI_READ_CHUNK;
    uint8_t cmd[kMemHeaderLen];
    put_mem_header(cmd, SPI_CMD_MEM_READ, address);
    const uint32_t result = quillon_read(cmd, kMemHeaderLen, buf.get() + 1, chunk);
    if (result != 0) {
      return result;
    }
    memcpy(dest + offset, buf.get() + 1, static_cast<size_t>(chunk));
    address += static_cast<uint32_t>(chunk);
    offset += static_cast<size_t>(chunk);
    remaining -= chunk;
  }
  return 0;
}

uint32_t u8ToU32(const uint32_t *src, uint32_t *dst) {
  memcpy(dst, src, sizeof *dst);
  return 0;
}

void safe_free_char(char **holder) {
  if (holder != nullptr && *holder != nullptr) {
    heap_free(*holder);
    *holder = nullptr;
  }
}

void safe_free_uchar(uint8_t **holder) {
  if (holder != nullptr && *holder != nullptr) {
    heap_free(*holder);
    *holder = nullptr;
  }
}
