// Collects what is logged while it lives, private values shown.
#pragma once

#include <algorithm>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Log.h"

namespace support {

class CapturedLog {
 public:
  explicit CapturedLog(platform::LogLevel least = platform::LogLevel::Debug) {
    platform::setLogSink(
        [this](const platform::LogLine& line) {
          std::lock_guard guard(mutex_);
          lines_.push_back(line);
        },
        least);
  }
  ~CapturedLog() { platform::setLogSink({}); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // How often exactly this line was logged.
  std::size_t count(platform::LogLevel level, std::string_view category, std::string_view text) const {
    std::lock_guard guard(mutex_);
    return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const platform::LogLine& line) {
      return line.level == level && line.category == category && line.text == text;
    }));
  }
  bool has(platform::LogLevel level, std::string_view category, std::string_view text) const {
    return count(level, category, text) > 0;
  }
  // How many lines contain the text.
  int count(std::string_view part) const {
    std::lock_guard guard(mutex_);
    return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const platform::LogLine& line) {
      return line.text.find(part) != std::string::npos;
    }));
  }
  std::vector<platform::LogLine> lines() const {
    std::lock_guard guard(mutex_);
    return lines_;
  }
  void clear() {
    std::lock_guard guard(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<platform::LogLine> lines_;
};

// For failure messages: EXPECT_TRUE(log.has(…)) << log.
inline std::ostream& operator<<(std::ostream& out, const CapturedLog& log) {
  for (const platform::LogLine& line : log.lines()) out << line.category << ": " << line.text << '\n';
  return out;
}

}  // namespace support
