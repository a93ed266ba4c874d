// The report of one inspection: per result buffer a PNG heatmap (failing
// nodes framed in red, a colour scale with its end values) and a CSV in the
// buffers' output orientation, and summary.json with the verdicts.
#include <png.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "afehal/afehal.h"
#include "tools/inspect.h"

namespace tool {

namespace {

using json = nlohmann::ordered_json;

// ---- Pixels --------------------------------------------------------------------

struct rgb {
  uint8_t r, g, b;
};

class canvas {
public:
  canvas(int width, int height) : width_(width), height_(height) {
    pixels_.assign(static_cast<size_t>(width) * height * 3, 255);
  }
  int width() const { return width_; }
  int height() const { return height_; }
  const uint8_t *row(int y) const { return &pixels_[static_cast<size_t>(y) * width_ * 3]; }

  void fill(int x, int y, int w, int h, rgb colour) {
    for (int yy = std::max(y, 0); yy < std::min(y + h, height_); ++yy) {
      for (int xx = std::max(x, 0); xx < std::min(x + w, width_); ++xx) {
        uint8_t *p = &pixels_[(static_cast<size_t>(yy) * width_ + xx) * 3];
        p[0] = colour.r;
        p[1] = colour.g;
        p[2] = colour.b;
      }
    }
  }
  void frame(int x, int y, int w, int h, int thickness, rgb colour) {
    fill(x, y, w, thickness, colour);
    fill(x, y + h - thickness, w, thickness, colour);
    fill(x, y, thickness, h, colour);
    fill(x + w - thickness, y, thickness, h, colour);
  }

private:
  int width_;
  int height_;
  std::vector<uint8_t> pixels_;
};

// Digits and a minus sign, 3 x 5 pixels, one row per string, '#' lit.
constexpr int kGlyphW = 3;
constexpr int kGlyphH = 5;
constexpr int kTextScale = 2;
const std::array<std::array<const char *, kGlyphH>, 11> kGlyphs = {{
    {"###", "#.#", "#.#", "#.#", "###"},
    {".#.", "##.", ".#.", ".#.", "###"},
    {"###", "..#", "###", "#..", "###"},
    {"###", "..#", "###", "..#", "###"},
    {"#.#", "#.#", "###", "..#", "..#"},
    {"###", "#..", "###", "..#", "###"},
    {"###", "#..", "###", "#.#", "###"},
    {"###", "..#", "..#", "..#", "..#"},
    {"###", "#.#", "###", "#.#", "###"},
    {"###", "#.#", "###", "..#", "###"},
    {"...", "...", "###", "...", "..."},
}};

int text_width(const std::string &text) {
  return static_cast<int>(text.size()) * (kGlyphW + 1) * kTextScale;
}

void draw_text(canvas &c, int x, int y, const std::string &text, rgb colour) {
  for (char ch : text) {
    const int glyph = ch == '-' ? 10 : ch - '0';
    if (glyph >= 0 && glyph <= 10) {
      for (int gy = 0; gy < kGlyphH; ++gy) {
        for (int gx = 0; gx < kGlyphW; ++gx) {
          if (kGlyphs[static_cast<size_t>(glyph)][static_cast<size_t>(gy)][gx] == '#') {
            c.fill(x + gx * kTextScale, y + gy * kTextScale, kTextScale, kTextScale, colour);
          }
        }
      }
    }
    x += (kGlyphW + 1) * kTextScale;
  }
}

// Dark blue through teal and green to yellow.
rgb ramp(double t) {
  static constexpr std::array<rgb, 5> kStops = {
      {{68, 1, 84}, {59, 82, 139}, {33, 145, 140}, {94, 201, 98}, {253, 231, 37}}};
  t = std::clamp(t, 0.0, 1.0) * (kStops.size() - 1);
  const size_t i = std::min(static_cast<size_t>(t), kStops.size() - 2);
  const double f = t - static_cast<double>(i);
  auto mix = [f](uint8_t a, uint8_t b) {
    return static_cast<uint8_t>(a + (static_cast<double>(b) - a) * f + 0.5);
  };
  return {mix(kStops[i].r, kStops[i + 1].r), mix(kStops[i].g, kStops[i + 1].g),
          mix(kStops[i].b, kStops[i + 1].b)};
}

constexpr rgb kFailColour = {230, 20, 20};
constexpr rgb kTextColour = {0, 0, 0};
constexpr int kCell = 16;
constexpr int kMargin = 10;
constexpr int kBarWidth = 16;

// One strip of cells per row of the heatmap.
struct strip {
  size_t first; // index of its first value
  uint32_t length;
};

std::vector<strip> strips_of(const result_buffer &buffer, const panel_layout &layout) {
  std::vector<strip> rows;
  if (buffer.is_line) {
    rows.push_back({0, layout.x_line()});
    rows.push_back(
        {layout.x_line(), static_cast<uint32_t>(buffer.values.size()) - layout.x_line()});
  } else {
    for (uint32_t r = 0; r < layout.out_rows(); ++r) {
      rows.push_back({static_cast<size_t>(r) * layout.out_cols(), layout.out_cols()});
    }
  }
  return rows;
}

canvas draw_heatmap(const result_buffer &buffer, const panel_layout &layout) {
  const std::vector<strip> rows = strips_of(buffer, layout);
  uint32_t widest = 1;
  for (const strip &s : rows) {
    widest = std::max(widest, s.length);
  }
  int32_t lo = 0;
  int32_t hi = 0;
  if (!buffer.values.empty()) {
    const auto [mn, mx] = std::minmax_element(buffer.values.begin(), buffer.values.end());
    lo = *mn;
    hi = *mx;
  }
  const std::string hi_text = std::to_string(hi);
  const std::string lo_text = std::to_string(lo);
  // A line buffer's two strips are drawn one empty row apart.
  const int grid_rows = buffer.is_line ? 3 : static_cast<int>(rows.size());
  const int map_w = static_cast<int>(widest) * kCell;
  const int map_h = std::max(grid_rows * kCell, 2 * kGlyphH * kTextScale + 8);
  const int label_w = std::max(text_width(hi_text), text_width(lo_text));
  canvas c(kMargin + map_w + kMargin + kBarWidth + 6 + label_w + kMargin, map_h + 2 * kMargin);

  const double span = hi > lo ? static_cast<double>(hi) - lo : 1.0;
  for (size_t r = 0; r < rows.size(); ++r) {
    const int y = kMargin + static_cast<int>(buffer.is_line ? r * 2 : r) * kCell;
    for (uint32_t i = 0; i < rows[r].length; ++i) {
      const size_t index = rows[r].first + i;
      const int x = kMargin + static_cast<int>(i) * kCell;
      c.fill(x, y, kCell, kCell, ramp((buffer.values[index] - lo) / span));
      if (std::find(buffer.marked.begin(), buffer.marked.end(), index) != buffer.marked.end()) {
        c.frame(x, y, kCell, kCell, 3, kFailColour);
      }
    }
  }
  // The scale: the highest value at the top.
  const int bar_x = kMargin + map_w + kMargin;
  for (int y = 0; y < map_h; ++y) {
    c.fill(bar_x, kMargin + y, kBarWidth, 1, ramp(1.0 - static_cast<double>(y) / (map_h - 1)));
  }
  draw_text(c, bar_x + kBarWidth + 6, kMargin, hi_text, kTextColour);
  draw_text(c, bar_x + kBarWidth + 6, kMargin + map_h - kGlyphH * kTextScale, lo_text, kTextColour);
  return c;
}

// libpng reports errors by longjmp: only plain data lives in this frame.
bool save_png(const canvas &c, const char *path) {
  std::FILE *file = std::fopen(path, "wb");
  if (file == nullptr) {
    return false;
  }
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  volatile bool ok = false;
  if (info != nullptr && setjmp(png_jmpbuf(png)) == 0) {
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(c.width()),
                 static_cast<png_uint_32>(c.height()), 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < c.height(); ++y) {
      png_write_row(png, c.row(y));
    }
    png_write_end(png, nullptr);
    ok = true;
  }
  png_destroy_write_struct(&png, &info);
  return std::fclose(file) == 0 && ok;
}

// ---- CSV ------------------------------------------------------------------------

std::string buffer_csv(const result_buffer &buffer, const panel_layout &layout) {
  std::string out;
  for (const strip &s : strips_of(buffer, layout)) {
    for (uint32_t i = 0; i < s.length; ++i) {
      out += (i == 0 ? "" : ",") + std::to_string(buffer.values[s.first + i]);
    }
    out += '\n';
  }
  return out;
}

// ---- JSON ------------------------------------------------------------------------

std::string hex(uint32_t value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*X", digits, value);
  return text;
}

const char *verdict_word(verdict v) {
  return v == verdict::passed ? "passed" : v == verdict::failed ? "failed" : "not run";
}

json node_json(const failing_node &n, const panel_layout &layout) {
  json j;
  j["check"] = n.check;
  if (n.kind != node_kind::sense_channel) {
    j["force"] = n.force;
  }
  if (n.kind != node_kind::force_channel) {
    j["sense"] = n.sense;
  }
  j["value"] = n.value;
  if (n.minimum) {
    j["min"] = *n.minimum;
  }
  j["max"] = n.maximum;
  const bool in_grid = n.kind == node_kind::mutual && n.force >= 0 && n.sense >= 0 &&
                       static_cast<uint32_t>(n.force) < layout.force &&
                       static_cast<uint32_t>(n.sense) < layout.sense;
  if (in_grid) {
    const size_t at =
        layout.grid_index(static_cast<uint32_t>(n.force), static_cast<uint32_t>(n.sense));
    j["output_row"] = at / layout.out_cols();
    j["output_column"] = at % layout.out_cols();
  }
  return j;
}

json test_json(const test_outcome &t, const panel_layout &layout) {
  json j;
  j["verdict"] = verdict_word(t.result);
  j["code"] = t.code;
  j["retries"] = t.retries;
  if (!t.detail.empty()) {
    j["message"] = t.detail;
  }
  j["failing_nodes"] = json::array();
  for (const failing_node &n : t.nodes) {
    j["failing_nodes"].push_back(node_json(n, layout));
  }
  return j;
}

json chip_json(const inspect_result &r) {
  const chip_versions &v = r.versions;
  json j;
  j["fw_version"] = hex(v.fw, 4);
  j["config_version"] = hex(v.cfg, 4);
  j["config_id"] = hex(v.cfg_id, 4);
  j["cx_config_version"] = hex(v.cx_cfg, 4);
  j["cx_version"] = hex(v.cx, 2);
  j["afe_config_version"] = hex(v.afe_cfg, 2);
  j["panel_config"] = hex(v.panel_cfg, 2);
  j["chip0"] = {{"id", hex(v.chip0_id, 4)}, {"version", hex(v.chip0_ver, 4)}};
  j["chip1"] = {{"id", hex(v.chip1_id, 4)}, {"version", hex(v.chip1_ver, 4)}};
  j["api_version"] = std::to_string(v.api_first) + "." + std::to_string(v.api_second) + "." +
                     std::to_string(v.api_third);
  j["force_channels"] = r.layout.force;
  j["sense_channels"] = r.layout.sense;
  j["orientation"] = {{"swap", r.layout.orientation.swap},
                      {"force_reverse", r.layout.orientation.force_reverse},
                      {"sense_reverse", r.layout.orientation.sense_reverse}};
  return j;
}

} // namespace

