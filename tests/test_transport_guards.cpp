// The register-access calls refuse lengths and buffers that would read or
// write out of bounds: result 2 with the call's own message, and nothing
// reaches the wire.
#include <climits>
#include <functional>
#include <string>

#include "chip/transport/reg_access.h"
#include "support/fixture.h"

namespace {

struct guard_case {
  const char *name;
  std::function<uint32_t()> call;
  uint32_t result;
  const char *message; // nullptr: nothing logged
};

const uint8_t kCmd[2] = {0xFB, 0x20};
uint8_t g_dest[16];

const guard_case kCases[] = {
    {"read with a negative command length", [] { return quillon_read(kCmd, -1, g_dest, 4); }, 2,
     "quillon_read bad lengths, cmd length = -1, read_count = 4"},
    {"read with a negative count", [] { return quillon_read(kCmd, 1, g_dest, -5); }, 2,
     "quillon_read bad lengths, cmd length = 1, read_count = -5"},
    {"read whose total overflows", [] { return quillon_read(kCmd, 2, g_dest, INT32_MAX); }, 2,
     "quillon_read bad lengths, cmd length = 2, read_count = 2147483647"},
    {"write with a negative length", [] { return quillon_write(kCmd, -3); }, 2,
     "quillon_write bad length, cmd length = -3"},
    {"memory write from NULL", [] { return quillon_write_at(0x20000000, nullptr, 4); }, 2,
     "quillon_write_at source is NULL, count = 4"},
    {"configuration write from NULL", [] { return fw_cfg_write_at(0x0030, nullptr, 1); }, 2,
     "fw_cfg_write_at source is NULL, count = 1"},
    {"memory write too long for one transfer",
     [] { return quillon_write_at(0x20000000, kCmd, 0xFFFFFFF0u); }, 2,
     "quillon_write_at write of 4294967280 bytes is too long"},
    {"memory read too long for one transfer",
     [] { return quillon_read_at(0x20000000, g_dest, 0xFFFFFFF0u); }, 2,
     "quillon_read_at read of 4294967280 bytes is too long"},
    {"chunked write with a negative length",
     [] { return quillon_write_chunk_at(0x00100000, kCmd, -1); }, 2,
     "quillon_write_chunk_at src is not NULL, length = -1"},
    {"chunked write from NULL", [] { return quillon_write_chunk_at(0x00100000, nullptr, 16); }, 2,
     "quillon_write_chunk_at src is NULL, length = 16"},
    {"chunked write of nothing", [] { return quillon_write_chunk_at(0x00100000, nullptr, 0); }, 0,
     nullptr},
};

TEST_F(IoSimTest, BadLengthsAndBuffersAreRefusedBeforeAnyTransfer) {
  for (const auto &c : kCases) {
    SCOPED_TRACE(c.name);
    clear_log();
    sim::clear_recording();
    EXPECT_EQ(c.call(), c.result);
    EXPECT_TRUE(sim::spi_transfers().empty());
    if (c.message != nullptr) {
      EXPECT_TRUE(logged_error(c.message));
    } else {
      EXPECT_TRUE(android_errors().empty());
    }
  }
}

} // namespace
