// The inspection's shared checks: orientation and its printout, the limit
// checks at their bounds, the adjacency maps, and the memory pattern test
// as the IC sees it.
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "chip/inspect/checks.h"
#include "support/fixture.h"

namespace {

using Checks = SimTest;
using RamCheck = IoSimTest;
using u16s = std::vector<uint16_t>;

// Everything the frame print wrote, in one string.
std::string printed() {
  std::string out;
  for (const std::string &line : log_lines()) {
    out += line;
  }
  return out;
}

u16s as_u16(std::initializer_list<int> values) {
  return u16s(values.begin(), values.end());
}

// Each case: a frame of rows x cols turned by the three switches; the rest
// of the destination stays untouched.
TEST_F(Checks, OrientationsOfFramesAndVectorsAndTheirPrintout) {
  const int16_t frame[6] = {1, -2, 3, 4, 5, -6}; // rows {1, -2, 3} and {4, 5, -6}
  const int16_t vec[3] = {7, 8, -9};
  const struct {
    const int16_t *source;
    uint8_t rows, cols;
    frame_orientation o;
    u16s out;
    const char *print;
  } cases[] = {
      {frame, 2, 3, {false, false, false}, as_u16({1, -2, 3, 4, 5, -6}), "1 -2 3 \n4 5 -6 \n"},
      {frame, 2, 3, {false, true, false}, as_u16({3, -2, 1, -6, 5, 4}), "3 -2 1 \n-6 5 4 \n"},
      {frame, 2, 3, {true, false, false}, as_u16({4, 5, -6, 1, -2, 3}), "4 5 -6 \n1 -2 3 \n"},
      {frame, 2, 3, {true, true, false}, as_u16({-6, 5, 4, 3, -2, 1}), "-6 5 4 \n3 -2 1 \n"},
      {frame, 2, 3, {false, false, true}, as_u16({1, 4, -2, 5, 3, -6}), "1 4 \n-2 5 \n3 -6 \n"},
      {frame, 2, 3, {false, true, true}, as_u16({3, -6, -2, 5, 1, 4}), "3 -6 \n-2 5 \n1 4 \n"},
      {frame, 2, 3, {true, false, true}, as_u16({4, 1, 5, -2, -6, 3}), "4 1 \n5 -2 \n-6 3 \n"},
      {frame, 2, 3, {true, true, true}, as_u16({-6, 3, 5, -2, 4, 1}), "-6 3 \n5 -2 \n4 1 \n"},
      // A vector comes out on one line; the force vector turns with F, the
      // sense vector with S, whatever W says.
      {vec, 3, 1, {true, false, false}, as_u16({-9, 8, 7}), "-9 8 7 \n"},
      {vec, 3, 1, {true, false, true}, as_u16({-9, 8, 7}), "-9 8 7 \n"},
      {vec, 3, 1, {false, true, true}, as_u16({7, 8, -9}), "7 8 -9 \n"},
      {vec, 1, 3, {false, true, false}, as_u16({-9, 8, 7}), "-9 8 7 \n"},
      {vec, 1, 3, {true, false, true}, as_u16({7, 8, -9}), "7 8 -9 \n"},
      {vec, 1, 3, {false, true, true}, as_u16({-9, 8, 7}), "-9 8 7 \n"},
      // Nothing to copy: only the closing newline of a one-entry row remains.
      {vec, 0, 1, {false, false, false}, {}, "\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message()
                 << int{c.rows} << " x " << int{c.cols} << " F " << c.o.force_reverse << " S "
                 << c.o.sense_reverse << " W " << c.o.swap);
    clear_log();
    u16s dest(8, 0xBEEF);
    reorient_frame(c.source, dest.data(), c.rows, c.cols, c.o);
    EXPECT_EQ(u16s(dest.begin(), dest.begin() + static_cast<long>(c.out.size())), c.out);
    EXPECT_EQ(std::count(dest.begin(), dest.end(), 0xBEEF), 8 - static_cast<long>(c.out.size()));
    EXPECT_EQ(printed(), c.print);
  }
  // This chip reverses both axes and swaps.
  clear_log();
  u16s dest(6, 0);
  swap_orientation_output(frame, dest.data(), 2, 3);
  EXPECT_EQ(dest, as_u16({-6, 3, 5, -2, 4, 1}));
  EXPECT_EQ(printed(), "-6 3 \n5 -2 \n4 1 \n");
}

TEST_F(Checks, MinMaxBoundsAreInclusiveAndTheAdjacencyLimitIsStrict) {
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

  const int16_t adj[3] = {1500, 1501, -40};
  const int32_t limit[3] = {1500, 1500, 0};
  EXPECT_EQ(check_adj_map(adj, 1, 3, limit), 1u);
  EXPECT_TRUE(logged_error("check_adj_map", "Node[0,1] = 1501 exceed limit > 1500"));
  EXPECT_EQ(count_logged_starting(1, "Node["), 1);
}

TEST_F(Checks, AdjacencyMaps) {
  // 2 x 3 frame with the widest differences a signed frame can hold.
  const int16_t frame[6] = {-30000, 30000, 29990, 5, -5, 29990};
  u16s hor(5, 0xBEEF), ver(4, 0xBEEF);
  EXPECT_EQ(compute_adj_hor(frame, 2, 3, hor.data()), 0u);
  EXPECT_EQ(hor, as_u16({60000, 10, 10, 29995, 0xBEEF}));
  EXPECT_TRUE(logged_error("compute_adj_hor", "Computing Adjacent Horizontal frame.."));
  EXPECT_EQ(compute_adj_ver(frame, 2, 3, ver.data()), 0u);
  EXPECT_EQ(ver, as_u16({30005, 30005, 0, 0xBEEF}));
  EXPECT_TRUE(logged_error("compute_adj_ver", "Computing Adjacent Vertical frame.."));
  // One column has no horizontal pairs, one row no vertical ones.
  uint16_t none = 0xBEEF;
  EXPECT_EQ(compute_adj_hor(frame, 6, 1, &none), 0u);
  EXPECT_EQ(compute_adj_ver(frame, 1, 6, &none), 0u);
  EXPECT_EQ(none, 0xBEEF);
}

TEST_F(RamCheck, PatternIsWrittenAndReadBackAndTheFirstMismatchReported) {
  constexpr uint32_t kDram = 0x00100000;
  sim::mem_write(kDram, std::vector<uint8_t>(0x8000, 0x00));
  EXPECT_EQ(check_ram(kDram, 0x8000, 0x1A5), 0u); // only the low byte is the pattern
  EXPECT_EQ(sim::mem_read(kDram, 0x8000), std::vector<uint8_t>(0x8000, 0xA5));
  EXPECT_TRUE(android_errors().empty());
  // The 8 bytes at 0x20000000 always read as the chip id: a region that
  // starts two bytes before them reads back wrong at its third byte.
  EXPECT_EQ(check_ram(0x1FFFFFFE, 8, 0xA5), 0x40u);
  EXPECT_TRUE(logged_error("check_ram", "Data read from 20000000 is 36, while expecting A5"));
  EXPECT_EQ(count_logged_starting(1, "Data read from"), 1);

  // The write, the read, and the scratch memory failing; without the
  // memory nothing is sent.
  const struct {
    int transfer, allocation;
    const char *message;
  } failures[] = {{1, 0, "Error writing data to memory.."},
                  {2, 0, "Error reading data from memory.."},
                  {0, 1, "Error allocating memory for the memory check"}};
  for (const auto &f : failures) {
    SCOPED_TRACE(f.message);
    clear_log();
    sim::clear_recording();
    if (f.transfer > 0) {
      sim::fail_spi_transfer(f.transfer, EIO);
    }
    sim::fail_allocation(f.allocation);
    EXPECT_EQ(check_ram(kDram, 64, 0x5A), 1u);
    sim::fail_allocation(0);
    EXPECT_TRUE(logged_error("check_ram", f.message));
    for (const auto &other : failures) {
      EXPECT_EQ(mentioned(other.message), &other == &f) << other.message;
    }
    // Only the transfers before the failing one were made.
    EXPECT_EQ(sim::spi_transfers().size(), static_cast<size_t>(std::max(f.transfer - 1, 0)));
  }
}

} // namespace
