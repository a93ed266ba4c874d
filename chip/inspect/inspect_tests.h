// The tests of the factory inspection run (SRAM, ITO, raw data, noise, CX)
// and what they share: the attempt-and-retry rule, the limits look-up and
// the owners that free every diagnostic record on every path.
//
// Each limits-driven test takes the limits copy: limit_file_size bytes of
// the limits text, with no terminating NUL.
#pragma once

#include <cstddef>
#include <cstdint>

#include "chip/inspect/diag_data.h"
#include "chip/inspect/test_limits.h"
#include "platform/export.h"

// Result codes of the tests.
constexpr uint32_t INSPECT_TEST_OK = 0;
constexpr uint32_t INSPECT_TEST_STEP_FAILED = 1;
constexpr uint32_t INSPECT_TEST_RAW_OUT_OF_LIMITS = 2;
constexpr uint32_t INSPECT_TEST_NOISE_OVER_LIMIT = 4;
constexpr uint32_t INSPECT_TEST_LIMITS_MISSING = 0x80;
constexpr uint32_t INSPECT_SRAM_TRANSFER = 1;
constexpr uint32_t INSPECT_SRAM_DATA = 0x40;
// Bits of the ITO test's result.
constexpr uint32_t ITO_FRAME_NOT_READ = 0x01;
constexpr uint32_t ITO_OUT_OF_LIMITS = 0x08;
constexpr uint32_t ITO_COMMAND_FAILED = 0x10;

// Frames of the noise test.
constexpr uint32_t NOISE_FRAMES = 30;
// Host-data type of the sync frame, and how long its load may take.
constexpr uint8_t HOST_DATA_SYNC_FRAME = 48;
constexpr int64_t SYNC_FRAME_TIMEOUT_MS = 1000;

uint32_t inspect_sram();
uint32_t inspect_ito(const char *limits);
AFEHAL_EXPORT uint32_t inspect_raw_data(const char *limits);
uint32_t inspect_noise(const char *limits);
uint32_t inspect_cx(const char *limits);
// Prints the compensation data the IC holds now; the mutual low-power total
// CX goes into output (output orientation) and its node count into count.
AFEHAL_EXPORT uint32_t dump_cx(uint16_t *output, uint32_t *count);

// ---- Shared by the tests ------------------------------------------------

// Owners of the diagnostic records: whatever the reader allocated is freed
// when the owner goes out of scope.
struct mutual_holder {
  mutual_frame f = new_mutual_frame();
  mutual_holder() = default;
  mutual_holder(const mutual_holder &) = delete;
  mutual_holder &operator=(const mutual_holder &) = delete;
  ~mutual_holder() { clean_mutual_frame(&f); }
  uint32_t nodes() const { return uint32_t{f.force_len} * f.sense_len; }
};
struct self_holder {
  self_frame f = new_self_frame();
  self_holder() = default;
  self_holder(const self_holder &) = delete;
  self_holder &operator=(const self_holder &) = delete;
  ~self_holder() { clean_self_frame(&f); }
};
// One self compensation read: the IX half and the CX half.
struct ss_holder {
  ss_cx_data ix = new_ss_cx_data();
  ss_cx_data cx = new_ss_cx_data();
  ss_holder() = default;
  ss_holder(const ss_holder &) = delete;
  ss_holder &operator=(const ss_holder &) = delete;
  ~ss_holder() {
    clean_ss_cx_data(&ix);
    clean_ss_cx_data(&cx);
  }
};

// The limit records of one test, looked up label by label and freed when
// the set goes out of scope.
class limit_set {
public:
  static constexpr size_t kMax = 5;
  limit_set() = default;
  limit_set(const limit_set &) = delete;
  limit_set &operator=(const limit_set &) = delete;
  ~limit_set();
  // Looks the labels up in order. At the first one missing or malformed it
  // logs the search's failure and then that label's message, and gives 128.
  uint32_t look_up(const char *tag, const char *limits, const char *const *labels,
                   const char *const *missing_messages, size_t count);
  const test_limit_data &operator[](size_t i) const { return records_[i]; }

private:
  test_limit_data records_[kMax] = {new_test_limit_data(), new_test_limit_data(),
                                    new_test_limit_data(), new_test_limit_data(),
                                    new_test_limit_data()};
};

// One attempt of a test. Setting *final ends the test with this result
// without the retry rule.
using inspect_attempt_fn = uint32_t (*)(void *context, bool *final);

// Makes the attempt; when it failed and the firmware no longer answers,
// resets the IC, logs the retry message and makes it once more.
uint32_t attempt_with_retry(const char *tag, const char *retry_message, inspect_attempt_fn attempt,
                            void *context);

// The limits cover a walk of rows x cols nodes; logs the refusal otherwise.
bool limits_cover(const char *tag, const test_limit_data &limits, uint32_t rows, uint32_t cols);

// Writes a mutual frame into the grid buffer and its self data into the line
// buffer, both in output orientation and offset by 0x8000.
void store_raw_frame(const char *tag, const mutual_frame &ms, const self_frame &ss);
// Writes a force and a sense vector one after the other into dest (x-line
// first), each in output orientation, without offset.
void store_line(const char *tag, uint16_t *dest, const int16_t *force, uint8_t force_len,
                const int16_t *sense, uint8_t sense_len, const char *force_heading,
                const char *sense_heading);
// Sends a firmware command; 0 when acknowledged.
uint32_t send_command(const uint8_t *command, int32_t length, uint32_t timeout_ms);
// Factory mode (C0 01 02) and scan lock (A0 03 00).
uint32_t enter_factory_mode();
uint32_t lock_scan();
