#include "platform/ChildProcess.h"

#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "platform/Interrupts.h"
#include "platform/linux/files/UniqueFd.h"

namespace platform {
namespace {

class SpawnedProcess final : public ChildProcess {
 public:
  explicit SpawnedProcess(pid_t pid) : pid_(pid) {}
  std::int32_t pid() const override { return pid_; }
  int wait() override { return waitForChild(pid_); }

 private:
  pid_t pid_;
};

// The status of a child that has ended.
int reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return ChildProcess::statusOfFailedStart(errno);
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::start(const std::vector<std::string>& command, int* errorNumber) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  pid_t pid = -1;
  int error =
      command.empty() ? EINVAL : ::posix_spawnp(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ);
  if (error != 0) {
    if (errorNumber != nullptr) *errorNumber = error;
    return nullptr;
  }
  return std::make_unique<SpawnedProcess>(pid);
}

int ChildProcess::statusOfFailedStart(int errorNumber) { return errorNumber == ENOENT ? 127 : 126; }

int waitForChild(std::int32_t pid) {
  UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  while (process) {
    std::array<pollfd, 2> fds{pollfd{process.get(), POLLIN, 0}, pollfd{InterruptScope::descriptor(), POLLIN, 0}};
    if (::poll(fds.data(), fds.size(), -1) < 0) continue;
    if (fds[0].revents != 0) break;
    if (fds[1].revents == 0) continue;
    InterruptScope::Signal signal = InterruptScope::take();
    if (signal.number != 0 && !signal.fromTerminal) ::kill(pid, signal.number);
  }
  return reap(pid);
}

}  // namespace platform
