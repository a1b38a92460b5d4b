#include <gtest/gtest.h>

#include <cerrno>

#include "platform/linux/identity/Entitlements.h"
#include "platform/linux/identity/LinuxCodeSigning.h"
#include "platform/linux/messages/PeerIdentity.h"
#include "tests/Support/ChildProgram.h"

namespace platform {
namespace {

using support::ChildProgram;
using support::installProgram;
using support::plist;
using support::ScratchRoot;

const std::string kEntitlements = plist("<dict><key>may</key><true/><key>list</key><array/></dict>");
constexpr uid_t kStranger = 12345;

class EntitlementsOf : public ::testing::Test {
 protected:
  // What reading answers, in one word.
  std::string read(const std::string& executable) {
    std::optional<DomainError> error;
    PlistValue value = readEntitlements(*scratch_.root(), executable, &error);
    if (value && !error) return value["may"].boolValue() ? "entitled" : "odd";
    return error ? (value ? "both" : "error") : "none";
  }
  ScratchRoot scratch_;
};

TEST_F(EntitlementsOf, CountOnlyWhenNobodyElseCanWriteThem) {
  EXPECT_EQ(read("/bin/none"), "none");  // nor such a folder
  auto file = scratch_.write("/bin/E.entitlements", kEntitlements);
  EXPECT_EQ(read("/bin/E"), "entitled");
  EXPECT_EQ(read("/bin/other"), "none");
  for (mode_t mode : {0664, 0646, 0666}) {
    ::chmod(file.c_str(), mode);
    EXPECT_EQ(read("/bin/E"), "error") << std::oct << mode;
  }
  ::chmod(file.c_str(), 0400);
  EXPECT_EQ(read("/bin/E"), "entitled");
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(file.c_str(), kStranger, 0), 0);
    EXPECT_EQ(read("/bin/E"), "error");
  }
}

TEST_F(EntitlementsOf, AreNotLentByLinks) {
  auto file = scratch_.write("/System/E.entitlements", kEntitlements);
  scratch_.link("/System/E.entitlements", "/Evil/E.entitlements");
  scratch_.link("/System", "/Evil/Executables");
  EXPECT_EQ(read("/Evil/E"), "error");
  EXPECT_EQ(read("/Evil/Executables/E"), "error");
  // A second name counts where only root and the daemon's user can have made it.
  scratch_.write("/Good/x", "");
  std::filesystem::create_hard_link(file, scratch_.host("/Good/E.entitlements"));
  std::filesystem::create_hard_link(file, scratch_.host("/Evil/F.entitlements"));
  ::chmod(scratch_.host("/Evil").c_str(), 0777);
  EXPECT_EQ(read("/Good/E"), "entitled");
  EXPECT_EQ(read("/Evil/F"), "error");
}

TEST_F(EntitlementsOf, AreAnErrorWhenTheFileIsNoDictionary) {
  scratch_.write("/E.entitlements", "garbage");
  EXPECT_EQ(read("/E"), "error");
  scratch_.write("/E.entitlements", plist("<array/>"));
  EXPECT_EQ(read("/E"), "error");
  scratch_.write("/E.entitlements",
                 plist("<dict><key>k</key><string>" + std::string(2 << 20, 'x') + "</string></dict>"));
  EXPECT_EQ(read("/E"), "error");
  std::filesystem::remove(scratch_.host("/E.entitlements"));
  ASSERT_EQ(::mkfifo(scratch_.host("/E.entitlements").c_str(), 0600), 0);
  EXPECT_EQ(read("/E"), "error");
}

class CodeSigningOfProcess : public ::testing::Test {
 protected:
  std::unique_ptr<CodeSigningTask> task(pid_t pid) { return signing_.task(PeerIdentity::ofProcess(pid)); }
  ScratchRoot scratch_;
  LinuxCodeSigning signing_{scratch_.root()};
  std::optional<DomainError> error_;
};

TEST_F(CodeSigningOfProcess, AnswersInsideAndOutsideTheRootUntilItEnds) {
  auto inside = installProgram(scratch_, "/Applications/A.app/A");
  scratch_.write("/Applications/A.app/A.entitlements", kEntitlements);
  ChildProgram program({inside, "100"});
  EXPECT_EQ(signing_.executablePath(program.pid()), "/Applications/A.app/A");
  auto identity = task(program.pid());
  EXPECT_TRUE(identity->entitlement("may", &error_).equals(true));
  EXPECT_FALSE(identity->entitlement("other", &error_));
  EXPECT_FALSE(error_);
  // Read once: what is written later is for those who come later.
  scratch_.write("/Applications/A.app/A.entitlements", plist("<dict/>"));
  EXPECT_EQ(identity->entitlements(&error_).size(), 2U);
  EXPECT_EQ(task(program.pid())->entitlements(&error_).size(), 0U);

  std::filesystem::copy_file(inside, scratch_.outside("B"));
  std::ofstream(scratch_.outside("B.entitlements")) << kEntitlements;
  ChildProgram stranger({scratch_.outside("B"), "100"});
  EXPECT_EQ(signing_.executablePath(stranger.pid()), scratch_.outside("B").string());
  EXPECT_TRUE(task(stranger.pid())->entitlement("may", &error_).boolValue());

  pid_t pid = program.pid();
  program.stop();
  EXPECT_FALSE(identity->entitlement("may", &error_));
  EXPECT_TRUE(error_);
  EXPECT_FALSE(identity->entitlements(&error_));
  EXPECT_EQ(signing_.executablePath(pid), std::nullopt);
  EXPECT_FALSE(signing_.task(nullptr)->entitlement("may", &error_));
  EXPECT_TRUE(error_);
}

TEST_F(CodeSigningOfProcess, IsLostWithItsExecutable) {
  auto path = installProgram(scratch_, "/bin/A");
  scratch_.write("/bin/A.entitlements", kEntitlements);
  ChildProgram program({path, "100"});
  auto before = PeerIdentity::ofProcess(program.pid());
  // Another file takes the place of the running one: its entitlements are not the process's.
  std::filesystem::rename(path, scratch_.host("/bin/old"));
  installProgram(scratch_, "/bin/A");
  EXPECT_FALSE(signing_.task(before)->entitlement("may", &error_));
  EXPECT_TRUE(error_);
  std::filesystem::remove(scratch_.host("/bin/old"));
  EXPECT_EQ(signing_.executablePath(program.pid()), std::nullopt);
}

TEST_F(CodeSigningOfProcess, DoesNotFollowItIntoAnotherProgram) {
  auto plain = installProgram(scratch_, "/bin/plain", "/bin/sh");
  auto entitled = installProgram(scratch_, "/bin/entitled");
  scratch_.write("/bin/entitled.entitlements", kEntitlements);
  ChildProgram program(
      {plain, "-c",
       "while [ ! -e " + scratch_.host("/go").string() + " ]; do :; done; exec " + entitled.string() + " 100"});
  auto peer = PeerIdentity::ofProcess(program.pid());
  auto identity = signing_.task(peer);
  EXPECT_FALSE(identity->entitlements(&error_));
  EXPECT_FALSE(error_);
  EXPECT_EQ(signing_.executablePathOfPeer(*peer), "/bin/plain");
  scratch_.write("/go", "");
  ASSERT_TRUE(support::eventually([&] { return signing_.executablePath(program.pid()) == "/bin/entitled"; }));
  EXPECT_FALSE(identity->entitlement("may", &error_));
  EXPECT_TRUE(error_);
  EXPECT_EQ(signing_.executablePathOfPeer(*peer), std::nullopt);
}

}  // namespace
}  // namespace platform
