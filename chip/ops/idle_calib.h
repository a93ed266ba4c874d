// Idle scanning, calibration, autotune and the frame time-out diagnosis.
// The operations the AFE layer calls are declared in chip/chip.h; this
// header holds what else the module owns.
#pragma once

#include <atomic>

#include "afehal/afehal.h"

// The calibration-data callback pair the service hands in. It is kept for
// the service; this chip never calls it.
struct calib_data_ops {
  std::atomic<kvr_afe_calib_data_func> function{nullptr};
  std::atomic<kvr_afe_calib_data_func> context{nullptr};
};
extern calib_data_ops autotune_ops;

// Idle baseline and idle touch threshold: this IC takes neither, so both
// only report success.
bool vendor_reset_idle_baseline();
bool vendor_idle_threshold();
