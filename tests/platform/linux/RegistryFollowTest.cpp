// What the registry makes of changes, while it runs and between two of its runs.
#include <gtest/gtest.h>

#include "tests/Support/CapturedLog.h"
#include "tests/Support/RegistryDevice.h"

namespace {

using namespace platform;
using namespace support;
using Paths = std::vector<std::string>;

const std::string kApp = "/Applications/A.app";
const std::string kPlugIn = kApp + "/PlugIns/X.appex";
const std::string kOther = "/opt/plugins/Y.appex";

class RegistryFollowTest : public testing::Test {
 protected:
  void open() {
    close();
    registry_ = device_.open();
    registry_->addObserver(&news_);
  }
  void close() {
    if (registry_) registry_->removeObserver(&news_);
    registry_ = nullptr;
    news_.take();
  }
  ~RegistryFollowTest() override { close(); }

  void writeAppWithPlugIn() {
    device_.writeApp(kApp);
    device_.writeBundle(kPlugIn, plugInManifest("x"));
  }
  std::shared_ptr<RegistryPlugInRecord> at(const std::string& path) { return registry_->plugInRecord(FileURL{path}); }
  bool becomes(const Paths& expected) {
    return eventually([&] { return installed(*registry_) == expected; });
  }
  RegistryPlugInRecords records() { return registry_->installedPlugIns().value(); }
  UUID uuid(const std::string& path) { return at(path)->plugInUUID().value(); }

