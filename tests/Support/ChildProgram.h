// Real child processes for tests.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/Support/Eventually.h"
#include "tests/Support/ScratchRoot.h"

namespace support {

// Copies a program of the host into the device; answers the host path.
inline std::filesystem::path installProgram(const ScratchRoot& scratch, const std::string& devicePath,
                                            const std::string& program = "/bin/sleep") {
  std::filesystem::path path = scratch.host(devicePath);
  std::filesystem::create_directories(path.parent_path());
  std::filesystem::copy_file(program, path, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::permissions(path, std::filesystem::perms(0755));
  return path;
}

// A child that runs a program, or code of the test, until it ends or this object does.
class ChildProgram {
 public:
  explicit ChildProgram(std::vector<std::string> command) : pid_(::fork()) {
    if (pid_ != 0) {
      // It executes the program, or has ended.
      eventually(
          [&] { return std::filesystem::exists("/proc/" + std::to_string(pid_) + "/exe") && executes(command[0]); });
      return;
    }
    std::vector<char*> arguments;
    for (std::string& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
  }
  explicit ChildProgram(const std::function<int()>& body) : pid_(::fork()) {
    if (pid_ == 0) ::_exit(body());
  }
  // A child that was made otherwise.
  explicit ChildProgram(pid_t pid) : pid_(pid) {}
  ~ChildProgram() { stop(); }
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  pid_t pid() const { return pid_; }
  // Its exit status, or 128 + signal.
  int wait() {
    int status = 0;
    while (pid_ > 0 && ::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  void stop() {
    if (pid_ > 0) ::kill(pid_, SIGKILL);
    if (pid_ > 0) wait();
  }

 private:
  bool executes(const std::string& path) const {
    std::error_code error;
    return std::filesystem::equivalent("/proc/" + std::to_string(pid_) + "/exe", path, error) || error;
  }
  pid_t pid_;
};

}  // namespace support
