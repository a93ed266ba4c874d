// The simulated kernel driver, touch IC and panel: the hardware the library
// runs against in tests, benchmarks, fuzzers and `afehal-tool --sim`.
//
// It plays the chip's side of the wire and shares no code with the library:
// it decodes the SPI bytes itself, builds frames itself and computes the
// frame CRC with its own implementation. It attaches to the library only by
// installing its table into the OS seam (platform/os.h).
//
// Everything here is thread-safe: the frame thread and the control thread
// of the library may call into the simulator at the same time.
//
// How the model behaves where the wire alone does not say:
// - Driver: descriptors from 3 up; blocking mode and the IRQ on at
//   install; a frame wait of 1000 ms until the host sets a time-out; the
//   driver keeps the newest 16 frames and loses frames while the IRQ is
//   off. Pointer records with a non-zero reserved word are refused
//   (EINVAL), NULL buffers give EFAULT, transfers above 64 KiB EMSGSIZE.
//   A successful ioctl returns 0.
// - Wire: the chip drives only the data phase of a read (the bytes after
//   the dummy byte); the opcode, address and dummy phases and every byte of
//   a write reach the host's receive buffer as the host left it. An event
//   leaves the FIFO once all 8 of its bytes are clocked out: a FIFO read
//   that stops short shows the head event's first bytes and leaves it there.
// - Chip: every firmware command but the host-data request (A4 06 t) and
//   the frame-status request (C0 07) is echoed, unknown ones included.
//   While the core is held (01 at 0x20000024) commands are ignored and no
//   frames are scanned; a reset (80 there) stops sensing, clears pins,
//   the event FIFO and the control registers, and raises controller-ready
//   10 ms later. The 8 bytes at 0x20000000 read as the chip id. A7 hi lo
//   reads the host-data area from that offset. Host data loads 3 ms after
//   its request; chip info (01) and the diagnostic blocks (see
//   Diagnostics) carry data, other types load a 16-byte header only.
// - Panel: 16 force x 34 sense channels from configuration 0x0030;
//   120 Hz (rate code 0x40) until C0 00 01 selects 180 Hz (code 0x00);
//   idle scans at 20 Hz; frequency points of 160, 145, 133, 123 kHz.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

// ---- Set-up ---------------------------------------------------------------

enum class clock_mode {
  virtual_clock, // sleeps and blocking waits advance time instantly
  real_clock     // time is the host's monotonic clock
};

// Installs the simulator into the library's OS seam with a fresh driver, IC
// and panel (as reset()).
void install(clock_mode mode = clock_mode::virtual_clock);
// Restores the real OS table.
void uninstall();
// Fresh driver, IC and panel; clears recordings and faults.
void reset();

// ---- Clock ------------------------------------------------------------------

// Simulated time since install, in microseconds.
int64_t now_us();
// Moves the virtual clock forward (no effect on the real clock).
void advance_us(int64_t us);
// Total microseconds the library asked to sleep.
int64_t slept_us();

// ---- Recording ------------------------------------------------------------

struct ioctl_record {
  unsigned long request;
  unsigned long arg;             // the raw third argument
  uint32_t value;                // the value for value requests, else 0
  int result;                    // what the ioctl returned
  int error;                     // errno when result < 0, else 0
  std::vector<uint8_t> argument; // bytes of the record passed by pointer
                                 // (24 for SPI_SYNC and GET_FRAME)
};
// Every ioctl since the last reset/clear, in order.
std::vector<ioctl_record> ioctls();
// Only the ioctls with this request number.
std::vector<ioctl_record> ioctls(unsigned long request);

struct spi_transfer {
  std::vector<uint8_t> tx; // what the host clocked out
  std::vector<uint8_t> rx; // the host's receive buffer after the transfer
};
// Every SPI transfer that reached the IC.
std::vector<spi_transfer> spi_transfers();

// Firmware commands the IC accepted (the plain bytes written without an
// address frame, e.g. A0 03 00), in order.
std::vector<std::vector<uint8_t>> fw_commands();

// Android log lines {priority, tag, text}.
struct android_line {
  int prio;
  std::string tag;
  std::string text;
};
std::vector<android_line> android_log();

