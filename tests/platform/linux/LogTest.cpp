#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "platform/Log.h"

namespace platform {
namespace {

using Environment = std::vector<std::pair<const char*, const char*>>;

// What a process with that environment writes to its standard error. A process of its own: the environment is read
// once.
std::string logged(const Environment& environment, const std::function<void()>& work) {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe(ends.data()), 0);
  pid_t child = ::fork();
  if (child == 0) {
    for (const char* name : {"VANTREL_LOG", "VANTREL_LOG_PRIVATE", "JOURNAL_STREAM"}) ::unsetenv(name);
    for (auto& [name, value] : environment) ::setenv(name, value, 1);
    ::dup2(ends[1], STDERR_FILENO);
    work();
    ::_exit(0);
  }
  ::close(ends[1]);
  std::string text;
  std::array<char, 4096> buffer{};
  for (ssize_t got; (got = ::read(ends[0], buffer.data(), buffer.size())) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  ::close(ends[0]);
  ::waitpid(child, nullptr, 0);
  return text;
}

void logOneOfEach() {
  auto ops = makeLogger("com.vantrel.test", "ops");
  VK_LOG(*ops, Debug, "debug %d", 1);
  VK_LOG(*ops, Info, "info");
  VK_LOG(*ops, Default, "default");
  VK_LOG(systemLog(), Error, "error");
  VK_LOG(defaultLog(), Fault, "fault");
}

// The lines without the time, whose form is checked.
std::string withoutTimes(const std::string& text) {
  std::string result;
  std::size_t at = 0;
  for (std::size_t end; (end = text.find('\n', at)) != text.npos; at = end + 1) {
    std::string line = text.substr(at, end - at + 1);
    std::string form = line.substr(0, 28);
    for (char& c : form) c = c >= '0' && c <= '9' ? '0' : c;
    EXPECT_EQ(form, "0000-00-00T00:00:00.000000Z ");
    result += line.substr(28);
  }
  return result;
}

TEST(Log, ShowsWhatTheEnvironmentAsksFor) {
  EXPECT_EQ(withoutTimes(logged({}, logOneOfEach)),
            "default ops: default\nerror system: error\nfault default: fault\n");
  EXPECT_EQ(withoutTimes(logged({{"VANTREL_LOG", "fault"}}, logOneOfEach)), "fault default: fault\n");
  EXPECT_EQ(withoutTimes(logged({{"VANTREL_LOG", "debug"}}, logOneOfEach)).substr(0, 28),
            "debug ops: debug 1\ninfo ops:");
  EXPECT_EQ(logged({{"JOURNAL_STREAM", "8:1"}, {"VANTREL_LOG", "debug"}}, logOneOfEach),
            "<7>debug ops: debug 1\n<6>info ops: info\n<5>default ops: default\n<3>error system: error\n"
            "<2>fault default: fault\n");
}

TEST(Log, HidesPrivateValuesUnlessAsked) {
  auto work = [] { VK_LOG(defaultLog(), Error, "%s %{public}s %d", "secret", "open", 5); };
  EXPECT_EQ(withoutTimes(logged({}, work)), "error default: <private> open 5\n");
  EXPECT_EQ(withoutTimes(logged({{"VANTREL_LOG_PRIVATE", "1"}}, work)), "error default: secret open 5\n");
}

TEST(Log, KeepsAnEntryOnOneLineOfBoundedLength) {
  std::string hostile = "a\nb\x1b[2J\x7f\xc2\x9b caf\xc3\xa9";
  EXPECT_EQ(withoutTimes(logged({}, [&] { VK_LOG(defaultLog(), Error, "%{public}s", hostile); })),
            "error default: a\\nb\\x1b[2J\\x7f\xc2\\x9b caf\xc3\xa9\n");
  std::string endless(1 << 20, 'x');
  std::string line = logged({}, [&] { VK_LOG(defaultLog(), Error, "%{public}s", endless); });
  EXPECT_LT(line.size(), 20000u);
  EXPECT_TRUE(line.ends_with("xxx...\n"));
}

TEST(Log, RefusesCategoriesThatWouldBreakALine) {
  for (const char* name : {"", "two words", "a:b", "a\nb"})
    EXPECT_EQ(makeLogger("com.vantrel.test", name), nullptr) << name;
  EXPECT_EQ(makeLogger("", "ops"), nullptr);
}

}  // namespace
}  // namespace platform
