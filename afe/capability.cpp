// Hardware capability, wake-up gesture, the entry points kept only for
// interface compatibility, and the exported integer square root.
#include "afe/afe.h"
#include "chip/chip.h"
#include "platform/log.h"

kvr_hw_cap *kvr_afe_get_hw_cap() {
  NLOG(LOG_LEVEL_ENTRY, __func__, "IN");
  if (!afe_state_allows(MASK_WORKING, __func__)) {
    return nullptr;
  }
  kvr_hw_cap *cap = vendor_update_hw_cap();
  NLOG(LOG_LEVEL_ENTRY, __func__, "OUT");
  return cap;
}

uint32_t kvr_afe_enable_wakeup_gesture(uint32_t gesture) {
  NLOG(LOG_LEVEL_ENTRY, __func__, "IN");
  if (!afe_state_allows(MASK_WORKING | MASK_STANDBY, __func__)) {
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  // Only the low byte is kept but the whole argument is compared, so a
  // gesture value of 256 or more always reaches the chip side again.
  if (static_cast<uint32_t>(wakeup_gesture.load()) != gesture) {
    NLOG(LOG_LEVEL_INFO, __func__, "Gesture: %d", static_cast<int32_t>(gesture));
    vendor_afe_enable_wakeup_gesture(gesture);
    wakeup_gesture.store(static_cast<uint8_t>(gesture));
  }
  NLOG(LOG_LEVEL_ENTRY, __func__, "OUT");
  return KVR_AFE_OK;
}

uint32_t kvr_afe_disable_wakeup_gesture() {
  NLOG(LOG_LEVEL_ENTRY, __func__, "IN");
  if (!afe_state_allows(MASK_WORKING | MASK_STANDBY, __func__)) {
    return KVR_AFE_ERR_STATE_OR_ARG;
  }
  if (wakeup_gesture.load() != 0) {
    NLOG(LOG_LEVEL_INFO, __func__, "Disable wakeup gesture");
    vendor_afe_disable_wakeup_gesture();
    wakeup_gesture.store(0);
  }
  NLOG(LOG_LEVEL_ENTRY, __func__, "OUT");
  return KVR_AFE_OK;
}

// ---- Kept for interface compatibility: any state, one line, result 0 ------

uint32_t kvr_afe_reset_freq_state() {
  NLOG(LOG_LEVEL_INFO, __func__, "function is empty due to deprecation");
  return KVR_AFE_OK;
}

uint32_t kvr_afe_set_freq_point_min_hold_time(uint16_t ms) {
  NLOG(LOG_LEVEL_INFO, __func__, "function is empty due to deprecation. %d", ms);
  return KVR_AFE_OK;
}

uint32_t kvr_afe_set_idle_scan_rate(uint8_t rate) {
  NLOG(LOG_LEVEL_INFO, __func__, "function is empty: %d", rate);
  return KVR_AFE_OK;
}

uint32_t kvr_afe_start_freq_shift() {
  NLOG(LOG_LEVEL_INFO, __func__, "this api has been deprecated, no need to implement it.");
  return KVR_AFE_OK;
}

uint32_t kvr_afe_set_wakeup_gesture_scan_rate(uint8_t rate) {
  NLOG(LOG_LEVEL_INFO, __func__, "function is empty: %d", rate);
  return KVR_AFE_OK;
}

// ---- Integer square root ------------------------------------------------------

namespace {

// One step of the bit-by-bit root: keep bit if the root with it set still
// squares to at most x. A candidate below 2^16 squares without overflow.
template <unsigned bit> inline void sqrt32_step(uint32_t x, uint32_t &root) {
  const uint32_t candidate = root | (1u << bit);
  if (candidate * candidate <= x) {
    root = candidate;
  }
}

} // namespace

uint16_t sqrt32(uint32_t x) {
  // The top step starts from root 0: (2^15)^2 = 2^30.
  uint32_t root = x >= (1u << 30) ? (1u << 15) : 0u;
  sqrt32_step<14>(x, root);
  sqrt32_step<13>(x, root);
  sqrt32_step<12>(x, root);
  sqrt32_step<11>(x, root);
  sqrt32_step<10>(x, root);
  sqrt32_step<9>(x, root);
  sqrt32_step<8>(x, root);
  sqrt32_step<7>(x, root);
  sqrt32_step<6>(x, root);
  sqrt32_step<5>(x, root);
  sqrt32_step<4>(x, root);
  sqrt32_step<3>(x, root);
  sqrt32_step<2>(x, root);
  sqrt32_step<1>(x, root);
  sqrt32_step<0>(x, root);
  return static_cast<uint16_t>(root);
}
