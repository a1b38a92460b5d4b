#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "platform/linux/sandbox/LinuxSandboxService.h"
#include "tests/Support/ChildProgram.h"

namespace platform {
namespace {

using support::ChildProgram;
using support::installProgram;
using support::plist;
using support::ScratchRoot;

class Sandbox : public ::testing::Test {
 protected:
  std::unique_ptr<LinuxSandboxService> service() {
    return std::make_unique<LinuxSandboxService>(scratch_.root(), instances_);
  }
  std::string token(LinuxSandboxService& from, const std::string& path) {
    error_ = 0;
    return from.issueReadExtension(path, &error_).value_or("");
  }
  std::size_t lines() {
    std::string table = scratch_.read("/run/sandbox/issued");
    return static_cast<std::size_t>(std::count(table.begin(), table.end(), '\n'));
  }
  ScratchRoot scratch_;
  std::shared_ptr<RunningInstances> instances_ = std::make_shared<RunningInstances>(scratch_.root());
  int error_ = 0;
};

TEST_F(Sandbox, TokensAreOneForAPathAndNoneForWhatIsNotThere) {
  scratch_.write("/A.app/Info.plist", "");
  scratch_.write("/odd % \n name", "");
  scratch_.link("/A.app", "/B.app");
  auto issuer = service();
  std::string first = token(*issuer, "/A.app");
  EXPECT_TRUE(first.starts_with("vkread1:"));
  EXPECT_EQ(token(*issuer, "/B.app/../A.app/."), first);
  EXPECT_EQ(lines(), 1U);
  std::string odd = token(*issuer, "/odd % \n name");
  EXPECT_NE(odd, first);
  EXPECT_EQ(lines(), 2U);
  EXPECT_EQ(token(*issuer, "/C.app"), "");
  EXPECT_EQ(error_, ENOENT);
  // Another daemon after this one: same tokens, no second record.
  EXPECT_EQ(token(*service(), "/A.app"), first);
  EXPECT_EQ(lines(), 2U);
  EXPECT_GT(service()->consume(odd), 0);
  // The table betrays no token.
  EXPECT_EQ(scratch_.read("/run/sandbox/issued").find(first.substr(8)), std::string::npos);
  EXPECT_EQ(std::filesystem::status(scratch_.host("/run/sandbox/secret")).permissions(), std::filesystem::perms(0600));
}

TEST_F(Sandbox, TokensAreCheckedByAnyProcessAndMadeUpByNone) {
  scratch_.write("/A.app/Info.plist", "");
  auto issuer = service();
  std::string good = token(*issuer, "/A.app");
  ChildProgram consumer([&] {
    bool stranger = ::geteuid() == 0;
    if (stranger && (::setgid(12345) != 0 || ::setuid(12345) != 0)) return 1;
    auto own = service();
    std::int64_t handle = own->consume(good);
    std::int64_t second = own->consume(good);
    own->release(handle);
    own->release(handle);
    if (handle <= 0 || second <= 0 || handle == second) return 2;
    // A stranger can neither issue nor pass off what he reads in the table for a token.
    if (stranger && own->issueReadExtension("/A.app", nullptr)) return 3;
    std::string line = scratch_.read("/run/sandbox/issued");
    for (const std::string& forged : {std::string("vkread1:") + line.substr(0, 64), good + "0", good.substr(0, 71),
                                      std::string("vkread1:"), std::string()}) {
      if (own->consume(forged) != -1) return 4;
    }
    return 0;
  });
  EXPECT_EQ(consumer.wait(), 0);
  // A line that was torn by a crash spoils nothing, for who reads or who writes on.
  auto reader = service();
  std::ofstream(scratch_.host("/run/sandbox/issued"), std::ios::app) << "0123456789 torn";
  EXPECT_GT(reader->consume(good), 0);
  scratch_.write("/B.app/Info.plist", "");
  std::string next = token(*service(), "/B.app");
  EXPECT_GT(reader->consume(next), 0);
  EXPECT_EQ(lines(), 2U);
  std::filesystem::remove_all(scratch_.host("/A.app"));
  EXPECT_EQ(reader->consume(good), -1);
}

TEST_F(Sandbox, SecretThatOthersCouldHaveWrittenIsNotUsed) {
  scratch_.write("/A.app/Info.plist", "");
  scratch_.write("/run/sandbox/secret", std::string(32, 'x'), 0644);
  EXPECT_EQ(token(*service(), "/A.app"), "");
  EXPECT_EQ(error_, EACCES);
  ::chmod(scratch_.host("/run/sandbox/secret").c_str(), 0600);
  EXPECT_NE(token(*service(), "/A.app"), "");
}

TEST_F(Sandbox, HoldsProcessesThatSaySoAndRunningInstances) {
  auto path = installProgram(scratch_, "/bin/app");
  auto sandboxed = service();
  ChildProgram program({path, "100"});
  EXPECT_FALSE(sandboxed->isSandboxed(program.pid()));
  for (const auto& [value, expected] :
       {std::pair{"<false/>", false}, {"<integer>0</integer>", false}, {"<true/>", true}}) {
    scratch_.write("/bin/app.entitlements",
                   plist(std::string("<dict><key>com.vantrel.security.sandbox</key>") + value + "</dict>"));
    EXPECT_EQ(sandboxed->isSandboxed(program.pid()), expected) << value;
  }
  ::chmod(scratch_.host("/bin/app.entitlements").c_str(), 0666);
  EXPECT_TRUE(sandboxed->isSandboxed(program.pid())) << "who cannot tell does not say no";
  std::filesystem::remove(scratch_.host("/bin/app.entitlements"));
  EXPECT_FALSE(sandboxed->isSandboxed(program.pid()));
  ASSERT_EQ(instances_->record({*ProcessName::of(program.pid()), "com.example.p", "1", "/bin/app", "plugin", 0}), 0);
  EXPECT_TRUE(sandboxed->isSandboxed(program.pid()));
  pid_t pid = program.pid();
  program.stop();
  EXPECT_TRUE(sandboxed->isSandboxed(pid));
}

}  // namespace
}  // namespace platform
