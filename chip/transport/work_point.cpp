#include "chip/transport/work_point.h"

std::atomic<uint8_t> work_parm[WORK_PARM_SIZE];
std::atomic<uint8_t> work_parm_request[WORK_PARM_SIZE] = {0x00, WORK_PARM_NO_REQUEST,
                                                          WORK_PARM_NO_REQUEST};
std::atomic<uint8_t> calibration_done{0};
std::atomic<uint8_t> recal_request{0};

void reset_work_parm_request() {
  for (auto &b : work_parm_request) {
    b.store(0);
  }
  work_parm_request[WP_FREQ_INDEX].store(WORK_PARM_NO_REQUEST);
  work_parm_request[WP_RATE_INDEX].store(WORK_PARM_NO_REQUEST);
}

void init_work_parm() {
  for (auto &b : work_parm) {
    b.store(0);
  }
  reset_work_parm_request();
  build_crc_table();
  recal_request.store(0);
  calibration_done.store(0);
}
