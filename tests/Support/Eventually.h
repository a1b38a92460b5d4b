#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace support {

// Longer than anything takes on a slow machine under a sanitizer; reached only by a test that fails.
inline constexpr std::chrono::seconds kDeadline{60};

// Waits until something holds that another thread or process brings about.
inline bool eventually(const std::function<bool()>& holds) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace support
