// The platform log: levels, categories, privacy.
//
//   VK_LOG(vk_ops(), Debug, "client %d is dead", pid);
//
// Arguments are evaluated only when the line is shown. Safe from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/values/Format.h"

namespace platform {

enum class LogLevel { Debug, Info, Default, Error, Fault };

class Logger {
 public:
  explicit Logger(std::string category) : category_(std::move(category)) {}
  bool enabled(LogLevel level) const;
  const std::string& category() const { return category_; }

  template <class... Args>
  void write(LogLevel level, FormatString<std::type_identity_t<Args>...> format, const Args&... args) const {
    std::array<FormatArgument, sizeof...(Args) + 1> list{format_detail::argument(args)...};
    writeArguments(level, format.text(), list.data());
  }

 private:
  void writeArguments(LogLevel level, std::string_view format, const FormatArgument* arguments) const;
  std::string category_;
};

// A category of a subsystem; null when it cannot be made (an empty name, or one that would break a log line).
std::unique_ptr<Logger> makeLogger(std::string_view subsystem, std::string_view category);
// The platform's default log (category "default") and the plain system log ("system").
const Logger& defaultLog();
const Logger& systemLog();

// For tests: lines go to `sink` in place of standard error, all levels from `least` on, private values shown. An empty
// sink restores the machine's log. Not to be called while other threads log.
struct LogLine {
  LogLevel level;
  std::string category;
  std::string text;
};
void setLogSink(std::function<void(const LogLine&)> sink, LogLevel least = LogLevel::Debug);

}  // namespace platform

#define VK_LOG(logger, level, ...)                                    \
  do {                                                                \
    const ::platform::Logger& vkLogger = (logger);                    \
    if (vkLogger.enabled(::platform::LogLevel::level)) [[unlikely]] { \
      vkLogger.write(::platform::LogLevel::level, __VA_ARGS__);       \
    }                                                                 \
  } while (false)
