// The mutual-sense frame as a heatmap: 256-colour ANSI backgrounds on a
// terminal, a character ramp otherwise.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include "afehal/afehal.h"
#include "tools/tool.h"

namespace tool {

namespace {

constexpr int32_t kZeroSignal = 0x8000;

// Dark blue through cyan and green to yellow and red (xterm 256 colours).
constexpr std::array<int, 16> kColourRamp = {16, 17, 18, 19,  20,  26,  32,  38,
                                             44, 43, 42, 154, 190, 220, 208, 196};
// Signal well below the baseline (a pulled-down node).
constexpr int kNegativeColour = 53;
constexpr std::string_view kCharRamp = " .:-=+*#%@";
constexpr char kNegativeChar = '~';

int32_t signal_of(uint16_t value) {
  return static_cast<int32_t>(value) - kZeroSignal;
}

// Position of a signal on a ramp of n steps; -1 for a clearly negative one.
int ramp_step(int32_t signal, int32_t full_scale, int n) {
  if (signal < 0) {
    return signal < -full_scale / 8 ? -1 : 0;
  }
  const int64_t step = static_cast<int64_t>(signal) * (n - 1) / full_scale;
  return static_cast<int>(std::min<int64_t>(step, n - 1));
}

} // namespace

std::string render_heatmap(std::span<const uint16_t> mutual, uint32_t force, uint32_t sense,
                           const heatmap_style &style) {
  std::string out;
  if (force == 0 || sense == 0 || mutual.size() < static_cast<size_t>(force) * sense) {
    return out;
  }
  int32_t peak = 0;
  for (size_t k = 0; k < static_cast<size_t>(force) * sense; ++k) {
    peak = std::max(peak, std::abs(signal_of(mutual[k])));
  }
  const int32_t full_scale = std::max(std::max(style.min_full_scale, peak), 1);

  out.reserve(static_cast<size_t>(sense) * (force * (style.colour ? 14 : 2) + 8) + 80);
  char header[96];
  std::snprintf(header, sizeof header, "   rows: sense 0-%u, columns: force 0-%u, full scale %d\n",
                sense - 1, force - 1, full_scale);
  out += header;
  for (uint32_t o = 0; o < sense; ++o) {
    char label[16];
    std::snprintf(label, sizeof label, "%2u ", o);
    out += label;
    int last_colour = -2;
    for (uint32_t i = 0; i < force; ++i) {
      const int32_t signal = signal_of(mutual[static_cast<size_t>(o) * force + i]);
      if (style.colour) {
        const int step = ramp_step(signal, full_scale, static_cast<int>(kColourRamp.size()));
        const int colour = step < 0 ? kNegativeColour : kColourRamp[static_cast<size_t>(step)];
        if (colour != last_colour) {
          char escape[16];
          std::snprintf(escape, sizeof escape, "\x1b[48;5;%dm", colour);
          out += escape;
          last_colour = colour;
        }
        out += "  ";
      } else {
        const int step = ramp_step(signal, full_scale, static_cast<int>(kCharRamp.size()));
        const char c = step < 0 ? kNegativeChar : kCharRamp[static_cast<size_t>(step)];
        out += c;
        out += c;
      }
    }
    if (style.colour) {
      out += "\x1b[0m";
    }
    out += '\n';
  }
  return out;
}

std::string status_names(uint32_t status) {
  static constexpr struct {
    uint32_t bit;
    const char *name;
  } kBits[] = {{KVR_AFE_STATUS_IDLE, "IDLE"},        {KVR_AFE_STATUS_ACTIVE, "ACTIVE"},
               {KVR_AFE_STATUS_SHIFT_DONE, "SHIFT"}, {KVR_AFE_STATUS_CALIBRATION_DONE, "CALIB"},
               {KVR_AFE_STATUS_SOS, "SOS"},          {KVR_AFE_STATUS_RECAL_REQUEST, "RECAL"}};
  std::string out;
  uint32_t rest = status;
  for (const auto &b : kBits) {
    if ((status & b.bit) != 0) {
      out += out.empty() ? "" : "|";
      out += b.name;
      rest &= ~b.bit;
    }
  }
  if (rest != 0) {
    char extra[16];
    std::snprintf(extra, sizeof extra, "%s0x%X", out.empty() ? "" : "|", rest);
    out += extra;
  }
  return out.empty() ? "-" : out;
}

} // namespace tool
