// The inspection's shared checks: orientation and its printout, the limit
// checks at their bounds, the adjacency maps, and the memory pattern test
// as the IC sees it.
#include <cerrno>
#include <string>
#include <vector>

#include "chip/inspect/checks.h"
#include "support/fixture.h"

namespace {

using Checks = SimTest;
using RamCheck = IoSimTest;

// Everything the frame print wrote, in one string.
std::string printed() {
  std::string out;
  for (const std::string &line : log_lines()) {
    out += line;
  }
  return out;
}

std::vector<uint16_t> as_u16(std::initializer_list<int> values) {
  std::vector<uint16_t> out;
  for (int v : values) {
    out.push_back(static_cast<uint16_t>(v));
  }
  return out;
}

// 2 x 3 source: rows {1, -2, 3} and {4, 5, -6}.
const int16_t kSource[6] = {1, -2, 3, 4, 5, -6};

TEST_F(Checks, EightOrientationsOfATwoByThreeFrame) {
  struct orientation_case {
    frame_orientation o;
    std::vector<uint16_t> out;
    const char *print;
  };
  const orientation_case cases[] = {
      {{false, false, false}, as_u16({1, -2, 3, 4, 5, -6}), "1 -2 3 \n4 5 -6 \n"},
      {{false, true, false}, as_u16({3, -2, 1, -6, 5, 4}), "3 -2 1 \n-6 5 4 \n"},
      {{true, false, false}, as_u16({4, 5, -6, 1, -2, 3}), "4 5 -6 \n1 -2 3 \n"},
      {{true, true, false}, as_u16({-6, 5, 4, 3, -2, 1}), "-6 5 4 \n3 -2 1 \n"},
      {{false, false, true}, as_u16({1, 4, -2, 5, 3, -6}), "1 4 \n-2 5 \n3 -6 \n"},
      {{false, true, true}, as_u16({3, -6, -2, 5, 1, 4}), "3 -6 \n-2 5 \n1 4 \n"},
      {{true, false, true}, as_u16({4, 1, 5, -2, -6, 3}), "4 1 \n5 -2 \n-6 3 \n"},
      {{true, true, true}, as_u16({-6, 3, 5, -2, 4, 1}), "-6 3 \n5 -2 \n4 1 \n"},
  };
  for (const orientation_case &c : cases) {
    SCOPED_TRACE(testing::Message()
                 << "F " << c.o.force_reverse << " S " << c.o.sense_reverse << " W " << c.o.swap);
    clear_log();
    std::vector<uint16_t> dest(8, 0xBEEF);
    reorient_frame(kSource, dest.data(), 2, 3, c.o);
    EXPECT_EQ(std::vector<uint16_t>(dest.begin(), dest.begin() + 6), c.out);
    EXPECT_EQ(dest[6], 0xBEEF);
    EXPECT_EQ(dest[7], 0xBEEF);
    EXPECT_EQ(printed(), c.print);
  }
}

// A vector comes out on one line; the force vector turns with F, the sense
// vector with S, whatever W says.
TEST_F(Checks, VectorsPrintOnOneLineAndTurnWithTheirOwnSwitch) {
  const int16_t v[3] = {7, 8, -9};
  struct vector_case {
    uint8_t rows, cols;
    frame_orientation o;
    std::vector<uint16_t> out;
  };
  const vector_case cases[] = {
      {3, 1, {true, false, false}, as_u16({-9, 8, 7})},
      {3, 1, {true, false, true}, as_u16({-9, 8, 7})},
      {3, 1, {false, true, true}, as_u16({7, 8, -9})},
      {1, 3, {false, true, false}, as_u16({-9, 8, 7})},
      {1, 3, {true, false, true}, as_u16({7, 8, -9})},
      {1, 3, {false, true, true}, as_u16({-9, 8, 7})},
  };
  for (const vector_case &c : cases) {
    SCOPED_TRACE(testing::Message()
                 << int{c.rows} << " x " << int{c.cols} << " F " << c.o.force_reverse << " S "
                 << c.o.sense_reverse << " W " << c.o.swap);
    clear_log();
    std::vector<uint16_t> dest(3, 0);
    reorient_frame(v, dest.data(), c.rows, c.cols, c.o);
    EXPECT_EQ(dest, c.out);
    const std::string text = printed();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    EXPECT_EQ(text.back(), '\n');
  }
  // Nothing to copy: only the closing newline of a one-entry row remains.
  clear_log();
  uint16_t untouched = 0xBEEF;
  reorient_frame(v, &untouched, 0, 1, {false, false, false});
  EXPECT_EQ(untouched, 0xBEEF);
  EXPECT_EQ(printed(), "\n");
}

// This chip reverses both axes and swaps: output row 0 is source column 2
// read from the last row up.
TEST_F(Checks, SwapOrientationOutputUsesTheChipsSwitches) {
  std::vector<uint16_t> dest(6, 0);
  swap_orientation_output(kSource, dest.data(), 2, 3);
  EXPECT_EQ(dest, as_u16({-6, 3, 5, -2, 4, 1}));
  EXPECT_EQ(printed(), "-6 3 \n5 -2 \n4 1 \n");
}

TEST_F(Checks, MinMaxBoundsAreInclusive) {
  // Row 0 sits on the bounds; row 1 is one outside each.
  const int16_t frame[4] = {100, 200, 99, 201};
  const int32_t lo[4] = {100, 100, 100, 100};
  const int32_t hi[4] = {200, 200, 200, 200};
  EXPECT_EQ(check_min_max(frame, 1, 2, lo, hi), 0u);
  EXPECT_EQ(check_min_max(frame, 2, 2, lo, hi), 2u);
  EXPECT_TRUE(logged_error("check_min_max", " node[1,0] = 99, Exceeding the limit [100, 200]"));
  EXPECT_TRUE(logged_error("check_min_max", " node[1,1] = 201, Exceeding the limit [100, 200]"));
  EXPECT_EQ(count_logged_starting(1, " node["), 2);
  // Limits are indexed with the frame's own column count.
  const int32_t wide_lo[4] = {0, 0, 300, 0};
  EXPECT_EQ(check_min_max(frame, 2, 2, wide_lo, hi), 2u);
  EXPECT_TRUE(logged_error(" node[1,0] = 99, Exceeding the limit [300, 200]"));
  EXPECT_EQ(check_min_max(frame, 0, 2, lo, hi), 0u);
  EXPECT_EQ(check_min_max(frame, 2, 0, lo, hi), 0u);
}

TEST_F(Checks, AdjacencyLimitIsStrictAndSigned) {
  const int16_t frame[3] = {1500, 1501, -40};
  const int32_t limit[3] = {1500, 1500, 0};
  EXPECT_EQ(check_adj_map(frame, 1, 3, limit), 1u);
  EXPECT_TRUE(logged_error("check_adj_map", "Node[0,1] = 1501 exceed limit > 1500"));
  EXPECT_EQ(count_logged_starting(1, "Node["), 1);
}

TEST_F(Checks, AdjacencyMaps) {
  // 2 x 3 frame with the widest differences a signed frame can hold.
  const int16_t frame[6] = {-30000, 30000, 29990, 5, -5, 29990};
  std::vector<uint16_t> hor(5, 0xBEEF);
  EXPECT_EQ(compute_adj_hor(frame, 2, 3, hor.data()), 0u);
  EXPECT_EQ(hor, as_u16({60000, 10, 10, 29995, 0xBEEF}));
  EXPECT_TRUE(logged_error("compute_adj_hor", "Computing Adjacent Horizontal frame.."));

  std::vector<uint16_t> ver(4, 0xBEEF);
  EXPECT_EQ(compute_adj_ver(frame, 2, 3, ver.data()), 0u);
  EXPECT_EQ(ver, as_u16({30005, 30005, 0, 0xBEEF}));
  EXPECT_TRUE(logged_error("compute_adj_ver", "Computing Adjacent Vertical frame.."));

  // One column has no horizontal pairs, one row no vertical ones.
  uint16_t none = 0xBEEF;
  EXPECT_EQ(compute_adj_hor(frame, 6, 1, &none), 0u);
  EXPECT_EQ(compute_adj_ver(frame, 1, 6, &none), 0u);
  EXPECT_EQ(none, 0xBEEF);
}

TEST_F(RamCheck, PatternIsWrittenAndReadBack) {
  constexpr uint32_t kDram = 0x00100000;
  sim::mem_write(kDram, std::vector<uint8_t>(0x8000, 0x00));
  EXPECT_EQ(check_ram(kDram, 0x8000, 0x1A5), 0u); // only the low byte is the pattern
  EXPECT_EQ(sim::mem_read(kDram, 0x8000), std::vector<uint8_t>(0x8000, 0xA5));
  EXPECT_TRUE(android_errors().empty());
}

// The 8 bytes at 0x20000000 always read as the chip id: a region that starts
// two bytes before them reads back wrong at its third byte.
TEST_F(RamCheck, FirstMismatchOnlyWithItsAddress) {
  EXPECT_EQ(check_ram(0x1FFFFFFE, 8, 0xA5), 0x40u);
  EXPECT_TRUE(logged_error("check_ram", "Data read from 20000000 is 36, while expecting A5"));
  EXPECT_EQ(count_logged_starting(1, "Data read from"), 1);
}

TEST_F(RamCheck, TransferErrors) {
  sim::fail_spi_transfer(1, EIO);
  EXPECT_EQ(check_ram(0x00100000, 64, 0x5A), 1u);
  EXPECT_TRUE(logged_error("check_ram", "Error writing data to memory.."));
  EXPECT_FALSE(mentioned("Error reading data from memory.."));

  clear_log();
  sim::fail_spi_transfer(2, EIO);
  EXPECT_EQ(check_ram(0x00100000, 64, 0x5A), 1u);
  EXPECT_TRUE(logged_error("check_ram", "Error reading data from memory.."));
  EXPECT_FALSE(mentioned("Error writing data to memory.."));

  // Without scratch memory nothing is sent.
  sim::clear_recording();
  sim::fail_allocation(1);
  EXPECT_EQ(check_ram(0x00100000, 64, 0x5A), 1u);
  sim::fail_allocation(0);
  EXPECT_TRUE(logged_error("check_ram", "Error allocating memory for the memory check"));
  EXPECT_TRUE(sim::spi_transfers().empty());
}

} // namespace
