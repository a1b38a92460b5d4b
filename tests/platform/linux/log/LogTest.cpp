#include <gtest/gtest.h>

#include <functional>
#include <regex>

#include "platform/Log.h"
#include "tests/Support/ChildProgram.h"

namespace platform {
namespace {

using Environment = std::vector<std::pair<const char*, const char*>>;

// What a process with that environment writes to its standard error. A process of its own: the environment is read
// once.
std::string logged(const Environment& environment, const std::function<void()>& work) {
  support::ScratchRoot scratch;
  const std::filesystem::path file = scratch.write("/log", "");
  support::ChildProgram child([&] {
    for (const char* name : {"VANTREL_LOG", "VANTREL_LOG_PRIVATE", "JOURNAL_STREAM"}) ::unsetenv(name);
    for (auto& [name, value] : environment) ::setenv(name, value, 1);
    ::dup2(::open(file.c_str(), O_WRONLY | O_APPEND), STDERR_FILENO);
    work();
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  return scratch.read("/log");
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
  static const std::regex time("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z ");
  EXPECT_TRUE(std::regex_search(text, time, std::regex_constants::match_continuous)) << text;
  return std::regex_replace(text, time, "");
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
