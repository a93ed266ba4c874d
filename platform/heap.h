// Heap blocks taken through the OS seam, and an owner that frees them on
// every path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/os.h"

inline void *heap_alloc(size_t size) {
  return os().malloc(size);
}
inline void heap_free(void *ptr) {
  if (ptr != nullptr) {
    os().free(ptr);
  }
}

// Owns one heap block; frees it when it goes out of scope.
template <typename T = uint8_t> class heap_buffer {
public:
  heap_buffer() = default;
  explicit heap_buffer(size_t count) : ptr_(static_cast<T *>(heap_alloc(count * sizeof(T)))) {}
  heap_buffer(const heap_buffer &) = delete;
  heap_buffer &operator=(const heap_buffer &) = delete;
  heap_buffer(heap_buffer &&other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
  heap_buffer &operator=(heap_buffer &&other) noexcept {
    if (this != &other) {
      reset();
      ptr_ = std::exchange(other.ptr_, nullptr);
    }
    return *this;
  }
  ~heap_buffer() { reset(); }

  T *get() const { return ptr_; }
  T &operator[](size_t i) const { return ptr_[i]; }
  explicit operator bool() const { return ptr_ != nullptr; }
  // Gives up ownership.
  T *release() { return std::exchange(ptr_, nullptr); }
  void reset() { heap_free(std::exchange(ptr_, nullptr)); }

private:
  T *ptr_ = nullptr;
};