// Forgets the recordings above and the flash records (state and faults
// stay).
void clear_recording();

// ---- Heap -------------------------------------------------------------------

// Blocks the library holds now (allocated through the seam, not yet freed).
size_t heap_live_blocks();
// Allocations asked of the seam since install, failed ones included.
size_t heap_allocations();
// Fails the Nth allocation from now (1 = the next one); 0 disables.
void fail_allocation(int nth);

// ---- Driver -----------------------------------------------------------------

// The driver as the library left it.
struct driver_state {
  bool open;
  int open_calls;
  bool blocking;
  bool irq_enabled;
  uint32_t reset_line;
  uint32_t frame_timeout_ms; // 0 until set
  uint32_t queued_frames;
};
driver_state driver();

enum class fault_when {
  once, // the next matching call only
  always,
  nth // the Nth matching call from now (1 = next)
};
// Makes ioctls with this request fail with errno err.
void fail_ioctl(unsigned long request, int err, fault_when when = fault_when::once, int n = 1);
// Makes open of the device node fail with errno err (times: how many opens).
void fail_open(int err, int times);
// Clears every injected fault (driver, IC, panel, flash and heap).
void clear_faults();

// ---- IC -------------------------------------------------------------------------

// Versions and identity the chip-info block reports.
struct chip_identity {
  uint16_t fw_ver = 0x0084;
  uint16_t cfg_ver = 0x0051;
  uint16_t cfg_id = 0x00B9;
  uint16_t cx_cfg_ver = 0x0011;
  uint16_t cx_cfg_id = 0x0000;
  uint8_t afe_ver_cfg = 0x01;
  uint8_t panel_cfg = 0x01;
  uint8_t cx_ver = 0x01;
  uint16_t chip0_ver = 0x0001;
  uint16_t chip0_id = 0x3648;
  uint16_t chip1_ver = 0x0002;
  uint16_t chip1_id = 0x0036;
  uint16_t svn_rev = 0x0000;
  uint8_t api_first = 1, api_second = 2;
  uint16_t api_third = 3;
  uint32_t ext_id_low = 0, ext_id_high = 0;
  uint16_t ms_raw_addr = 0x1234;
};
// Sets the identity. Until flash is programmed the chip reports exactly
// this; after a reset that follows programming it reports what the flash
// holds (see flash below).
void set_identity(const chip_identity &id);
chip_identity identity();

// Direct access to the IC's address spaces (for set-up and assertions).
void mem_write(uint32_t address, const std::vector<uint8_t> &bytes);
std::vector<uint8_t> mem_read(uint32_t address, size_t count);
void cfg_write(uint16_t address, const std::vector<uint8_t> &bytes);
std::vector<uint8_t> cfg_read(uint16_t address, size_t count);

// Raw events pushed into the 8-byte event FIFO.
void push_event(const std::vector<uint8_t> &event);

// Is the IC sensing (frames produced) / in idle / forced frequency / rate.
struct ic_state {
  bool sensing;
  bool idle;
  bool core_held;
  int forced_freq_index; // -1 none
  int forced_rate_index; // -1 none
  int resets;            // system resets seen
  bool factory_mode;     // C0 01 02 since the last reset
  bool scan_locked;      // A0 03 00 in factory mode
  bool auto_release_off; // 01 at 0x20000126
};
ic_state ic();

// Echo delay of firmware commands (default 4 ms).
void set_echo_delay_ms(uint32_t ms);
// Delay of the controller-ready event after a system reset (default 10 ms).
void set_ready_delay_ms(uint32_t ms);

// IC faults. A command whose echo is dropped still takes effect; the
// command after fatal_on_next_command is lost and answered by F2.
void drop_echoes(int times); // -1: always
// Only the echoes of commands beginning with these bytes, the next `times`
// times (the commands still take effect).
void drop_echoes_of(const std::vector<uint8_t> &command, int times);
void error_before_echo(int times); // an 0xF3 event before each echo
void fatal_on_next_command(bool with_dump);
void host_data_never_loads(bool on);
// Every host-data load from now writes block at 0x20010000 instead of what
// the firmware would (its header and data, at most 64 KiB): bytes 0..3 are
// stamped with the signature, the requested type and a fresh load counter
// unless raw, when the block goes out exactly as given. Empty: back to the
// firmware's own blocks. A reset forgets it.
void serve_host_data(const std::vector<uint8_t> &block, bool raw = false);
void fail_spi_transfer(int nth, int err); // Nth SPI transfer from now fails

