// The whole life of a plug-in, step by step, with real processes: hosts, an installer, a settings screen, and the
// plug-in itself.

#include "platform/Services.h"
#include "tests/integration/Device.h"

namespace integration {
namespace {

class LifecycleTest : public Device {
 protected:
  static constexpr std::string_view kInstaller = "/System/Applications/Installer.app";
  static constexpr std::string_view kStranger = "/Applications/Stranger.app";
  static constexpr const char* kIdentifier = "com.example.share";
  static constexpr const char* kPlugIn = "/Applications/Photos.app/PlugIns/Share.appex";

  LifecycleTest() {
    addApplication(kPhotos);
    addApplication(kInstaller, dictionary(kManager, true));
    addApplication(kStranger, dictionary("com.vantrel.developer.vornik.allowedplugins",
                                         dictionary("ZoExtensionIdentifier", "com.example.other")));
    addPlugIn(kPlugIn, manifestOf("1.0"));
    write(std::string(kPlugIn) + "/help.txt", "how to share");
  }
  static PlistValue manifestOf(std::string_view version) {
    PlistValue service = dictionary("EnvironmentVariables", dictionary("SHARE_QUALITY", "full"));
    return PlistBuilder(manifest(kIdentifier, version)).set("ZYPService", service).take();
  }
  std::string uuid() const { return std::string(form(kPhotos, kIdentifier)["uuid"].stringValue()); }
  // A hold of the installer's, in force when this answers.
  std::unique_ptr<Program> holdPlugIn() const {
    auto hold = startAs(kInstaller, {"hold", "--plug-in", kPlugIn});
    EXPECT_TRUE(hold->says("\n")) << hold->err();
    return hold;
  }
  static void expectFailure(const Result& result, int status, const std::string& text) {
    EXPECT_EQ(result.status, status);
    EXPECT_NE(result.err.find(text), std::string::npos) << result.err;
  }
  std::unique_ptr<Program> launch() const {
    auto host = start(with(this->host(executable(kPhotos)), {"launch", kIdentifier}), {{"VKTEST_SDK", ""}});
    EXPECT_TRUE(host->says("SHARE_QUALITY=full")) << host->err();
    return host;
  }
};

TEST_F(LifecycleTest, HeldPlugInsAreKeptFromHostsUntilTheHoldEnds) {
  startDaemon();
  const std::string known = uuid(), there = "com.example.share 1.0";
  auto hold = holdPlugIn();
  EXPECT_EQ(seenBy(kPhotos), "");
  EXPECT_EQ(seenBy(kInstaller, {"--all"}), there);
  expectFailure(as(kPhotos, {"ready", known}), 6, "access to plugin com.example.share denied: the plug-in is on hold");
  // Interrupted: when the command has ended, so has the hold.
  hold->signal(SIGINT);
  EXPECT_EQ(hold->finish().status, 128 + SIGINT);
  EXPECT_EQ(seenBy(kPhotos), there);
  // Released by somebody else, by its token.
  hold = holdPlugIn();
  EXPECT_EQ(as(kPhotos, {"release", hold->out().substr(0, hold->out().find('\n'))}).status, 0);
  EXPECT_EQ(seenBy(kPhotos), there);
  // The holder dies without a word.
  hold = holdPlugIn();
  EXPECT_EQ(seenBy(kPhotos), "");
  hold->signal(SIGKILL);
  EXPECT_TRUE(eventually([&] { return seenBy(kPhotos) == there; }));
  EXPECT_TRUE(logSays("for dead client pid " + std::to_string(hold->pid())));
  // It lasts as long as its command, or the daemon.
  const std::string whileHeld = host(executable(kPhotos)).string() + " match --exists";
  EXPECT_EQ(as(kInstaller, {"hold", std::string(kPhotos), "--", "sh", "-c", whileHeld}).status, 3);
  EXPECT_EQ(as(kPhotos, {"match", "--exists"}).status, 0);
  hold = holdPlugIn();
  stopDaemon(SIGKILL);
  expectFailure(hold->finish(), 1, "the daemon went away, and the hold with it");
}

TEST_F(LifecycleTest, ReadyIsWhatTheHostMayUse) {
  addPlugIn("/Applications/Photos.app/PlugIns/Data.bundle",
            PlistBuilder(manifest("com.example.data", "1", dictionary("ZoExtensionProtocol", "#Data")))
                .set("KvBundleExecutable", PlistValue())
                .take());
  startDaemon();
  expectFailure(as(kStranger, {"ready", uuid()}), 5,
                "denied: the host's plug-in entitlement does not allow this plug-in");
  EXPECT_EQ(as(kPhotos, {"ready", kIdentifier, "com.example.data"}).status, 0);
  fs::remove(host(std::string(kPlugIn) + "/plugin"));
  EXPECT_NE(as(kPhotos, {"ready", uuid()}).status, 0);
}

TEST_F(LifecycleTest, ARunningInstanceHasItsEnvironmentAndIsInTheWay) {
  startDaemon();
  auto instance = launch();
  std::string container = "/var/containers/com.example.share";
  EXPECT_TRUE(instance->says("HOME=" + container + "\n")) << instance->out();
  EXPECT_TRUE(instance->says("TMPDIR=" + container + "/tmp\n")) << instance->out();
  EXPECT_TRUE(fs::is_directory(host(container)));
  EXPECT_TRUE(logSays("to plugin sandbox"));
  std::size_t at = instance->out().find("pid ");
  std::string pid = instance->out().substr(at + 4, instance->out().find('\n') - at - 4);

  expectFailure(as(kInstaller, {"hold", std::string(kPhotos)}), 6,
                "vkctl: hold: /Applications/Photos.app: plug-ins are busy (VKErrorBusy, 14); busy: "
                "com.example.share pid " +
                    pid + "\n");
  auto anyway = holdPlugIn();
  EXPECT_EQ(seenBy(kPhotos), "");
  // It ends when it is told to, through the host, and is in nobody's way any more.
  instance->signal(SIGTERM);
  EXPECT_EQ(instance->finish().status, 0);
  EXPECT_EQ(as(kInstaller, {"hold", std::string(kPhotos), "--", "true"}).status, 0);
}

TEST_F(LifecycleTest, FilesAreReadThroughATokenThatNobodyCanMakeUp) {
  startDaemon();
  EXPECT_EQ(as(kPhotos, {"access", kIdentifier, "--read", "help.txt"}).out, "how to share");
  PlistValue tokens = vkctl::plistFromJson(as(kPhotos, {"access", "--json", kIdentifier, uuid()}).out)["extensions"];
  ASSERT_EQ(tokens.size(), 2U);
  EXPECT_TRUE(tokens.at(0).isString());
  PlistValue inForm = form(kPhotos, kIdentifier)["extensions"]["."];
  auto sandbox = machineServices().sandbox;
  EXPECT_GT(sandbox->consume(inForm.stringValue()), 0);
  std::string forged(tokens.at(0).stringValue());
  forged.back() = forged.back() == '0' ? '1' : '0';
  EXPECT_EQ(sandbox->consume(forged), -1);
}

TEST_F(LifecycleTest, WhoWatchesIsToldOfEveryChangeOnce) {
  startDaemon();
  auto watcher = start({VKCTL_PROGRAM, "watch"});
  auto told = [&] {
    std::string out = watcher->out();
    return std::count(out.begin(), out.end(), '\n');
  };
  // Until the watcher is known to listen.
  ASSERT_TRUE(eventually([&] { return as(kPhotos, {"elect", kIdentifier, "1"}).status == 0 && told() > 0; }));
  EXPECT_TRUE(watcher->out().ends_with(" com.vantrel.vornik.annotation-change\n"));
  auto quiet = start({VKCTL_PROGRAM, "watch", "--json", "--timeout", "0.2"});
  EXPECT_EQ(quiet->finish().status, 8);
  auto before = told();
  ASSERT_EQ(as(kPhotos, {"bulk-annotate", "-"}, R"({"com.example.share": {"a": 1}})").status, 0);
  EXPECT_TRUE(eventually([&] { return told() == before + 1; }));
  ASSERT_EQ(as(kPhotos, {"annotate", uuid(), kIdentifier, "--election", "3"}).status, 0);
  EXPECT_TRUE(eventually([&] { return told() == before + 3; })) << "one for each request";
  EXPECT_EQ(form(kInstaller, kIdentifier)["annotations"]["election"].intValue(), 3);
  watcher->signal(SIGINT);
  EXPECT_EQ(watcher->finish().status, 130);
}

TEST_F(LifecycleTest, AnUpdateIsAnotherRegistrationAndAnUninstallEndsWhatRuns) {
  startDaemon();
  std::string first = uuid();
  addPlugIn(kPlugIn, manifestOf("1.1"));
  ASSERT_TRUE(eventually([&] { return seenBy(kPhotos) == "com.example.share 1.1"; }));
  EXPECT_NE(uuid(), first);
  EXPECT_EQ(as(kPhotos, {"ready", first}).status, 4);
  auto instance = launch();
  fs::remove_all(host(kPlugIn));
  EXPECT_TRUE(eventually([&] { return instance->hasEnded(); })) << "the service manager ends it";
  EXPECT_TRUE(eventually([&] { return logSays("jobd reported plug-ins have been terminated"); }));
  EXPECT_EQ(seenBy(kPhotos), "");
}

TEST_F(LifecycleTest, RegistrationAtAPath) {
  startDaemon();
  addPlugIn("/System/Tools/Extra.appex", manifest("com.example.extra"));
  EXPECT_EQ(form(kPhotos, "com.example.extra"), PlistValue());
  ASSERT_EQ(as(kPhotos, {"add", "/System/Tools/Extra.appex"}).status, 0);
  EXPECT_EQ(form(kPhotos, "com.example.extra")["path"].stringValue(), "/System/Tools/Extra.appex");
  EXPECT_EQ(as(kPhotos, {"remove", "com.example.extra"}).status, 5);
  ASSERT_EQ(as(kInstaller, {"remove", "com.example.extra"}).status, 0);
  EXPECT_EQ(form(kPhotos, "com.example.extra"), PlistValue());
  EXPECT_EQ(as(kInstaller, {"remove", "/System/Tools/Extra.appex"}).status, 4);
  expectFailure(as(kPhotos, {"add", "/Applications"}), 1,
                "unable to register plug-in at /Applications (VKErrorRegistry, 2)");
}

}  // namespace
}  // namespace integration
