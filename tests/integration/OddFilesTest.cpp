// Things that lie where files should: FIFOs, devices, folders, and links that are swapped as fast as somebody can.
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <thread>

#include "tests/integration/Device.h"

namespace integration {
namespace {

constexpr const char* kAnnotations = "/var/db/Vornik-Annotations";

// What makes it in place of a file; false when this user may not.
struct Kind {
  const char* name;
  bool (*make)(const char* path);
};
const Kind kKinds[] = {
    {"FIFO", [](const char* path) { return ::mkfifo(path, 0644) == 0; }},
    // It never ends.
    {"device", [](const char* path) { return ::mknod(path, S_IFCHR | 0644, makedev(1, 5)) == 0; }},
    {"folder", [](const char* path) { return ::mkdir(path, 0755) == 0; }},
};

class OddFiles : public Device {
 protected:
  static std::string plugIn(const std::string& name) { return std::string(kPhotos) + "/PlugIns/" + name + ".appex"; }
  OddFiles() {
    addApplication(kPhotos);
    addPlugIn(plugIn("Share"), manifest("com.example.share"));
  }
};

class InPlaceOfFiles : public OddFiles, public testing::WithParamInterface<Kind> {};

TEST_P(InPlaceOfFiles, AreTakenForUnreadableAndStopNobody) {
  addPlugIn(plugIn("Other"), manifest("com.example.other"));
  const std::string all[] = {
      kAnnotations,
      "/var/db/consent.plist",
      "/var/db/catalon/records",
      "/var/users/" + std::to_string(getuid()) + "/Preferences/ByHost/com.vantrel.vornik.userprefs.plist",
      "/System/Library/Types/types.plist",
      "/System/Library/ExtensionPoints/" + std::string(kShare) + ".plist",
      executable(kPhotos) + ".entitlements",
      plugIn("Share") + "/plugin.entitlements",
      plugIn("Share") + "/Localized/en.plist",
      plugIn("Other") + "/Info.plist",
  };
  for (const std::string& path : all) {
    fs::create_directories(host(path).parent_path());
    fs::remove(host(path));
    if (!GetParam().make(host(path).c_str())) GTEST_SKIP() << "not for this user";
  }
  setenv("LANG", "en_US.UTF-8", 1);
  startDaemon();
  EXPECT_EQ(seenBy(kPhotos), "com.example.share 1.0");
  EXPECT_EQ(seenBy(kPhotos, {"--rule", "Type=?UT-CONFORMS:public.image"}), "");
  EXPECT_EQ(as(kPhotos, {"ready", "com.example.share"}).status, 0);
  EXPECT_NE(as(kPhotos, {"remove", plugIn("Share")}).status, 0) << "nobody is entitled";
  EXPECT_EQ(as(kPhotos, {"diagnose", plugIn("Share")}).status, 3) << "the SDK definition cannot be had";
  EXPECT_EQ(as(kPhotos, {"elect", "com.example.share", "2"}).status, 0);
  EXPECT_TRUE(logSays("unable to load annotation database:"));
  EXPECT_TRUE(
      logSays("kept the annotation database that could not be loaded at /var/db/Vornik-Annotations.unreadable-"));
  EXPECT_TRUE(fs::is_regular_file(host(kAnnotations)));
  EXPECT_TRUE(fs::is_regular_file(host("/var/db/catalon/records")));
}

INSTANTIATE_TEST_SUITE_P(A, InPlaceOfFiles, testing::ValuesIn(kKinds),
                         [](const auto& test) { return std::string(test.param.name); });

// A folder outside of the device. Whatever is done to what lies in it is told, except for looking at its state.
class Canary {
 public:
  explicit Canary(const fs::path& folder) : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    constexpr unsigned kTouched = IN_OPEN | IN_ACCESS | IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVE;
    watch(folder, kTouched);
    for (const auto& entry : fs::recursive_directory_iterator(folder)) watch(entry.path(), kTouched);
    // Walking through it was this test.
    for (char bytes[4096]; ::read(fd_, bytes, sizeof bytes) > 0;) continue;
  }
  ~Canary() { ::close(fd_); }
  bool isUntouched() const {
    char bytes[4096];
    return ::read(fd_, bytes, sizeof bytes) < 0 && errno == EAGAIN;
  }

