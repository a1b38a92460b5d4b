// A program under test: started with its own streams, talked to over standard input, waited for with a deadline.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/Support/Eventually.h"

namespace integration {

using support::eventually, support::kDeadline;

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
    const std::string base = scratch / ("program-" + std::to_string(getpid()) + "-" + std::to_string(number++));
    outPath_ = base + ".out";
    errPath_ = base + ".err";
    std::vector<std::string> words{"/usr/bin/env"};
    for (const auto& [name, value] : environment)
      words.push_back(value.empty() ? "--unset=" + name : name + "=" + value);
    words.insert(words.end(), command.begin(), command.end());
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int input[2];
    EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
    input_ = input[1];
    constexpr int kNewFile = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath_.c_str(), kNewFile, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, errPath_.c_str(), kNewFile, 0600);
    EXPECT_EQ(posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ), 0) << command.front();
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
  }
  ~Program() {
    closeInput();
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
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
  // Returns when all of it stands still.
  void pause() const {
    signal(SIGSTOP);
    ::waitpid(pid_, nullptr, WUNTRACED);
  }
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
  pid_t pid_ = -1;
  int input_ = -1;
  int status_ = -1;
  std::string outPath_, errPath_;
};

}  // namespace integration
