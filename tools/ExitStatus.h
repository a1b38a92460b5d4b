// What every verb answers to the shell, and how one says that it failed.
#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>

namespace vkctl {

// The same for every verb; vkctl(1) has the table. A command that ran under a verb passes its own status on instead.
enum class ExitStatus : int {
  Done = 0,
  Failed = 1,  // the daemon refused for a reason not named below, or the connection broke
  Usage = 2,
  No = 3,        // the answer is no
  NotFound = 4,  // no such plug-in, host or hold
  NotPermitted = 5,
  Busy = 6,         // busy, or held by somebody
  Unreachable = 7,  // no daemon there, or one of another protocol
  TimedOut = 8,
};

inline constexpr int kInterruptedStatus = 128;  // plus the number of the signal

// Of several arguments each is tried; the highest status is what the call answers.
inline ExitStatus worst(ExitStatus a, ExitStatus b) { return std::max(a, b); }

// Ends what is done for one object. `object` may be empty when the whole verb failed before it had one.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus failedWith, std::string failedObject, const std::string& reason)
      : std::runtime_error(reason), status_(failedWith), object_(std::move(failedObject)) {}
  ExitStatus status() const { return status_; }
  const std::string& object() const { return object_; }

 private:
  ExitStatus status_;
  std::string object_;
};

// A signal ended the wait; the call ends with 128 + its number and says nothing.
struct Interrupted {
  int signal;
};

}  // namespace vkctl
