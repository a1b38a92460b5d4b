// A value that is made when it is first wanted and then kept. Two threads may make it at the same time; one of the two
// values is kept, and both are told that one. Reading costs one load.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

namespace vkd {

template <class T>
class SetOnce {
 public:
  SetOnce() = default;
  ~SetOnce() { reset(); }
  SetOnce(const SetOnce&) = delete;
  SetOnce& operator=(const SetOnce&) = delete;

  // Null until it was set.
  const T* get() const { return value_.load(std::memory_order_acquire); }
  const T* set(std::unique_ptr<const T> value) const {
    const T* kept = nullptr;
    if (!value_.compare_exchange_strong(kept, value.get(), std::memory_order_acq_rel)) return kept;
    return value.release();
  }
  // Only while nobody reads.
  void reset() { delete value_.exchange(nullptr, std::memory_order_acq_rel); }

 private:
  mutable std::atomic<const T*> value_{nullptr};
};

}  // namespace vkd
