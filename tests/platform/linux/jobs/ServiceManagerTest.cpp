#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>

#include "platform/ServiceLauncher.h"
#include "platform/linux/jobs/LinuxServiceManager.h"
#include "platform/linux/queues/WorkQueue.h"
#include "tests/Support/ChildProgram.h"

namespace platform {
namespace {

using support::ChildProgram;
using support::eventually;
using support::installProgram;
using support::plist;
using support::ScratchRoot;

const std::string kPlugIn = "/A.app/P.appex";
const std::string kExecutable = kPlugIn + "/P";

Message overlay(const std::map<std::string, std::string>& environment) {
  Message variables = Message::dictionary();
  for (const auto& [name, value] : environment) variables.set(name, value);
  Message service = Message::dictionary();
  service.set("EnvironmentVariables", std::move(variables));
  service.set("_SandboxProfile", "plugin");
  Message result = Message::dictionary();
  result.set("ZYPService", std::move(service));
  return result;
}

class Jobd : public ::testing::Test {
 protected:
  void SetUp() override {
    installProgram(scratch_, kExecutable, "/bin/sh");
    writeManifest("1.0");
    std::filesystem::create_directories(scratch_.host("/shared"));
    std::filesystem::permissions(scratch_.host("/shared"), std::filesystem::perms(0777));
  }
  void writeManifest(const std::string& version) {
    scratch_.write(kPlugIn + "/Info.plist",
                   plist("<dict><key>KvBundleIdentifier</key><string>com.example.p</string><key>KvBundleVersion</key>"
                         "<string>" +
                         version + "</string></dict>"));
  }

  // A host that launches the plug-in with this shell script as soon as it may, and ends with its status.
  std::unique_ptr<ChildProgram> host(const std::string& script) {
    std::string go = scratch_.host("/go" + std::to_string(++hosts_));
    auto child = std::make_unique<ChildProgram>([this, go, script] {
      ::setenv("VANTREL_ROOT", scratch_.root()->hostPath().c_str(), 1);
      ::setenv("INHERITED", "from the host", 1);
      ::setenv("HOME", "the host's", 1);
      // Another user's, where that can be.
      if (::geteuid() == 0 && (::setgid(12345) != 0 || ::setuid(12345) != 0)) return 199;
      eventually([&] { return std::filesystem::exists(go); });
      LaunchResult result = launchExternalService(kExecutable, {"-c", script});
      return result.errorNumber != 0 ? 200 + result.errorNumber : result.exitStatus;
    });
    return child;
  }
  void letGo() { scratch_.write("/go" + std::to_string(hosts_), ""); }

  std::vector<pid_t> busy() {
    std::vector<pid_t> pids;
    for (const Message& entry : assertions_.busyExtensionInstances({"com.example.p", "com.example.q"})) {
      EXPECT_EQ(*entry.getString(kAssurdBundleIdentifierKey), "com.example.p");
      pids.push_back(static_cast<pid_t>(*entry.get("ProcessIdentifier")->as<std::int64_t>()));
    }
    return pids;
  }
  // What the removal answers.
  int remove(const std::string& version) {
    std::atomic<int> result{-1};
    manager_.removeExternalService("com.example.p", version, queue_, [&](int value) { result = value; });
    EXPECT_TRUE(eventually([&] { return result >= 0; }));
    return result;
  }

