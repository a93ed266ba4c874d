// Writes the seed corpus of every fuzz target into DIR/<target>/:
//   fuzz_make_seeds DIR
// Frames are built by the simulated panel (so their CRC is right), the
// firmware image and limits text are the embedded ones, host-data blocks
// are what the simulated IC loads, and call sequences are encoded the way
// fuzz_api reads them.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "chip/firmware/fw_image.h"
#include "chip/inspect/test_limits.h"
#include "chip/transport/host_data.h"
#include "platform/ioctrl.h"
#include "sim/sim.h"

namespace {

using bytes = std::vector<uint8_t>;
std::filesystem::path g_root;

void write(const std::string &target, const std::string &name, const bytes &data) {
  const auto dir = g_root / target;
  std::filesystem::create_directories(dir);
  std::ofstream(dir / name, std::ios::binary)
      .write(reinterpret_cast<const char *>(data.data()),
             static_cast<std::streamsize>(data.size()));
}

void frames() {
  sim::frame_fields plain;
  write("frame", "active_16x34", sim::build_frame(plain));
  sim::frame_fields touched = plain;
  for (int i = 0; i < 16 * 34; ++i) {
    touched.mutual.push_back(static_cast<int16_t>((i * 37) % 900 - 300));
  }
  touched.self_force.assign(16, 120);
  touched.self_sense.assign(34, -80);
  touched.noise_level = 3;
  touched.stddev[0] = 11;
  write("frame", "touched_16x34", sim::build_frame(touched));
  sim::frame_fields idle = plain;
  idle.scan_mode = 2;
  idle.rate_code = 0x40;
  idle.freq_khz = 133;
  idle.index = 7;
  write("frame", "idle_slow", sim::build_frame(idle));
  sim::frame_fields small = plain;
  small.force = 8;
  small.sense = 10;
  write("frame", "small_8x10", sim::build_frame(small));
  bytes bad_crc = sim::build_frame(plain);
  bad_crc[4] ^= 0xFF;
  write("frame", "bad_crc", bad_crc);
}

uint32_t le32_at(const bytes &b, size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

void put_le32_at(bytes &b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) {
    b[at + i] = static_cast<uint8_t>(v >> (8 * i));
  }
}

// The embedded image with each section cut to its first bytes (code, config
// and cx follow the 64-byte header; lengths at 44, 48 and 52): small enough
// to mutate quickly, and still passing the check.
bytes small_image(const bytes &image, uint32_t code, uint32_t cfg, uint32_t cx) {
  const uint32_t code_len = le32_at(image, 44), cfg_len = le32_at(image, 48);
  bytes out(image.begin(), image.begin() + 64);
  put_le32_at(out, 44, code);
  put_le32_at(out, 48, cfg);
  put_le32_at(out, 52, cx);
  const auto code_at = image.begin() + 64;
  out.insert(out.end(), code_at, code_at + code);
  out.insert(out.end(), code_at + code_len, code_at + code_len + cfg);
  out.insert(out.end(), code_at + code_len + cfg_len, code_at + code_len + cfg_len + cx);
  return out;
}

void images() {
  const bytes image(myArray, myArray + myArray_size);
  write("fw_image", "header_only", bytes(image.begin(), image.begin() + 64));
  write("fw_image", "small_sections", small_image(image, 300, 64, 32));
  write("fw_image", "no_cx", small_image(image, 224, 16, 0));
}

bytes limits_input(const std::string &label, const std::string &text) {
  bytes out{static_cast<uint8_t>(label.size())};
  out.insert(out.end(), label.begin(), label.end());
  out.insert(out.end(), text.begin(), text.end());
  return out;
}

// The table of label as it stands in the embedded text, up to the next one.
std::string table_of(const std::string &text, const std::string &label) {
  const size_t at = text.find("*" + label + ",");
  const size_t next = text.find('*', at + 1);
  return text.substr(at, next == std::string::npos ? std::string::npos : next - at);
}

void limits() {
  const std::string text(limit_file_data, limit_file_size);
  write("limits", "whole_file", limits_input("MS_RAW_ITO_DATA_MAX", text));
  for (const char *label : {"MS_RAW_DATA_MIN_MAX", "MS_RAW_ITO_DATA_ADJ_VERTICAL",
                            "SS_RAW_DATA_SENSE_EACH_MIN", "SS_DETECT_TOTAL_IX_FORCE_MAX"}) {
    write("limits", label, limits_input(label, table_of(text, label)));
  }
}

// The block the simulated IC loads for a host-data type.
bytes loaded_block(uint8_t type, size_t size) {
  sim::reset();
  ioctrl_reset_state();
  ioctrl_open();
  request_host_data(type, 1000);
  ioctrl_close();
  return sim::mem_read(HOST_DATA_ADDRESS, size);
}

void host_data() {
  struct seed {
    const char *name;
    uint8_t reader, type;
    size_t size;
  };
  const seed seeds[] = {
      {"chip_info", 0, 0x01, 250},
      {"ms_cx", 1, 0x10, 16 + 544},
      {"ms_lp_total", 1, 0x51, 16 + 1088},
      {"ss_cx", 2, 0x12, 16 + 100},
      {"ss_detect_total", 2, 0x53, 16 + 200},
      {"sync", 3, 0x30, 16 + 8 + 1188},
      {"ms_raw", 4, 0x01, 250},
  };
  for (const seed &s : seeds) {
    bytes input{s.reader, s.type, 0x06};
    const bytes block = loaded_block(s.type, s.size);
    input.insert(input.end(), block.begin(), block.end());
    write("host_data", s.name, input);
  }
}

// fuzz_api takes its choices from the end of the input backwards, one byte
// each: the call (0..31, see kCalls there; 32 and up a fault), then its
// arguments.
enum call : uint8_t {
  OPEN = 0,
  CLOSE = 2,
  SCREEN_ON = 3,
  SCREEN_OFF = 4,
  START = 5,
  STOP = 6,
  FRAMES = 11,
  FREQ_SHIFT = 13,
  CALIBRATION = 15,
  AUTOTUNE = 16,
  ENTER_IDLE = 21,
  FREQ_POINT = 23,
  HW_CAP = 25,
  INSPECT = 29,
  FAULT = 32
};

bytes sequence(const bytes &choices) {
  return bytes(choices.rbegin(), choices.rend());
}

void api() {
  write("api", "frames", sequence({OPEN, START, HW_CAP, FRAMES, 5, FRAMES, 5, STOP, CLOSE}));
  write("api", "screen",
        sequence({OPEN, START, SCREEN_OFF, FRAMES, 2, SCREEN_ON, FRAMES, 3, STOP}));
  write("api", "queued",
        sequence({OPEN, START, HW_CAP, FREQ_SHIFT, CALIBRATION, AUTOTUNE, FREQ_POINT, 2, ENTER_IDLE,
                  FRAMES, 5, FRAMES, 5, STOP, CLOSE}));
  write("api", "inspect", sequence({OPEN, INSPECT, START, INSPECT, STOP, CLOSE}));
  // n = 1, errno EIO, fault 2: a fatal event (with a dump) on the next command.
  write("api", "fatal",
        sequence({OPEN, START, FAULT, 2, 0, 2, 1, ENTER_IDLE, FRAMES, 5, FRAMES, 5, STOP, CLOSE}));
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: fuzz_make_seeds DIR\n");
    return 2;
  }
  g_root = argv[1];
  sim::install(sim::clock_mode::virtual_clock);
  frames();
  images();
  limits();
  host_data();
  api();
  sim::uninstall();
  return 0;
}
