// Marks the library's internal functions and globals that are part of its
// exported interface (C linkage, default visibility). Everything else is
// hidden by -fvisibility=hidden.
#pragma once

#define AFEHAL_EXPORT extern "C" __attribute__((visibility("default")))
