# Third-party packages, all from Debian (scripts/setup installs them).
find_package(Threads REQUIRED)

find_path(ANDROID_LOG_INCLUDE_DIR android/log.h PATHS /usr/include/android REQUIRED)
find_library(ANDROID_LOG_LIBRARY NAMES log PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android
  NO_DEFAULT_PATH REQUIRED)

# Boost.CRC is the independent oracle of the frame CRC in tests and benchmarks.
find_package(Boost 1.74 REQUIRED)

# Highway: the frame CRC and conversion compiled per instruction set, with
# the best one chosen at run time.
find_path(HWY_INCLUDE_DIR hwy/highway.h REQUIRED)
find_library(HWY_LIBRARY NAMES hwy REQUIRED)
