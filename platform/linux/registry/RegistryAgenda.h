// What of the registry is to be looked at, and when: files of a bundle change one after another, and looking at it
// shortly after the last of them makes one installation of many writes. Used by one thread at a time.
#pragma once

#include <chrono>
#include <compare>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace platform {

// In the order in which those that are due together are looked at.
struct RegistryUnit {
  enum class Kind { Everything, Application, Bundle };
  Kind kind;
  std::string path;  // a device path; empty for everything
  // NOLINTNEXTLINE(modernize-use-nullptr): the zero is the compiler's own
  friend auto operator<=>(const RegistryUnit&, const RegistryUnit&) = default;
};

class RegistryAgenda {
 public:
  using Clock = std::chrono::steady_clock;
  // Looked at when it was left alone for this long …
  static constexpr std::chrono::milliseconds kQuiet{40};
  // … but not later than this after the first change: somebody may never stop writing.
  static constexpr std::chrono::milliseconds kLongest{1000};
  // What could not be looked at is tried again.
  static constexpr std::chrono::milliseconds kRetry{500};

  void changed(const RegistryUnit& unit, Clock::time_point now);
  void retry(const RegistryUnit& unit, Clock::time_point now);
  // Looked at already, for another reason.
  void done(const RegistryUnit& unit) { items_.erase(unit); }

  std::optional<Clock::time_point> nextDue() const;
  // Those that are due, which are forgotten. Everything spares the others.
  std::vector<RegistryUnit> takeDue(Clock::time_point now);

 private:
  struct Times {
    Clock::time_point latest;
    Clock::time_point due;
  };
  std::map<RegistryUnit, Times> items_;
};

}  // namespace platform
