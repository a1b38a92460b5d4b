// When a process started: with its id, what names a process for good, since ids are used again.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// In ticks since the machine started; nothing when no process of that id runs (one that has ended and is not yet waited
// for does not run).
std::optional<std::uint64_t> processStart(pid_t pid);

struct ProcessName {
  pid_t pid = 0;
  std::uint64_t start = 0;

  bool runs() const { return processStart(pid) == start; }
  // "812-90211", as files of processes are named.
  std::string text() const;
  static std::optional<ProcessName> parse(std::string_view text);
  // The process of that id that runs now.
  static std::optional<ProcessName> of(pid_t pid);
  friend bool operator==(const ProcessName&, const ProcessName&) = default;
};

// Nanoseconds since the machine started, the same for all processes.
std::uint64_t machineNow();

}  // namespace platform