  ScratchRoot scratch_;
  std::shared_ptr<RunningInstances> instances_ = std::make_shared<RunningInstances>(scratch_.root());
  LinuxServiceManager manager_{scratch_.root(), instances_};
  LinuxAssertionService assertions_{instances_};
  std::shared_ptr<WorkQueue> queue_ = makeWorkQueues()->serial("completions", WorkQueue::Order::Outer);
  int hosts_ = 0;
};

TEST_F(Jobd, RefusesWhatCannotBeStarted) {
  EXPECT_EQ(manager_.addExternalService(::getpid(), kExecutable, overlay({})), 0);
  EXPECT_EQ(manager_.addExternalService(::getpid(), kPlugIn + "/none", overlay({})), ENOENT);
  EXPECT_EQ(manager_.addExternalService(::getpid(), kPlugIn, overlay({})), EACCES);
  EXPECT_EQ(manager_.addExternalService(::getpid(), kPlugIn + "/Info.plist", overlay({})), EACCES);
  EXPECT_EQ(manager_.addExternalService(::getpid(), kExecutable, overlay({{"X", std::string(2 << 20, 'x')}})), E2BIG);
  ChildProgram ended([] { return 0; });
  pid_t pid = ended.pid();
  ASSERT_TRUE(eventually([&] { return !processStart(pid); }));
  EXPECT_EQ(manager_.addExternalService(pid, kExecutable, overlay({})), ESRCH);
  EXPECT_EQ(manager_.addExternalService(0, kExecutable, overlay({})), ESRCH);
}

TEST_F(Jobd, LetsAHostLaunchWithTheRecordedEnvironment) {
  auto child =
      host("[ \"$HOME\" = /var/box ] && [ \"$INHERITED\" = 'from the host' ] && [ \"$TOKEN\" = 'a=b' ] && exit 42");
  ASSERT_EQ(manager_.addExternalService(child->pid(), kExecutable, overlay({{"HOME", "/var/box"}, {"TOKEN", "a=b"}})),
            0);
  letGo();
  EXPECT_EQ(child->wait(), 42);
  EXPECT_TRUE(busy().empty());

  auto killed = host("kill -9 $$");
  ASSERT_EQ(manager_.addExternalService(killed->pid(), kExecutable, overlay({})), 0);
  letGo();
  EXPECT_EQ(killed->wait(), 128 + SIGKILL);

  auto unprepared = host("exit 0");
  letGo();
  EXPECT_EQ(unprepared->wait(), 200 + ENOENT);
}

TEST_F(Jobd, ReportsInstancesWhileTheyRunOldestFirst) {
  auto first = host("echo $$ > " + scratch_.host("/shared/pid1").string() + "; read x < " +
                    scratch_.host("/shared/fifo").string());
  ASSERT_EQ(::mkfifo(scratch_.host("/shared/fifo").c_str(), 0644), 0);
  ASSERT_EQ(manager_.addExternalService(first->pid(), kExecutable, overlay({})), 0);
  letGo();
  ASSERT_TRUE(eventually([&] { return !scratch_.read("/shared/pid1").empty(); }));
  pid_t pid = std::stoi(scratch_.read("/shared/pid1"));
  EXPECT_EQ(busy(), std::vector<pid_t>{pid});
  auto second = host("exec sleep 100");
  ASSERT_EQ(manager_.addExternalService(second->pid(), kExecutable, overlay({})), 0);
  // Process times are counted in hundredths of a second.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  letGo();
  ASSERT_TRUE(eventually([&] { return busy().size() == 2; }));
  EXPECT_EQ(busy()[0], pid);

  std::ofstream(scratch_.host("/shared/fifo")) << "\n";
  EXPECT_EQ(first->wait(), 0);
  ASSERT_EQ(busy().size(), 1U);
  // The host dies, its plug-in runs on; then that dies, and nobody takes its record away.
  pid = busy()[0];
  second->stop();
  EXPECT_EQ(busy(), std::vector<pid_t>{pid});
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(eventually([&] { return busy().empty(); }));
}

TEST_F(Jobd, BelievesNobodyAboutOthersProcesses) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs two users";
  ASSERT_EQ(manager_.addExternalService(::getpid(), kExecutable, overlay({})), 0);
  ChildProgram victim({"/bin/sleep", "100"});
  ASSERT_EQ(instances_->record({*ProcessName::of(::getpid()), "com.example.p", "0", "", "", 0}), 0);
  ChildProgram liar([&] {
    if (::setgid(12345) != 0 || ::setuid(12345) != 0) return 1;
    RunningInstances own(scratch_.root());
    if (own.record({*ProcessName::of(victim.pid()), "com.example.p", "1.0", "", "", 1}) != 0) return 2;
    // Nor can he take away what others said.
    own.forget(*ProcessName::of(::getppid()));
    return 0;
  });
  EXPECT_EQ(liar.wait(), 0);
  EXPECT_EQ(busy(), std::vector<pid_t>{::getpid()});
  EXPECT_EQ(remove("1.0"), 0);  // the record made for this process
  EXPECT_TRUE(processStart(victim.pid()));
  // A record of a process that used the id before.
  ProcessName earlier = *ProcessName::of(victim.pid());
  --earlier.start;
  ASSERT_EQ(instances_->record({earlier, "com.example.p", "1.0", "", "", 1}), 0);
  EXPECT_EQ(remove("1.0"), ServiceRemover::kNothingOnRecord);
  EXPECT_TRUE(processStart(victim.pid()));
  instances_->sweep();
  EXPECT_FALSE(std::filesystem::exists(scratch_.host("/run/jobd/instances/" + earlier.text() + ".plist")));
}

TEST_F(Jobd, RemovingEndsInstancesAndForgetsRecords) {
  EXPECT_EQ(remove("1.0"), ServiceRemover::kNothingOnRecord);
  auto polite = host("exec sleep 100");
  ASSERT_EQ(manager_.addExternalService(polite->pid(), kExecutable, overlay({})), 0);
  letGo();
  ASSERT_TRUE(eventually([&] { return busy().size() == 1; }));
  auto stubborn = host("trap '' TERM; echo > " + scratch_.host("/shared/trapped").string() + "; while :; do :; done");
  ASSERT_EQ(manager_.addExternalService(stubborn->pid(), kExecutable, overlay({})), 0);
  letGo();
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(scratch_.host("/shared/trapped")); }));
  auto late = host("exit 0");
  ASSERT_EQ(manager_.addExternalService(late->pid(), kExecutable, overlay({})), 0);
  // The next version, installed before the removal is done.
  writeManifest("1.1");
  auto updated = host("exit 7");
  ASSERT_EQ(manager_.addExternalService(updated->pid(), kExecutable, overlay({})), 0);
  int updatedHost = hosts_;

  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(remove("1.0"), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, kInstanceGrace);
  EXPECT_EQ(polite->wait(), 128 + SIGTERM);
  EXPECT_EQ(stubborn->wait(), 128 + SIGKILL);
  hosts_ = updatedHost - 1;
  letGo();
  EXPECT_EQ(late->wait(), 200 + ENOENT);
  hosts_ = updatedHost;
  letGo();
  EXPECT_EQ(updated->wait(), 7);
  EXPECT_EQ(remove("1.0"), ServiceRemover::kNothingOnRecord);
  EXPECT_EQ(remove("1.1"), 0);
}

TEST_F(Jobd, SweepsTheRecordsOfHostsThatEnded) {
  ExternalServices services(scratch_.root());
  auto child = host("exit 0");
  ASSERT_EQ(manager_.addExternalService(child->pid(), kExecutable, overlay({})), 0);
  ProcessName name = *ProcessName::of(child->pid());
  EXPECT_TRUE(services.sweep());
  EXPECT_TRUE(services.find(name, kExecutable));
  child->stop();
  EXPECT_FALSE(services.sweep());
  EXPECT_FALSE(services.find(name, kExecutable));
}

}  // namespace
}  // namespace platform
