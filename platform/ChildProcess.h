// A program that runs under this one, in front of the same person.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace platform {

class ChildProcess {
 public:
  // Starts command[0], looked up in PATH unless it has a slash, with this process's environment and standard streams.
  // Null and *errorNumber when it cannot be started.
  static std::unique_ptr<ChildProcess> start(const std::vector<std::string>& command, int* errorNumber);
  // The exit status that shells use for a command that could not be started: 127 not found, 126 for all else.
  static int statusOfFailedStart(int errorNumber);
  virtual ~ChildProcess() = default;

  virtual std::int32_t pid() const = 0;
  // Waits for its end: its exit status, or 128 + n when signal n ended it. In an InterruptScope requests to end are
  // passed on to it, unless it got them from the terminal itself.
  virtual int wait() = 0;
};

// The same wait for a child that something else started.
int waitForChild(std::int32_t pid);

}  // namespace platform
