// What the registry makes of changes, while it runs and between two of its runs.
//
// VKD_FOLLOW_ROUNDS is how many rounds of random changes there are, VKD_FOLLOW_SEED repeats their choices.
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <random>

#include "tests/Support/RegistryDevice.h"
#include "tests/Support/Setting.h"

namespace {

using namespace platform;
using namespace support;
using Paths = std::vector<std::string>;

constexpr std::uint64_t kDefaultRounds = 30;
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
  // Path → identifier.
  static std::map<std::string, std::string> found(RegistryWorkspace& registry) {
    std::map<std::string, std::string> result;
    const RegistryPlugInRecords records = registry.installedPlugIns().value();
    for (const auto& record : records) result[record->bundleURL()->path] = record->plugInIdentifier();
    return result;
  }
  // By a registry that sees the same files for the first time.
  std::map<std::string, std::string> foundAnew() const {
    RegistryDevice copy;
    for (const auto& item : std::filesystem::directory_iterator(device_.host("/"))) {
      if (item.path().filename() == "var") continue;
      std::filesystem::copy(item, copy.host("/") / item.path().filename(),
                            std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
    }
    return found(*copy.open());
  }
  // Where a path leads inside the device, but for its last step; its folders are made.
  std::filesystem::path inside(const std::string& path) const {
    const std::string folder = std::filesystem::path(path).parent_path();
    device_.root()->makeDirectories(folder, 0755);
    auto canonical = device_.root()->canonicalPath(folder);
    // What cannot be made is left alone.
    return canonical ? device_.host(*canonical) / std::filesystem::path(path).filename() : device_.outside("no/where");
  }
  void change(std::size_t kind, const std::string& place, const std::string& other, std::mt19937& random) const {
    std::error_code inTheWay;
    // What changes behind a link in the place of Contents is seen by the next start only.
    if (kind < 3 && place.ends_with("Contents")) kind = 0;
    if (kind == 0) {
      std::filesystem::remove_all(inside(place), inTheWay);
    } else if (kind == 1) {
      std::filesystem::rename(inside(other), inside(place), inTheWay);
    } else if (kind == 2) {
      std::filesystem::create_symlink(other, inside(place), inTheWay);
    } else {
      PlistValue manifest = plugInManifest(std::to_string(random()));
      if (kind == 3) manifest = PlistBuilder().set("KvBundleIdentifier", "no plug-in").take();
      const std::string text = serializePropertyListXML(manifest);
      // Some are still in the making.
      std::ofstream(inside(place + "/Info.plist")) << text.substr(0, kind == 4 ? random() % text.size() : text.npos);
    }
  }
  UUID uuid(const std::string& path) { return at(path)->plugInUUID().value(); }

  RegistryDevice device_;
  ToldNews news_;
  std::shared_ptr<RegistryWorkspace> registry_;
};

TEST_F(RegistryFollowTest, RegistrationsSurviveARestartAndChangesEndThem) {
  writeAppWithPlugIn();
  PlistValue executable = PlistBuilder(plugInManifest("e")).set("KvBundleExecutable", "run").take();
  const std::string deep = "/System/Library/PlugIns/Deep.appex";
  const std::string run = deep + "/Contents/Executables/run";
  device_.writeBundle(deep + "/Contents", executable);
  device_.write(run, "1");
  device_.writeBundle(kOther, plugInManifest("y"));
  open();
  ASSERT_TRUE(registry_->registerPlugIn(FileURL{kOther}));
  auto state = [&] {
    std::map<std::string, std::pair<UUID, double>> result;
    for (const std::string& path : {kPlugIn, deep, kOther}) result[path] = {uuid(path), at(path)->registrationDate()};
    return result;
  };
  auto before = state();
  open();
  EXPECT_EQ(state(), before);
  EXPECT_EQ(at(kPlugIn)->containingBundle()->bundleURL().path, kApp);
  EXPECT_EQ(at(deep)->infoDictionary(), executable);

  const std::array<std::string, 3> changes[] = {
      {kPlugIn, kPlugIn + "/Info.plist", serializePropertyListXML(plugInManifest("z"))},
      {deep, run, "2"},
      {deep, run + ".entitlements", serializePropertyListXML(PlistBuilder().set("r", 1).take())}};
  for (const auto& [changed, file, content] : changes) {
    auto old = state();
    close();
    device_.write(file, content);
    open();
    for (const auto& [path, now] : state()) {
      EXPECT_EQ(now.first != old[path].first, path == changed) << path;
      EXPECT_EQ(now.second > old[path].second, path == changed) << path;
    }
  }
  EXPECT_TRUE(at(deep)->entitlements().contains("r"));
  close();
  device_.remove(kOther);
  device_.move(kApp, "/Applications/B.app");
  open();
  EXPECT_EQ(installed(*registry_), (Paths{"/Applications/B.app/PlugIns/X.appex", deep}));
}

TEST_F(RegistryFollowTest, WhatChangesIsUninstalledAndInstalledAnew) {
  open();
  writeAppWithPlugIn();  // every folder on the way is new
  ASSERT_TRUE(eventually([&] { return news_.has("+" + kPlugIn); }));
  news_.take();
  UUID first = uuid(kPlugIn);
  device_.writeBundle(kPlugIn, plugInManifest("changed"));
  ASSERT_TRUE(eventually([&] { return at(kPlugIn) && at(kPlugIn)->plugInIdentifier() == "changed"; }));
  EXPECT_NE(uuid(kPlugIn), first);
  EXPECT_EQ(registry_->plugInRecord(first), nullptr);
  ASSERT_TRUE(eventually([&] { return news_.has("+" + kPlugIn); }));
  EXPECT_EQ(news_.take(), (Paths{"-" + kPlugIn, "+" + kPlugIn}));
  // An application changes in place, and holds what it said while its manifest is in the making.
  device_.writeApp(kApp, std::move(PlistBuilder().set("CatalonPlaceholder", true)));
  ASSERT_TRUE(eventually([&] { return at(kPlugIn)->containingBundle()->isPlaceholder(); }));
  device_.write(kApp + "/Info.plist", "<plist><dict><key>Cat");
  device_.remove(kPlugIn);
  ASSERT_TRUE(becomes({}));
  EXPECT_TRUE(registry_->appRecord(FileURL{kApp})->isPlaceholder());
  device_.move(kApp, "/Applications/B.app");
  ASSERT_TRUE(eventually([&] { return registry_->appRecord(FileURL{kApp}) == nullptr; }));
}

// Whatever changes in whatever order, what is found in the end is what a start would find.
TEST_F(RegistryFollowTest, EndsWhereAFreshStartWouldBegin) {
  // Bundles on their usual ways, and where only links lead.
  Paths places{"/Applications", "/System/Library/PlugIns/S.appex", "/opt/1", "/opt/2", "/opt/now"};
  for (const std::string& app : {kApp, std::string("/System/Applications/B.app"), std::string("/opt/1/L.app")}) {
    for (const char* part : {"", "/Contents", "/PlugIns", "/Contents/PlugIns", "/PlugIns/X.appex"}) {
      places.push_back(app + part);
    }
  }
  const std::uint64_t seed = setting("VKD_FOLLOW_SEED", std::random_device()());
  const std::uint64_t rounds = setting("VKD_FOLLOW_ROUNDS", kDefaultRounds);
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
  open();
  for (std::uint64_t round = 0; round < rounds && !HasFailure(); ++round) {
    for (std::size_t count = 1 + random() % 12; count > 0; --count) {
      change(random() % 8, places[random() % places.size()], places[random() % places.size()], random);
    }
    const std::map<std::string, std::string> expected = foundAnew();
    eventually([&] { return found(*registry_) == expected; });
    EXPECT_EQ(found(*registry_), expected) << "round " << round;
  }
  const std::map<std::string, std::string> before = found(*registry_);
  open();
  EXPECT_EQ(found(*registry_), before) << "the last state is the one that was stored";
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
  // A link in their place leads to others.
  device_.move(app + "/PlugIns", "/opt/aside");
  device_.link("/opt/aside", app + "/PlugIns");
  ASSERT_TRUE(becomes({}));
  device_.remove(app + "/PlugIns");
  device_.move("/opt/aside", app + "/PlugIns");
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