// ---- Diagnostics ------------------------------------------------------------
//
// Diagnostic host-data blocks. Each has the 16-byte header (A5, type, load
// counter, then bytes 4..15 below) at 0x20010000 and its data from
// 0x20010010; values little-endian.
//   0x30 sync frame: 4 offset of the mutual data (8; the bytes before it
//        are filler), 5 force, 6 sense, 7 self force count, 8 self sense
//        count; mutual values force-major, then self force, then self
//        sense. A fresh scan of the panel: same signal and noise (and
//        noisy node) as its frames.
//   0x10/0x11 mutual CX2, one unsigned byte per node (normal/low power);
//   0x50/0x51 the mutual total CX (16-bit): 4 force, 5 sense, 6 CX1.
//   0x12/0x13 self IX2 (unsigned bytes) and CX2 (signed bytes) (active/
//   detect); 0x52/0x53 their totals (16-bit): 4 force, 5 sense, 6 IX1
//   force, 7 IX1 sense, 8 CX1 force, 9 CX1 sense; data IX force, IX sense,
//   CX force, CX sense.
// Totals are CX1 x 8 + CX2 and IX1 x 2 + IX2, the weights of the limits
// file, and every value of a healthy panel is well inside its limits.
//
// Commands (echoed like the others):
//   C0 01 02     factory mode; A0 03 00 then also locks the scan.
//   A4 04 FF 01  ITO measurement: force x sense 16-bit values, force-major,
//                at 0x20010000 | the chip info's MS raw address; healthy
//                nodes read 2860..2920.
//   A4 08 01 00  low-power timer calibration (values unchanged).
//   A4 03 03 00  mutual autotune: every mutual CX total moves by the step.
//   A4 03 0C 00  self autotune: every self IX total moves by the step.
// DRAM (0x00100000, 32 KiB) and frame memory (0x20010000, 64 KiB) are plain
// memory; 01 at 0x20000126 turns the core's auto release off and 01 at
// 0x20000024 holds the core. A reset leaves factory mode and revives a
// firmware that stopped answering; compensation values stay as tuned.
void set_autotune_step(int16_t step); // default 1

enum class electrode { force, sense };
// Every ITO node of the channel reads 300 (open, below every minimum) or
// 5000 (shorted, above every maximum).
void ito_open(electrode side, uint8_t channel);
void ito_short(electrode side, uint8_t channel);

// Node (force, sense) swings by +-swing on alternate scans, on top of the
// panel's noise.
void noisy_node(uint8_t force, uint8_t sense, uint16_t swing);

// A compensation value that the next autotune of its side moves by amount
// more than the step. index: the node (force-major) or the channel.
enum class comp_set {
  ms_lp_total,     // 0x51 (and 0x11), mutual autotune
  ss_detect_force, // 0x53 / 0x13 IX force, self autotune
  ss_detect_sense,
  ss_force, // 0x52 / 0x12 IX force, self autotune
  ss_sense
};
void drift_after_autotune(comp_set set, uint16_t index, int16_t amount);

// Requests of this host-data type are never answered.
void block_never_loads(uint8_t type);
// The firmware answers this many more commands (host-data requests
// included) and then nothing until a system reset.
void firmware_stops_after(int commands);
// The firmware stops answering when a command beginning with these bytes
// arrives (that command is lost too), the next `times` times it does; each
// time only until the next system reset.
void firmware_dies_on(const std::vector<uint8_t> &command, int times);
// Reads of address show bits of mask as 1 (high) or 0, whatever was written.
void stuck_bit(uint32_t address, uint8_t mask, bool high);
// The next memory write (FA) or read (FB) whose data covers address fails
// with errno err and does not reach the chip.
// nth: the Nth such transfer from now fails instead (1 = the next).
enum class transfer_dir { write, read };
void transfer_error_at(uint32_t address, transfer_dir dir, int err, int nth = 1);

