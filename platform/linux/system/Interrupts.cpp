#include "platform/Interrupts.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "platform/linux/files/UniqueFd.h"

namespace platform {
namespace {

constexpr std::array kEndingSignals{SIGINT, SIGTERM, SIGHUP};
constexpr unsigned char kFromTerminal = 0x80;

// What the handler may touch: the ends of the scope's pipe, -1 while there is none.
std::atomic<int> readEnd{-1};
std::atomic<int> writeEnd{-1};

void onSignal(int number, siginfo_t* info, void* /*context*/) {
  int fd = writeEnd.load(std::memory_order_relaxed);
  if (fd < 0) ::_exit(128 + number);
  int savedErrno = errno;
  auto byte = static_cast<unsigned char>(number);
  if (info->si_code == SI_KERNEL) byte |= kFromTerminal;
  // A full pipe holds thousands of requests to end already.
  [[maybe_unused]] ssize_t written = ::write(fd, &byte, 1);
  errno = savedErrno;
}

class EventWaiter final : public Waiter {
 public:
  EventWaiter() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  void signal() override {
    signalled_.store(true, std::memory_order_release);
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t written = ::write(event_.get(), &one, sizeof one);
  }

  WaitResult wait(std::optional<std::chrono::nanoseconds> timeout) override {
    auto deadline = std::chrono::steady_clock::now() + timeout.value_or(std::chrono::nanoseconds::zero());
    for (;;) {
      std::array<pollfd, 2> fds{pollfd{event_.get(), POLLIN, 0}, pollfd{InterruptScope::descriptor(), POLLIN, 0}};
      timespec remaining{};
      if (timeout) {
        auto left = std::max(deadline - std::chrono::steady_clock::now(), std::chrono::steady_clock::duration::zero());
        auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        remaining.tv_sec = seconds.count();
        remaining.tv_nsec = std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds).count();
      }
      int ready = ::ppoll(fds.data(), fds.size(), timeout ? &remaining : nullptr, nullptr);
      if (ready < 0) continue;  // a signal: its byte is in the pipe now
      // What came before the signal is to be seen behind it: the language knows nothing of descriptors.
      if (signalled_.load(std::memory_order_acquire)) return WaitResult::Done;
      if (fds[1].revents != 0) return WaitResult::Interrupted;
      if (ready == 0 && timeout) return WaitResult::TimedOut;
    }
  }

 private:
  UniqueFd event_;
  std::atomic<bool> signalled_{false};
};

}  // namespace

void endQuietlyOnInterrupt() {
  struct sigaction action {};
  action.sa_sigaction = onSignal;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (int number : kEndingSignals) {
    // A hang-up that was ignored when this was started (nohup) stays ignored. An interrupt does not: shells ignore it
    // for what they start in the background, and what is interrupted together with its script must let go, too.
    struct sigaction before {};
    bool ignored = number == SIGHUP && ::sigaction(number, nullptr, &before) == 0 && before.sa_handler == SIG_IGN;
    if (ignored) continue;
    ::sigaction(number, &action, nullptr);
  }
  std::signal(SIGPIPE, SIG_DFL);
}

InterruptScope::InterruptScope() {
  std::array<int, 2> ends{-1, -1};
  if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return;
  readEnd = ends[0];
  writeEnd = ends[1];
}

InterruptScope::~InterruptScope() {
  int write = writeEnd.exchange(-1);
  int read = readEnd.exchange(-1);
  if (write >= 0) ::close(write);
  if (read >= 0) ::close(read);
}

InterruptScope::Signal InterruptScope::take() {
  unsigned char byte = 0;
  if (descriptor() < 0 || ::read(descriptor(), &byte, 1) != 1) return {};
  return {byte & ~kFromTerminal, (byte & kFromTerminal) != 0};
}

int InterruptScope::descriptor() { return readEnd.load(std::memory_order_relaxed); }

std::unique_ptr<Waiter> Waiter::make() { return std::make_unique<EventWaiter>(); }

}  // namespace platform
