#include "platform/linux/jobs/ProcessStart.h"

#include <fcntl.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>

#include "platform/linux/files/UniqueFd.h"

namespace platform {
namespace {

// Fields of /proc/<pid>/stat behind the parenthesised name: the state is the first, the start time the 20th.
constexpr int kStartField = 20;

template <class Number>
bool readNumber(std::string_view text, Number* result) {
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *result);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::optional<std::uint64_t> processStart(pid_t pid) {
  std::array<char, 32> path{};
  std::snprintf(path.data(), path.size(), "/proc/%d/stat", pid);
  UniqueFd file(::open(path.data(), O_RDONLY | O_CLOEXEC));
  std::array<char, 1024> buffer{};
  ssize_t length = file ? ::read(file.get(), buffer.data(), buffer.size()) : -1;
  if (length <= 0) return std::nullopt;
  std::string_view text(buffer.data(), static_cast<std::size_t>(length));
  // The name may hold anything, parentheses too.
  std::size_t at = text.rfind(") ");
  if (at == std::string_view::npos) return std::nullopt;
  text.remove_prefix(at + 2);
  if (text.starts_with('Z') || text.starts_with('X')) return std::nullopt;
  for (int field = 1; field < kStartField; ++field) {
    std::size_t space = text.find(' ');
    if (space == std::string_view::npos) return std::nullopt;
    text.remove_prefix(space + 1);
  }
  std::uint64_t start = 0;
  if (!readNumber(text.substr(0, text.find(' ')), &start)) return std::nullopt;
  return start;
}

std::string ProcessName::text() const { return std::to_string(pid) + "-" + std::to_string(start); }

std::optional<ProcessName> ProcessName::parse(std::string_view text) {
  ProcessName name;
  std::size_t dash = text.find('-');
  if (dash == std::string_view::npos || !readNumber(text.substr(0, dash), &name.pid) || name.pid <= 0 ||
      !readNumber(text.substr(dash + 1), &name.start)) {
    return std::nullopt;
  }
  return name;
}

std::optional<ProcessName> ProcessName::of(pid_t pid) {
  std::optional<std::uint64_t> start = processStart(pid);
  if (!start) return std::nullopt;
  return ProcessName{pid, *start};
}

std::uint64_t machineNow() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace platform
