// How a command-line program waits: for an answer that comes on another thread, for no longer than it was told, and
// never longer than the person in front of it wants.
//
//   InterruptScope scope;                        // from here on ^C is an answer, not the end
//   if (waiter->wait(limit) == WaitResult::Interrupted) release(hold);
#pragma once

#include <chrono>
#include <memory>
#include <optional>

namespace platform {

// Called once at the start of main: an interrupt, hang-up or termination ends the process with 128 + its number,
// without a message; a closed pipe ends it as quietly.
void endQuietlyOnInterrupt();

// While one exists those requests do not end the process: waits report them. At most one at a time, on the main thread.
class InterruptScope {
 public:
  InterruptScope();
  ~InterruptScope();
  InterruptScope(const InterruptScope&) = delete;
  InterruptScope& operator=(const InterruptScope&) = delete;

  struct Signal {
    int number = 0;             // 0 when none came
    bool fromTerminal = false;  // the whole foreground group got it, children included
  };
  // The oldest signal that was not taken yet, taken away from later waits.
  static Signal take();
  // Readable while a signal waits to be taken; -1 outside a scope.
  static int descriptor();
};

enum class WaitResult { Done, TimedOut, Interrupted };

// Waits for one event.
class Waiter {
 public:
  static std::unique_ptr<Waiter> make();
  virtual ~Waiter() = default;
  // From any thread, any number of times; also before anybody waits.
  virtual void signal() = 0;
  virtual WaitResult wait(std::optional<std::chrono::nanoseconds> timeout) = 0;
};

}  // namespace platform
