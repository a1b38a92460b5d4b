// A program under test: started with its own streams, talked to over standard input, waited for with a deadline.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace integration {

// Longer than anything takes on a slow machine under a sanitizer; reached only by a test that fails.
inline constexpr std::chrono::seconds kDeadline{60};

// Waits until something holds that another process brings about.
inline bool eventually(const std::function<bool()>& condition) {
  auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

inline std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

struct Result {
  int status = -1;  // 128 + n when signal n ended it
  std::string out, err;
};

class Program {
 public:
  using Environment = std::map<std::string, std::string>;

  // Streams are kept as files in `scratch`. An empty value takes a variable out.
  Program(const std::filesystem::path& scratch, const std::vector<std::string>& command,
          const Environment& environment) {
    static int number = 0;
    std::string base = scratch / ("program-" + std::to_string(getpid()) + "-" + std::to_string(number++));
    outPath_ = base + ".out";
    errPath_ = base + ".err";
    int input[2];
    EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
    input_ = input[1];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    std::vector<char*> arguments, variables;
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    std::vector<std::string> merged = mergedEnvironment(environment);
    for (std::string& variable : merged) variables.push_back(variable.data());
    arguments.push_back(nullptr);
    variables.push_back(nullptr);
    int error = posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), variables.data());
    EXPECT_EQ(error, 0) << command.front();
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    if (error != 0) pid_ = -1;
  }
  ~Program() {
    closeInput();
    if (pid_ > 0) ::kill(pid_, SIGKILL);
    wait();
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t pid() const { return pid_; }
  void write(const std::string& text) {
    EXPECT_EQ(::write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void closeInput() {
    if (input_ >= 0) ::close(std::exchange(input_, -1));
  }
  void signal(int number) const { ::kill(pid_, number); }
  std::string out() const { return contentOf(outPath_); }
  std::string err() const { return contentOf(errPath_); }
  bool says(const std::string& text) const {
    return eventually([&] { return out().find(text) != std::string::npos; });
  }

  bool hasEnded() {
    if (pid_ <= 0) return true;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
    pid_ = -1;
    status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return true;
  }
  // Closes its input and waits for its end; one that does not end is killed.
  Result finish() {
    closeInput();
    EXPECT_TRUE(eventually([&] { return hasEnded(); })) << "did not end; on standard error: " << err();
    return {status_, out(), err()};
  }

 private:
  static std::vector<std::string> mergedEnvironment(const Environment& changes) {
    Environment all;
    for (char** variable = environ; *variable != nullptr; ++variable) {
      std::string text = *variable;
      std::size_t equals = text.find('=');
      all[text.substr(0, equals)] = text.substr(equals + 1);
    }
    for (const auto& [name, value] : changes) all[name] = value;
    std::vector<std::string> result;
    for (const auto& [name, value] : all) {
      if (!value.empty()) result.push_back(name + "=" + value);
    }
    return result;
  }
  void wait() {
    if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  pid_t pid_ = -1;
  int input_ = -1;
  int status_ = -1;
  std::string outPath_, errPath_;
};

}  // namespace integration