 private:
  void watch(const fs::path& path, unsigned events) {
    EXPECT_GE(::inotify_add_watch(fd_, path.c_str(), events), 0) << path;
  }
  const int fd_;
};

TEST_F(OddFiles, LinksThatAreSwappedLeadNobodyOut) {
  constexpr auto kDuration = std::chrono::milliseconds(1500);
  constexpr std::string_view kEvil = "/Applications/Evil.app";
  addApplication(kEvil, dictionary("com.example.harmless", true));
  addPlugIn(plugIn("Whole"), manifest("com.example.whole"));
  addPlugIn(plugIn("Manifest"), manifest("com.example.manifest"));
  addPlugIn(plugIn("Entitled"), manifest("com.example.entitled"), dictionary("com.example.harmless", true));
  addPlugIn(plugIn("Deep") + "/Contents", manifest("com.example.deep"));
  startDaemon();
  ASSERT_EQ(as(kPhotos, {"elect", "com.example.share", "2"}).status, 0);

  // What would do harm lies outside, and a link beside each victim leads to it, one way or the other.
  const fs::path outside = scratch_ / "outside";
  const PlistValue rights = dictionary(kManager, true);
  const std::string inManifest = plugIn("Manifest") + "/Info.plist", deep = plugIn("Deep") + "/Contents";
  const std::string entitlements = plugIn("Entitled") + "/plugin.entitlements",
                    evil = executable(kEvil) + ".entitlements";
  const std::string victims[] = {plugIn("Whole"), inManifest,        entitlements,      deep,       evil,
                                 kAnnotations,    "/var/db/catalon", "/var/containers", "/run/jobd"};
  std::vector<std::pair<fs::path, fs::path>> swaps;
  std::string up;
  for (int i = 0; i < 30; ++i) up += "../";
  fs::create_directories(outside);
  for (const std::string& victim : victims) {
    const fs::path target = outside / std::to_string(swaps.size()), link = host(victim + "-link");
    if (fs::is_directory(host(victim))) {
      addPlugIn("/" + fs::relative(target, root_).string(), manifest("com.example.canary"), rights);
    } else {
      const bool isManifest = victim.ends_with("Info.plist");
      std::ofstream(target) << serializePropertyListXML(isManifest ? manifest("com.example.canary") : rights);
    }
    fs::create_symlink(swaps.size() % 2 == 0 ? target : fs::path(up + target.string().substr(1)), link);
    swaps.emplace_back(host(victim), link);
  }
  Canary canary(outside);
  std::atomic<bool> done{false};
  std::thread swapper([&] {
    for (std::size_t i = 0; !done; i = (i + 1) % swaps.size()) {
      ::renameat2(AT_FDCWD, swaps[i].first.c_str(), AT_FDCWD, swaps[i].second.c_str(), RENAME_EXCHANGE);
    }
  });
  const auto end = std::chrono::steady_clock::now() + kDuration;
  for (int i = 0; std::chrono::steady_clock::now() < end; ++i) {
    for (const PlistValue& form : matches(kPhotos)) EXPECT_NE(form["identifier"].stringValue(), "com.example.canary");
    EXPECT_NE(as(kEvil, {"match", "--all"}).status, 0) << "it is not entitled";
    as(kPhotos, {"elect", "com.example.share", std::to_string(i)});
    as(kPhotos, {"ready", "com.example.share"});
    as(kPhotos, {"diagnose", plugIn("Whole"), plugIn("Manifest")});
  }
  done = true;
  swapper.join();
  EXPECT_TRUE(canary.isUntouched());
  EXPECT_FALSE(form(kPhotos, "com.example.canary"));
}

}  // namespace
}  // namespace integration