// ---- Panel ----------------------------------------------------------------

struct touch {
  float x, y;     // position in sense/force channel units
  float dx, dy;   // movement per frame
  float strength; // peak signal
};
void set_touches(const std::vector<touch> &touches);
void set_noise(uint16_t amplitude);

// Frames the panel handed to the driver so far (frames removed by
// drop_frames are not counted; the driver may still lose some).
uint32_t frames_produced();

// Frames the driver handed to the host since the last reset, and how many
// of them carried each panel fault (a frame with several counts once, under
// the first of tag, channel counts, counter, CRC).
struct frame_tally {
  uint32_t delivered = 0;
  uint32_t bad_tag = 0;
  uint32_t bad_counts = 0;
  uint32_t bad_counter = 0;
  uint32_t bad_crc = 0;
};
frame_tally frames_delivered();

// Panel faults (count: how many frames; -1: all).
void drop_frames(int count);
void corrupt_tag(int count);
void corrupt_counter(int count);
void corrupt_crc(int count);
void bad_channel_counts(uint8_t force, uint8_t sense, int count);
void stop_frames(bool stopped); // the driver never gets a frame: time-outs

// The chip's own frame CRC (independent of the library) over bytes
// 20 .. length-1 of a frame; a frame's CRC is taken with length
// 64 + 2(F*S + F + S), i.e. everything but the trailing counter.
uint32_t frame_crc(const uint8_t *frame, size_t length);

// Builds one frame exactly as the IC sends it (for tests that feed the
// parser directly).
struct frame_fields {
  uint16_t counter = 1;
  uint16_t index = 1;
  uint16_t fw_counter = 1;
  uint8_t scan_mode = 4;
  uint8_t rate_code = 0x00;
  uint16_t freq_khz = 160;
  uint8_t force = 16;
  uint8_t sense = 34;
  std::vector<int16_t> mutual; // force*sense raw values (row = force)
  std::vector<int16_t> self_force;
  std::vector<int16_t> self_sense;
  uint8_t noise_level = 0;
  uint16_t stddev[4] = {0, 0, 0, 0}; // r0..r3
};
// Short value vectors are padded with zeros; the frame is
// 64 + 2(F*S + F + S) + 2 bytes, its CRC set over all but the trailer.
std::vector<uint8_t> build_frame(const frame_fields &fields);

// ---- Flash ----------------------------------------------------------------

// Erase and DMA act only while the core is held and the flash is unlocked
// (0x20 at 0x20000025, 0x03 at 0x200000DE), and the DMA only after the
// exact start block 00 40 42 0F 00 00 C0. Programming clears bits only
// (flash &= data), so a page written without an erase reads back wrong.
// Erase is busy 30 ms by default, a DMA 10 ms.
constexpr uint32_t kFlashSize = 128 * 1024;
constexpr uint32_t kFlashPage = 4096;
std::vector<uint8_t> flash();
// Replaces the flash contents (the rest erased); the reported versions
// change only through programming and a reset.
void set_flash(const std::vector<uint8_t> &contents);
// Pages erased / words programmed, in order.
std::vector<int> erased_pages();
struct dma_record {
  uint32_t flash_offset;
  uint32_t length;
};
std::vector<dma_record> dma_transfers();
void set_erase_busy_ms(uint32_t ms);
void erase_stuck(bool on);
void dma_stuck(bool on);
void versions_stick(bool on); // flashing does not change the reported versions

} // namespace sim

// How the simulated chip learns its versions from flash: after a system
// reset that follows flash programming, each section whose header is
// present in flash sets the versions the chip-info block reports.
//   code   (flash 0):        "CODE", u16 fw_ver, u16 svn_rev       (LE)
//   cx     (flash 118,784):  "CXDT", ..., u16 cx version at bytes 20-21
//                             (reported as cx_cfg_ver)
//   config (flash 126,976):  "CNFG", u16 cfg_ver, u16 cfg_id, u8 afe_ver_cfg
// The firmware image in data/ carries the same headers at the start of its
// sections.
