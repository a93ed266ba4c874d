// Frame retrieval: the frame thread's loop body. Each call runs the queued
// commands that fit between two frames, blocks in the driver for the next
// frame and has the chip side check and convert it. After the chip side has
// reset an IC that stopped answering, the call returns the SOS record.
#include <cerrno>
#include <cstring>

#include "afe/afe.h"
#include "chip/chip.h"
#include "platform/ioctrl.h"
#include "platform/log.h"

// Records handed to the caller; each stays valid until it is filled again.
kvr_frame_data frame_data;
kvr_frame_data sos_frame_data;

namespace {

// cmd_handler arguments: every pending command, or index 0 (clear status).
constexpr int32_t kFullPass = -1;
constexpr int32_t kClearStatusOnly = 0;

// When the chip side has just reset the IC: empties the SOS record except
// for its status word, clears the request and hands the record out.
// Otherwise NULL.
kvr_frame_data *sos_frame_if_needed(const char *tag) {
  if (!vendor_need_sos()) {
    return nullptr;
  }
  memset(&sos_frame_data, 0, sizeof sos_frame_data);
  sos_frame_data.status = KVR_AFE_STATUS_SOS;
  log_error(tag, "OUT. due to SOS.");
  set_sos_flag(0);
  return &sos_frame_data;
}

} // namespace

ioctrl_framedata *get_ioctr_frame() {
  ioctrl_framedata *req = vendor_get_ioctrl_framedata();
  const int32_t err = ioctrl_get_frame(req);
  if (err == 0) {
    // A good frame ends any run of time-outs.
    set_etimeout_cnt(0);
    return req;
  }
  // In STANDBY the IC may well be stopped: a time-out there is expected and
  // is neither counted nor diagnosed. Repeated time-outs otherwise let the
  // diagnosis raise the SOS request that the next call acts on.
  if (err == ETIMEDOUT && is_state_not_standby()) {
    increment_etimeout_cnt();
    log_error(__func__, "ETIMEDOUT with KVR_STATE_WORKING status");
    vendor_print_ic_debug_info();
  }
  log_error(__func__, "Get frame ret error = %d, %s", err, strerror(err));
  return nullptr;
}

kvr_frame_data *parse_ioctrl_frame(ioctrl_framedata *req) {
  if (req == nullptr) {
    return nullptr;
  }
  if (req->timestamp != nullptr) {
    const log_timestamp ts = log_update_timestamp({req->timestamp[0], req->timestamp[1]});
    frame_data.timestamp_sec = ts.sec;
    frame_data.timestamp_usec = ts.usec;
  }
  if (!vendor_parse_ioctrl_frame(req, &frame_data)) {
    log_error(__func__, "Error parsing frame, return NULL");
    return nullptr;
  }
  return &frame_data;
}

kvr_frame_data *get_sos_frame() {
  return sos_frame_if_needed(__func__);
}

kvr_frame_data *kvr_afe_get_frame() {
  NLOG(LOG_LEVEL_INFO, __func__, "IN.");
  if (!afe_state_allows(MASK_WORKING | MASK_STANDBY, __func__)) {
    return nullptr;
  }

  // The chip side has just reset the IC: hand out the SOS record and
  // nothing else in this call.
  if (kvr_frame_data *sos = sos_frame_if_needed(__func__)) {
    return sos;
  }

  // While frames wait in the driver only the cheap status clear runs, so
  // that the caller keeps up with the scan rate; everything else waits for
  // a call that finds the driver's queue empty.
  const uint32_t queued = ioctrl_get_frame_count();
  if (queued != 0) {
    NLOG(LOG_LEVEL_INFO, __func__, "Frame buffer: %d", static_cast<int32_t>(queued));
    cmd_handler(kClearStatusOnly);
  } else {
    NLOG(LOG_LEVEL_INFO, __func__, "Intializing command handler functions");
    cmd_handler(kFullPass);
  }

  kvr_frame_data *result = nullptr;
  for (;;) {
    NLOG(LOG_LEVEL_INFO, __func__, "Read from driver");
    result = parse_ioctrl_frame(get_ioctr_frame());
    if (!vendor_loop_get_frame()) {
      break;
    }
    NLOG(LOG_LEVEL_WARNING, __func__, "!!!warning!!! read frame again");
  }
  NLOG(LOG_LEVEL_INFO, __func__, "OUT");
  return result;
}