const char *mask_bit_meaning(uint32_t bit) {
  switch (bit) {
  case INSPECT_FAIL_SETUP:
    return "setup: a reset, the chip-info read or the FIFO clear failed";
  case INSPECT_FAIL_NOISE:
    return "noise test failed";
  case INSPECT_FAIL_ITO_RAW:
    return "ITO frame outside its limits";
  case INSPECT_FAIL_ITO:
    return "ITO test failed otherwise (command, frame read, limits)";
  case INSPECT_FAIL_SRAM:
    return "SRAM test failed";
  case INSPECT_FAIL_CX:
    return "CX test failed, or the run could not start";
  default:
    return "never set";
  }
}

std::string summary_json(const inspect_result &r) {
  json j;
  j["result_mask"] = r.mask;
  j["result_mask_hex"] = hex(r.mask, 2);
  j["passed"] = r.mask == 0;
  j["failed_bits"] = json::array();
  for (uint32_t bit : kMaskBits) {
    if ((r.mask & bit) != 0) {
      j["failed_bits"].push_back({{"bit", hex(bit, 2)}, {"meaning", mask_bit_meaning(bit)}});
    }
  }
  if (!r.setup_error.empty()) {
    j["setup_error"] = r.setup_error;
  }
  j["tests"] = {{"sram", test_json(r.sram, r.layout)},
                {"ito", test_json(r.ito, r.layout)},
                {"noise", test_json(r.noise, r.layout)},
                {"cx", test_json(r.cx, r.layout)}};
  j["raw_frame_check"] = test_json(r.raw, r.layout);
  j["chip"] = chip_json(r);
  j["time"] = {{"started_utc", r.started_utc}, {"duration_s", r.duration_s}};
  j["buffers"] = json::object();
  for (const result_buffer &b : r.buffers) {
    j["buffers"][b.name] = {{"csv", b.name + ".csv"}, {"png", b.name + ".png"}};
  }
  return j.dump(2) + "\n";
}

std::string write_report(const inspect_result &result, const std::string &dir) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) {
    return "cannot create " + dir + ": " + ec.message();
  }
  const std::filesystem::path base(dir);
  for (const result_buffer &buffer : result.buffers) {
    const std::string png = (base / (buffer.name + ".png")).string();
    if (!save_png(draw_heatmap(buffer, result.layout), png.c_str())) {
      return "cannot write " + png;
    }
    const std::string csv = (base / (buffer.name + ".csv")).string();
    std::ofstream out(csv, std::ios::binary);
    out << buffer_csv(buffer, result.layout);
    if (!out.flush()) {
      return "cannot write " + csv;
    }
  }
  const std::string summary = (base / "summary.json").string();
  std::ofstream out(summary, std::ios::binary);
  out << summary_json(result);
  return out.flush() ? "" : "cannot write " + summary;
}

} // namespace tool
