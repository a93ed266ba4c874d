// afehal-tool inspect: the reading of a run from the library's log, the
// mapping of failing nodes into the result buffers, and the report of a
// simulated failing panel.
#include <gtest/gtest.h>

#ifdef AFEHAL_HAVE_TOOL_CORE

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "chip/inspect/checks.h"
#include "tools/inspect.h"
#include "tools/tool.h"

namespace {

using tool::failing_node;
using tool::inspect_result;
using tool::node_kind;
using tool::verdict;

inspect_result read_log(const std::vector<std::string> &messages) {
  inspect_result result;
  tool::run_log_reader reader(result);
  for (const std::string &m : messages) {
    reader.message(m);
  }
  return result;
}

TEST(InspectLog, NodeMessagesOfBothChecksParse) {
  const auto min_max =
      tool::parse_node_message(" node[3,12] = -300, Exceeding the limit [-20, 4500]");
  ASSERT_TRUE(min_max);
  EXPECT_EQ(std::tie(min_max->force, min_max->sense, min_max->value, min_max->maximum),
            std::make_tuple(3, 12, -300, 4500));
  EXPECT_EQ(min_max->minimum, -20);
  const auto adj = tool::parse_node_message("Node[0,33] = 151 exceed limit > 150");
  ASSERT_TRUE(adj);
  EXPECT_EQ(std::tie(adj->force, adj->sense, adj->value, adj->maximum),
            std::make_tuple(0, 33, 151, 150));
  EXPECT_FALSE(adj->minimum);
  EXPECT_FALSE(tool::parse_node_message("Node[0,33] = 151"));
  EXPECT_FALSE(tool::parse_node_message("ITO RAW MIN MAX TEST FAIL"));
}

// A dead firmware's first attempt is forgotten; CX nodes belong to the check
// whose verdict follows them, self channels by their one non-zero coordinate.
// A set-up error stops the run; a reset inside a test does not.
TEST(InspectLog, RetriesAndCxChecksAttributeNodesToTheRightTest) {
  const inspect_result r = read_log({
      "Production test starting",
      "SRAM test passed",
      "ITO Check Command...",
      " node[1,1] = 5, Exceeding the limit [10, 20]",
      "Retry ITO test",
      " node[2,3] = 30, Exceeding the limit [10, 20]",
      "ITO test failed 8",
      "Node[4,10] = 811 exceed limit > 150",
      "Noise data test failed 4",
      "Node[2,32] = 31001 exceed limit > 30000",
      "Mutual Lowpower Total CX FAIL",
      "Self Force Detect Total IX OK!!",
      "Node[0,6] = 400 exceed limit > 300",
      "Self Sense Detect Total IX FAIL",
      "Node[7,0] = 401 exceed limit > 300",
      "Self Force Total IX FAIL",
      "Self Sense Total IX OK!!",
      "CX data test failed 128",
  });
  EXPECT_TRUE(r.ran);
  EXPECT_EQ(r.sram.result, verdict::passed);
  EXPECT_EQ(std::tie(r.ito.result, r.ito.code, r.ito.retries),
            std::make_tuple(verdict::failed, 8, 1));
  ASSERT_EQ(r.ito.nodes.size(), 1u);
  EXPECT_EQ(r.ito.nodes[0].force, 2);
  ASSERT_EQ(r.noise.nodes.size(), 1u);
  EXPECT_EQ(r.noise.code, 4);
  ASSERT_EQ(r.cx.nodes.size(), 3u);
  EXPECT_EQ(r.cx.code, 128);
  const auto &cx = r.cx.nodes;
  EXPECT_EQ(std::tie(cx[0].kind, cx[0].check),
            std::make_tuple(node_kind::mutual, "Mutual Lowpower Total CX change"));
  EXPECT_EQ(std::tie(cx[1].kind, cx[1].sense, cx[1].check),
            std::make_tuple(node_kind::sense_channel, 6, "Self Sense Detect Total IX change"));
  EXPECT_EQ(std::tie(cx[2].kind, cx[2].force), std::make_tuple(node_kind::force_channel, 7));

  const inspect_result setup = read_log({"Production test starting", "SRAM test passed",
                                         "Clearing FIFO events..", "Error clearing fifo"});
  EXPECT_EQ(setup.setup_error, "Error clearing fifo");
  EXPECT_EQ(setup.ito.result, verdict::not_run);
  const inspect_result retry =
      read_log({"Production test starting", "SRAM test passed", "ITO Check Command...",
                "Error while system resetting", "ITO test failed 1"});
  EXPECT_EQ(retry.setup_error, "");
  EXPECT_EQ(retry.ito.detail, "Error while system resetting");
}

// The tool's positions agree with what the library's re-orientation writes,
// for every combination of the three switches.
TEST(InspectLayout, GridAndLinePositionsMatchTheLibrarysOrientation) {
  constexpr uint32_t kForce = 5;
  constexpr uint32_t kSense = 7;
  std::vector<int16_t> mutual(kForce * kSense), force(kForce), sense(kSense);
  std::iota(mutual.begin(), mutual.end(), 100);
  std::iota(force.begin(), force.end(), 0);
  std::iota(sense.begin(), sense.end(), 50);
  for (int bits = 0; bits < 8; ++bits) {
    const frame_orientation o{(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0};
    SCOPED_TRACE("orientation " + std::to_string(bits));
    const tool::panel_layout layout{kForce, kSense, o};
    std::vector<uint16_t> grid(mutual.size());
    reorient_frame(mutual.data(), grid.data(), kForce, kSense, o);
    for (uint32_t f = 0; f < kForce; ++f) {
      for (uint32_t s = 0; s < kSense; ++s) {
        EXPECT_EQ(grid[layout.grid_index(f, s)], mutual[f * kSense + s]);
      }
    }
    // The x-line first: force when swapped, sense otherwise.
    std::vector<uint16_t> line(kForce + kSense);
    reorient_frame(force.data(), line.data() + (o.swap ? 0 : kSense), kForce, 1, o);
    reorient_frame(sense.data(), line.data() + (o.swap ? kForce : 0), 1, kSense, o);
    for (uint32_t i = 0; i < kForce; ++i) {
      EXPECT_EQ(line[layout.line_index(node_kind::force_channel, i)], force[i]);
    }
    for (uint32_t i = 0; i < kSense; ++i) {
      EXPECT_EQ(line[layout.line_index(node_kind::sense_channel, i)], sense[i]);
    }
  }
}

// ---- Reports of simulated panels ---------------------------------------------------

std::string read_file(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

struct report {
  std::filesystem::path dir;
  nlohmann::json summary;
  inspect_result result;
};

report run_report(const std::string &name, std::vector<std::string> faults) {
  report rep;
  rep.dir = std::filesystem::path(::testing::TempDir()) / ("inspect_report_" + name);
  std::filesystem::remove_all(rep.dir);
  tool::inspect_options options;
  options.use_sim = true;
  options.panel = std::move(faults);
  const auto result = tool::inspect(options);
  EXPECT_TRUE(result);
  if (result) {
    rep.result = *result;
    EXPECT_EQ(tool::write_report(*result, rep.dir.string()), "");
    rep.summary = nlohmann::json::parse(read_file(rep.dir / "summary.json"));
  }
  return rep;
}

// The CSV cell the JSON points at: row and column of the buffer's file.
long csv_cell(const report &rep, const std::string &buffer, const nlohmann::json &node) {
  std::stringstream in(read_file(rep.dir / (buffer + ".csv")));
  std::string line, field;
  for (int r = node.at("output_row"); r >= 0 && std::getline(in, line);) {
    --r;
  }
  std::stringstream fields(line);
  for (int c = node.at("output_column"); c >= 0 && std::getline(fields, field, ',');) {
    --c;
  }
  return std::stol(field);
}

TEST(InspectReport, NoisyNodeIsInTheJsonTheCsvAndMarkedOnTheHeatmap) {
  const report rep = run_report("noisy", {"noisy"});
  ASSERT_FALSE(rep.summary.is_null());
  const auto &tests = rep.summary["tests"];
  EXPECT_EQ(
      std::tie(rep.summary["result_mask"], tests["noise"]["verdict"], tests["ito"]["verdict"]),
      std::make_tuple(0x04, "failed", "passed"));
  const auto &nodes = tests["noise"]["failing_nodes"];
  ASSERT_EQ(nodes.size(), 1u);
  const auto &node = nodes[0];
  EXPECT_EQ(std::tie(node["force"], node["sense"], node["max"]), std::make_tuple(4, 10, 150));
  EXPECT_GT(node["value"].get<int>(), 150);
  EXPECT_EQ(csv_cell(rep, "noise", node), node["value"].get<long>());
  // Only that node is marked in the noise heatmap.
  const tool::result_buffer &noise = rep.result.buffers[2];
  ASSERT_EQ(noise.marked.size(), 1u);
  EXPECT_EQ(noise.values[noise.marked[0]], node["value"].get<int>());
  for (const char *name : {"grid", "line", "noise", "calib_grid", "calib_line"}) {
    const std::string png = read_file(rep.dir / (std::string(name) + ".png"));
    EXPECT_EQ(png.substr(0, 8), "\x89PNG\r\n\x1a\n") << name;
  }
}

// A CX failure hides the ITO bits in the mask; the report still lists the
// ITO test's own verdict and nodes next to the CX node.
TEST(InspectReport, CxFailureKeepsTheItoVerdictInTheSummary) {
  const report rep = run_report("cx", {"ito-open", "cx-drift"});
  ASSERT_FALSE(rep.summary.is_null());
  EXPECT_EQ(rep.summary["result_mask"], 0x80);
  const auto &ito = rep.summary["tests"]["ito"];
  EXPECT_EQ(std::tie(ito["verdict"], ito["code"]), std::make_tuple("failed", 8));
  ASSERT_EQ(ito["failing_nodes"].size(), 16u); // one per force channel of the open sense line
  for (const auto &node : ito["failing_nodes"]) {
    EXPECT_EQ(node["sense"], 5);
    EXPECT_LT(node["value"].get<int>(), node["min"].get<int>());
  }
  const auto &cx = rep.summary["tests"]["cx"]["failing_nodes"];
  ASSERT_EQ(cx.size(), 1u);
  EXPECT_EQ(std::tie(cx[0]["force"], cx[0]["sense"]), std::make_tuple(2, 32));
  EXPECT_GT(cx[0]["value"].get<int>(), cx[0]["max"].get<int>());
  // The calibration grid holds the value after the autotune, not the change.
  EXPECT_GT(csv_cell(rep, "calib_grid", cx[0]), cx[0]["value"].get<long>());
}

} // namespace

#else

TEST(InspectReport, NeedsTheToolBuild) {
  GTEST_SKIP() << "afehal-tool is not part of this build (AFEHAL_TOOLS=OFF)";
}

#endif
