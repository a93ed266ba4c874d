// afehal-tool inspect: the reading of a run from the library's log, the
// mapping of failing nodes into the result buffers, and the report of a
// simulated failing panel.
#include <gtest/gtest.h>

#ifdef AFEHAL_HAVE_TOOL_CORE

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
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
  EXPECT_EQ(min_max->force, 3);
  EXPECT_EQ(min_max->sense, 12);
  EXPECT_EQ(min_max->value, -300);
  EXPECT_EQ(min_max->minimum, -20);
  EXPECT_EQ(min_max->maximum, 4500);

  const auto adj = tool::parse_node_message("Node[0,33] = 151 exceed limit > 150");
  ASSERT_TRUE(adj);
  EXPECT_EQ(adj->sense, 33);
  EXPECT_EQ(adj->value, 151);
  EXPECT_FALSE(adj->minimum);
  EXPECT_EQ(adj->maximum, 150);

  EXPECT_FALSE(tool::parse_node_message("Node[0,33] = 151"));
  EXPECT_FALSE(tool::parse_node_message("ITO RAW MIN MAX TEST FAIL"));
}

// A dead firmware's first attempt is forgotten; CX nodes belong to the check
// whose verdict follows them, self channels by their one non-zero coordinate.
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
  EXPECT_EQ(r.ito.result, verdict::failed);
  EXPECT_EQ(r.ito.code, 8);
  EXPECT_EQ(r.ito.retries, 1);
  ASSERT_EQ(r.ito.nodes.size(), 1u);
  EXPECT_EQ(r.ito.nodes[0].force, 2);
  ASSERT_EQ(r.noise.nodes.size(), 1u);
  EXPECT_EQ(r.noise.code, 4);
  ASSERT_EQ(r.cx.nodes.size(), 3u);
  EXPECT_EQ(r.cx.nodes[0].kind, node_kind::mutual);
  EXPECT_EQ(r.cx.nodes[0].check, "Mutual Lowpower Total CX change");
  EXPECT_EQ(r.cx.nodes[1].kind, node_kind::sense_channel);
  EXPECT_EQ(r.cx.nodes[1].sense, 6);
  EXPECT_EQ(r.cx.nodes[1].check, "Self Sense Detect Total IX change");
  EXPECT_EQ(r.cx.nodes[2].kind, node_kind::force_channel);
  EXPECT_EQ(r.cx.nodes[2].force, 7);
  EXPECT_EQ(r.cx.code, 128);
}

TEST(InspectLog, SetupErrorsStopTheRunButTestResetsDoNot) {
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
  std::vector<int16_t> mutual(kForce * kSense);
  for (size_t i = 0; i < mutual.size(); ++i) {
    mutual[i] = static_cast<int16_t>(100 + i);
  }
  std::vector<int16_t> force(kForce);
  std::vector<int16_t> sense(kSense);
  for (uint32_t i = 0; i < kForce; ++i) {
    force[i] = static_cast<int16_t>(i);
  }
  for (uint32_t i = 0; i < kSense; ++i) {
    sense[i] = static_cast<int16_t>(50 + i);
  }
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
    uint16_t *force_at = o.swap ? line.data() : line.data() + kSense;
    uint16_t *sense_at = o.swap ? line.data() + kForce : line.data();
    reorient_frame(force.data(), force_at, kForce, 1, o);
    reorient_frame(sense.data(), sense_at, 1, kSense, o);
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

std::vector<std::vector<long>> read_csv(const std::filesystem::path &path) {
  std::vector<std::vector<long>> rows;
  std::stringstream in(read_file(path));
  for (std::string line; std::getline(in, line);) {
    std::vector<long> row;
    std::stringstream fields(line);
    for (std::string field; std::getline(fields, field, ',');) {
      row.push_back(std::stol(field));
    }
    rows.push_back(row);
  }
  return rows;
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

// The CSV cell the JSON points at holds the failing node's value.
long csv_cell(const report &rep, const std::string &buffer, const nlohmann::json &node) {
  const auto rows = read_csv(rep.dir / (buffer + ".csv"));
  const size_t r = node.at("output_row");
  const size_t c = node.at("output_column");
  EXPECT_LT(r, rows.size());
  return r < rows.size() && c < rows[r].size() ? rows[r][c] : -1;
}

TEST(InspectReport, NoisyNodeIsInTheJsonTheCsvAndMarkedOnTheHeatmap) {
  const report rep = run_report("noisy", {"noisy"});
  ASSERT_FALSE(rep.summary.is_null());
  EXPECT_EQ(rep.summary["result_mask"], 0x04);
  EXPECT_EQ(rep.summary["tests"]["noise"]["verdict"], "failed");
  EXPECT_EQ(rep.summary["tests"]["ito"]["verdict"], "passed");
  const auto &nodes = rep.summary["tests"]["noise"]["failing_nodes"];
  ASSERT_EQ(nodes.size(), 1u);
  EXPECT_EQ(nodes[0]["force"], 4);
  EXPECT_EQ(nodes[0]["sense"], 10);
  EXPECT_EQ(nodes[0]["max"], 150);
  EXPECT_GT(nodes[0]["value"].get<int>(), 150);
  EXPECT_EQ(csv_cell(rep, "noise", nodes[0]), nodes[0]["value"].get<long>());
  // Only that node is marked in the noise heatmap.
  const tool::result_buffer &noise = rep.result.buffers[2];
  ASSERT_EQ(noise.marked.size(), 1u);
  EXPECT_EQ(noise.values[noise.marked[0]], nodes[0]["value"].get<int>());
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
  EXPECT_EQ(ito["verdict"], "failed");
  EXPECT_EQ(ito["code"], 8);
  ASSERT_EQ(ito["failing_nodes"].size(), 16u); // one per force channel of the open sense line
  for (const auto &node : ito["failing_nodes"]) {
    EXPECT_EQ(node["sense"], 5);
    EXPECT_LT(node["value"].get<int>(), node["min"].get<int>());
  }
  const auto &cx = rep.summary["tests"]["cx"]["failing_nodes"];
  ASSERT_EQ(cx.size(), 1u);
  EXPECT_EQ(cx[0]["force"], 2);
  EXPECT_EQ(cx[0]["sense"], 32);
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
