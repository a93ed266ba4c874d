// The AFE layer's own state and helpers shared by its entry points.
#pragma once

#include <atomic>
#include <cstdint>

#include "afehal/afehal.h"
#include "platform/export.h"

// The state word; exported as a plain u32 for the service.
AFEHAL_EXPORT std::atomic<uint32_t> gu32AFEStatus;
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));
static_assert(std::atomic<uint32_t>::is_always_lock_free);

// Armed wake-up gesture (low byte), 0 when none.
extern std::atomic<uint8_t> wakeup_gesture;

// State masks.
constexpr uint32_t MASK_CLOSED = KVR_STATE_CLOSED;
constexpr uint32_t MASK_PREWORKING = KVR_STATE_PREWORKING;
constexpr uint32_t MASK_WORKING = KVR_STATE_WORKING;
constexpr uint32_t MASK_STANDBY = KVR_STATE_STANDBY;

const char *afe_status_to_str(int32_t state);
bool is_state_not_standby();
// The state check of every guarded entry point: true when the state is in
// mask; otherwise logs the refusal (sink and Android log) under tag.
bool afe_state_allows(uint32_t mask, const char *tag);

// Command queue (afe/cmd_queue.cpp).
AFEHAL_EXPORT void cmd_init();
AFEHAL_EXPORT void cmd_reset_flag();
AFEHAL_EXPORT void cmd_handler(int32_t index);

// Frame retrieval (afe/frame.cpp).
extern kvr_frame_data frame_data;
extern kvr_frame_data sos_frame_data;
#include "platform/ioctrl.h"
AFEHAL_EXPORT ioctrl_framedata *get_ioctr_frame();
AFEHAL_EXPORT kvr_frame_data *parse_ioctrl_frame(ioctrl_framedata *req);
AFEHAL_EXPORT kvr_frame_data *get_sos_frame();

// Restores the AFE layer's load-time state (tests only).
void afe_reset_state();