  RegistryDevice device_;
  ToldNews news_;
  std::shared_ptr<RegistryWorkspace> registry_;
};

TEST_F(RegistryFollowTest, RegistrationsSurviveARestartAndChangesEndThem) {
  writeAppWithPlugIn();
  PlistValue executable = PlistBuilder(plugInManifest("e")).set("KvBundleExecutable", "run").take();
  const std::string deep = "/System/Library/PlugIns/Deep.appex";
  device_.writeBundle(deep + "/Contents", executable);
  device_.write(deep + "/Contents/Executables/run", "1");
  device_.writeBundle(kOther, plugInManifest("y"));
  open();
  ASSERT_TRUE(registry_->registerPlugIn(FileURL{kOther}));
  auto kept = [&](const std::string& path) { return std::pair(uuid(path), at(path)->registrationDate()); };
  auto state = [&] { return std::vector{kept(kPlugIn), kept(deep), kept(kOther)}; };
  auto before = state();
  open();
  EXPECT_EQ(state(), before);
  EXPECT_EQ(at(kPlugIn)->containingBundle()->bundleURL().path, kApp);
  EXPECT_EQ(at(deep)->infoDictionary(), executable);

  auto changes = {
      std::pair(
          kPlugIn, +[](RegistryDevice& d) { d.writeBundle(kPlugIn, plugInManifest("z")); }),
      std::pair(
          deep,
          +[](RegistryDevice& d) { d.write("/System/Library/PlugIns/Deep.appex/Contents/Executables/run", "2"); }),
      std::pair(
          deep, +[](RegistryDevice& d) {
            d.write("/System/Library/PlugIns/Deep.appex/Contents/Executables/run.entitlements",
                    serializePropertyListXML(PlistBuilder().set("r", 1).take()));
          })};
  for (const auto& [path, change] : changes) {
    auto old = state();
    close();
    change(device_);
    open();
    auto now = state();
    for (std::size_t i = 0; i < now.size(); ++i) {
      bool changed = Paths{kPlugIn, deep, kOther}[i] == path;
      EXPECT_EQ(now[i] != old[i], changed);
      EXPECT_EQ(now[i].second > old[i].second, changed);
    }
  }
  EXPECT_TRUE(at(deep)->entitlements().contains("r"));
  close();
  device_.remove(kOther);
  device_.move(kApp, "/Applications/B.app");
  open();
  EXPECT_EQ(installed(*registry_), (Paths{"/Applications/B.app/PlugIns/X.appex", deep}));
}

TEST_F(RegistryFollowTest, FollowsBundlesAppsAndFoldersThatComeMoveAndGo) {
  open();
  EXPECT_TRUE(installed(*registry_).empty());
  writeAppWithPlugIn();  // every folder on the way is new
  ASSERT_TRUE(becomes({kPlugIn}));
  ASSERT_TRUE(eventually([&] { return news_.has("+" + kPlugIn); }));
  news_.take();
  UUID first = uuid(kPlugIn);

  device_.writeBundle(kPlugIn, plugInManifest("changed"));
  ASSERT_TRUE(eventually([&] { return at(kPlugIn) && at(kPlugIn)->plugInIdentifier() == "changed"; }));
  EXPECT_NE(uuid(kPlugIn), first);
  EXPECT_EQ(registry_->plugInRecord(first), nullptr);
  ASSERT_TRUE(eventually([&] { return news_.has("+" + kPlugIn); }));
  EXPECT_EQ(news_.take(), (Paths{"-" + kPlugIn, "+" + kPlugIn}));

  device_.move(kPlugIn, kApp + "/PlugIns/Z.appex");
  ASSERT_TRUE(becomes({kApp + "/PlugIns/Z.appex"}));
  device_.move(kApp, "/Applications/B.app");
  ASSERT_TRUE(becomes({"/Applications/B.app/PlugIns/Z.appex"}));
  EXPECT_EQ(registry_->appRecord(FileURL{kApp}), nullptr);
  // The moved directory is followed at its new place.
  device_.move("/Applications/B.app/PlugIns/Z.appex", "/Applications/B.app/PlugIns/W.appex");
  ASSERT_TRUE(becomes({"/Applications/B.app/PlugIns/W.appex"}));
  device_.move("/Applications", "/elsewhere");
  ASSERT_TRUE(becomes({}));
  device_.move("/elsewhere", "/Applications");
  ASSERT_TRUE(becomes({"/Applications/B.app/PlugIns/W.appex"}));
  device_.remove("/Applications");
  ASSERT_TRUE(becomes({}));
  device_.writeBundle("/System/Library/PlugIns/S.appex", plugInManifest("s"));
  ASSERT_TRUE(becomes({"/System/Library/PlugIns/S.appex"}));
}

TEST_F(RegistryFollowTest, BundlesInTheMakingEndInTheRightState) {
  device_.writeApp(kApp);
  open();
  // A manifest in pieces, and a bundle that turns from flat to deep and back.
  std::string text = serializePropertyListXML(plugInManifest("x"));
  std::filesystem::create_directories(device_.host(kPlugIn));
  device_.write(kPlugIn + "/Info.plist", text.substr(0, text.size() / 2));
  std::this_thread::sleep_for(3 * RegistryAgenda::kQuiet);
  EXPECT_TRUE(installed(*registry_).empty());
  device_.write(kPlugIn + "/Info.plist", text);
  ASSERT_TRUE(becomes({kPlugIn}));
  device_.writeBundle(kPlugIn + "/Contents", plugInManifest("deep"));
  ASSERT_TRUE(eventually([&] { return at(kPlugIn) && at(kPlugIn)->plugInIdentifier() == "deep"; }));
  device_.remove(kPlugIn + "/Contents");
  ASSERT_TRUE(eventually([&] { return at(kPlugIn) && at(kPlugIn)->plugInIdentifier() == "x"; }));
  // The application turns deep: its plug-ins are expected elsewhere.
  device_.writeApp(kApp + "/Contents");
  ASSERT_TRUE(becomes({}));
  device_.move(kApp + "/PlugIns", kApp + "/Contents/PlugIns");
  ASSERT_TRUE(becomes({kApp + "/Contents/PlugIns/X.appex"}));
  device_.writeApp(kApp + "/Contents", std::move(PlistBuilder().set("CatalonPlaceholder", true)));
  auto record = at(kApp + "/Contents/PlugIns/X.appex");
  ASSERT_TRUE(eventually([&] { return record->containingBundle()->isPlaceholder(); }));
  device_.remove(kApp + "/Contents/PlugIns/X.appex/Info.plist");
  ASSERT_TRUE(becomes({}));
}

TEST_F(RegistryFollowTest, RegistersAndUnregistersByPath) {
  device_.writeBundle(kOther, plugInManifest("y"));
  device_.writeBundle("/opt/No", PlistBuilder().set("KvBundleIdentifier", "n").take());
  writeAppWithPlugIn();
  open();
  EXPECT_FALSE(registry_->registerPlugIn(FileURL{"/opt/No"}));
  EXPECT_FALSE(registry_->registerPlugIn(FileURL{"/opt/None"}));
  EXPECT_FALSE(registry_->registerPlugIn(FileURL{"/"}));
  EXPECT_FALSE(registry_->unregisterPlugIn(FileURL{kOther}));
  ASSERT_TRUE(registry_->registerPlugIn(FileURL{"/opt/../opt/plugins/Y.appex/"}));
  ASSERT_NE(at(kOther), nullptr) << "at once";
  EXPECT_EQ(at(kOther)->containingBundle(), nullptr);
  UUID first = uuid(kOther);
  EXPECT_TRUE(registry_->registerPlugIn(FileURL{kOther}));
  EXPECT_EQ(uuid(kOther), first) << "it is the same bundle";
  ASSERT_TRUE(registry_->unregisterPlugIn(FileURL{kOther}));
  EXPECT_EQ(at(kOther), nullptr);
  EXPECT_FALSE(registry_->unregisterPlugIn(FileURL{kOther}));
  ASSERT_TRUE(eventually([&] { return news_.has("-" + kOther); }));
  EXPECT_EQ(news_.take(), (Paths{"+" + kOther, "-" + kOther}));

  // One in its place stays out over a restart, until it changes or is registered again.
  UUID old = uuid(kPlugIn);
  ASSERT_TRUE(registry_->unregisterPlugIn(FileURL{kPlugIn}));
  open();
  EXPECT_TRUE(installed(*registry_).empty());
  ASSERT_TRUE(registry_->registerPlugIn(FileURL{kPlugIn}));
  EXPECT_NE(uuid(kPlugIn), old);
  ASSERT_TRUE(registry_->unregisterPlugIn(FileURL{kPlugIn}));
  device_.writeBundle(kPlugIn, plugInManifest("changed"));
  EXPECT_TRUE(becomes({kPlugIn}));
}

TEST_F(RegistryFollowTest, WhatWasRegisteredByPathIsFollowedToo) {
  const std::string app = "/opt/some/where/Far.app";
  const std::string plugIn = app + "/PlugIns/F.appex";
  device_.writeApp(app, std::move(PlistBuilder().set("KvBundleName", "Far")));
  device_.writeBundle(plugIn, plugInManifest("f"));
  device_.writeBundle(app + "/PlugIns/Unasked.appex", plugInManifest("u"));
  open();
  ASSERT_TRUE(registry_->registerPlugIn(FileURL{plugIn}));
  ASSERT_NE(at(plugIn)->containingBundle(), nullptr) << "however it was registered";
  EXPECT_EQ(at(plugIn)->containingBundle()->localizedName(), "Far");
  EXPECT_EQ(paths(registry_->appRecord(FileURL{app})->plugIns()), (Paths{plugIn}));
  device_.writeBundle(plugIn, plugInManifest("g"));
  ASSERT_TRUE(eventually([&] { return at(plugIn) && at(plugIn)->plugInIdentifier() == "g"; }));
  // Its folders go and come back.
  device_.move("/opt/some", "/opt/moved");
  ASSERT_TRUE(becomes({}));
  device_.move("/opt/moved", "/opt/some");
  ASSERT_TRUE(becomes({plugIn}));
  device_.remove(plugIn);
  ASSERT_TRUE(becomes({}));
  open();
  device_.writeBundle(plugIn, plugInManifest("h"));
  EXPECT_TRUE(becomes({plugIn}));
  EXPECT_TRUE(registry_->unregisterPlugIn(FileURL{plugIn}));
  open();
  EXPECT_TRUE(installed(*registry_).empty());
}

TEST_F(RegistryFollowTest, LinksLeadToBundlesInsideTheDeviceOnly) {
  device_.writeApp("/data/Real.app");
  device_.writeBundle("/data/Real.app/PlugIns/L.appex", plugInManifest("l"));
  device_.writeBundle("/data/loose", plugInManifest("loose"));
  device_.link("../data/Real.app", "/Applications/Link.app");
  device_.link("/data/loose", "/System/Library/PlugIns/loose");
  // The canary would be a plug-in if anybody came to it.
  std::filesystem::create_directories(device_.outside("canary.appex"));
  std::ofstream(device_.outside("canary.appex") / "Info.plist") << serializePropertyListXML(plugInManifest("canary"));
  std::filesystem::create_symlink(device_.outside("canary.appex"), device_.host("/System/Library/PlugIns/out"));
  device_.link("../../../../../outside/canary.appex", "/System/Library/PlugIns/up");
  std::filesystem::create_directories(device_.host("/System/Library/PlugIns/half"));
  std::filesystem::create_symlink(device_.outside("canary.appex") / "Info.plist",
                                  device_.host("/System/Library/PlugIns/half/Info.plist"));
  open();
  Paths both{"/data/Real.app/PlugIns/L.appex", "/data/loose"};
  EXPECT_EQ(installed(*registry_), both);
  EXPECT_NE(at("/System/Library/PlugIns/loose"), nullptr) << "asked for by its link";
  EXPECT_EQ(at("/data/Real.app/PlugIns/L.appex")->containingBundle()->bundleURL().path, "/data/Real.app");
  EXPECT_FALSE(registry_->registerPlugIn(FileURL{"/System/Library/PlugIns/out"}));
  open();
  EXPECT_EQ(installed(*registry_), both);
  device_.remove("/Applications/Link.app");
  ASSERT_TRUE(becomes({"/data/loose"}));
  // A bundle is swapped for a link that leads out.
  device_.remove("/data/loose");
  std::filesystem::create_symlink(device_.outside("canary.appex"), device_.host("/data/loose"));
  EXPECT_TRUE(becomes({}));
}

TEST_F(RegistryFollowTest, LinksAreFollowedOverWhatComesAndGoesOnTheirWay) {
  device_.writeApp(kApp);
  device_.link("../../opt/now/folder", kApp + "/PlugIns");
  device_.link("/opt/now/L.app", "/Applications/L.app");
  device_.link("/opt/now/Z.appex", "/System/Library/PlugIns/Z.appex");
  open();
  EXPECT_TRUE(installed(*registry_).empty());
  for (const std::string version : {"1", "2"}) {
    Paths plugIns;
    device_.writeApp("/opt/" + version + "/L.app");
    for (const char* name : {"/L.app/PlugIns/X.appex", "/Z.appex", "/folder/X.appex"}) {
      device_.writeBundle(plugIns.emplace_back("/opt/" + version + name), plugInManifest(name));
    }
    device_.link(version, "/opt/next");
    device_.move("/opt/next", "/opt/now");
    EXPECT_TRUE(becomes(plugIns));
  }
  // What was its folder of plug-ins is none once it is a deep bundle.
  device_.move("/opt/2/folder", "/opt/folder");
  device_.remove(kApp + "/PlugIns");
  device_.link("/opt/folder/X.appex", kApp + "/PlugIns/X.appex");
  EXPECT_TRUE(becomes({"/opt/2/L.app/PlugIns/X.appex", "/opt/2/Z.appex", "/opt/folder/X.appex"}));
  device_.writeApp(kApp + "/Contents");
  EXPECT_TRUE(becomes({"/opt/2/L.app/PlugIns/X.appex", "/opt/2/Z.appex"}));
  device_.remove("/opt/now");
  EXPECT_TRUE(becomes({}));
}

TEST_F(RegistryFollowTest, AFolderOfAppsIsFollowedWhateverWasRegisteredInIt) {
  writeAppWithPlugIn();
  device_.writeBundle("/Applications/loose", plugInManifest("loose"));
  open();
  EXPECT_TRUE(registry_->registerPlugIn(FileURL{"/Applications/loose"}));
  EXPECT_TRUE(registry_->unregisterPlugIn(FileURL{"/Applications/loose"}));
  device_.move("/Applications", "/aside");
  EXPECT_TRUE(becomes({}));
  device_.move("/aside", "/Applications");
  EXPECT_TRUE(becomes({kPlugIn}));
}

TEST_F(RegistryFollowTest, ManyAppsAtOnceEndInTheRightState) {
  open();
  Paths expected;
  for (int i = 0; i < 300; ++i) {
    std::string app = "/Applications/" + std::to_string(i) + ".app";
    std::string plugIn = app + (i % 2 == 0 ? "/Contents/PlugIns/P.appex" : "/PlugIns/P.appex");
    device_.writeBundle(plugIn, plugInManifest(std::to_string(i)));
    device_.writeApp(i % 2 == 0 ? app + "/Contents" : app);
    if (i % 3 == 0) {
      device_.remove(app);
    } else if (i % 3 == 1) {
      device_.writeBundle(plugIn, plugInManifest("late" + std::to_string(i)));
      expected.push_back(plugIn);
    } else {
      device_.move(app, "/Applications/moved" + std::to_string(i) + ".app");
      expected.push_back("/Applications/moved" + std::to_string(i) + plugIn.substr(app.size() - 4));
    }
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_TRUE(becomes(expected));
  for (const auto& record : records()) EXPECT_NE(record->containingBundle(), nullptr);
  auto uuids = [&] {
    std::set<UUID> result;
    for (const auto& record : records()) result.insert(*record->plugInUUID());
    return result;
  };
  auto before = uuids();
  open();
  EXPECT_EQ(uuids(), before) << "the last state is the one that was stored";
}

// An observer may ask the registry anything, and is gone when removeObserver returns.
class Asking final : public RegistryObserver {
 public:
  explicit Asking(RegistryWorkspace& registry) : registry_(registry) {}
  void pluginsDidInstall(const RegistryPlugInRecords& records) override {
    found_ = registry_.plugInRecord(*records.front()->plugInUUID()) != nullptr;
    registry_.removeObserver(this);
    entered_ = true;
    while (!leave_) std::this_thread::yield();
    left_ = true;
  }
  void pluginsWillUninstall(const RegistryPlugInRecords&) override { left_ = false; }

  RegistryWorkspace& registry_;
  std::atomic<bool> found_ = false, entered_ = false, leave_ = false, left_ = false;
};

TEST_F(RegistryFollowTest, RemovingAnObserverWaitsForTheEndOfItsNotification) {
  device_.writeBundle(kOther, plugInManifest("y"));
  open();
  Asking asking(*registry_);
  registry_->addObserver(&asking);
  ASSERT_TRUE(registry_->registerPlugIn(FileURL{kOther}));
  ASSERT_TRUE(eventually([&] { return asking.entered_.load(); }));
  EXPECT_TRUE(asking.found_);
  std::thread remover([&] {
    registry_->removeObserver(&asking);
    EXPECT_TRUE(asking.left_);
  });
  EXPECT_TRUE(registry_->unregisterPlugIn(FileURL{kOther})) << "changes do not wait for observers";
  asking.leave_ = true;
  remover.join();
  ASSERT_TRUE(eventually([&] { return news_.has("-" + kOther); }));
  EXPECT_TRUE(asking.left_) << "told after it was removed";
}

}  // namespace
