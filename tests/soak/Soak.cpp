// The real daemon for a long time: clients of all kinds, bundles that come, change and go, processes killed at random.
// Then everything is taken away, and what it cost the daemon must be gone with it.
//
// SOAK_SECONDS is how long (scripts/soak asks in minutes), SOAK_SEED repeats the choices that are made here.
#include <iostream>
#include <map>

#include "tests/Support/Footprint.h"
#include "tests/Support/Setting.h"
#include "tests/integration/Device.h"
#include "tests/soak/SoakClients.h"

namespace {

using namespace integration;
using support::setting;

constexpr std::uint64_t kDefaultSeconds = 4;
constexpr std::size_t kPlugIns = 8;
constexpr std::string_view kInstaller = "/System/Applications/Installer.app";
constexpr const char* kFresh = "com.example.fresh";
// The allocator keeps some of what it once had.
constexpr std::size_t kMemoryFactorPercent = 150;
constexpr std::size_t kMemorySlackKilobytes = 16 * 1024;

std::vector<std::string> allPaths() {
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < kPlugIns; ++i) {
    paths.push_back("/Applications/Photos.app/PlugIns/P" + std::to_string(i) + ".appex");
  }
  return paths;
}
std::string identifierOf(std::size_t index) { return "com.example.p" + std::to_string(index); }

class Soak : public Device {
 protected:
  Soak() : shared_(root_, allPaths()), random_(seed_) {
    addApplication(kPhotos);
    addApplication(kInstaller, dictionary(kManager, true));
  }
  std::unique_ptr<Program> startOn(const std::vector<std::string>& options, const std::string& service) {
    // Of freed memory a sanitizer keeps little, so that growth is the daemon's.
    auto program =
        start(with(VKD_PROGRAM, options), {{"VANTREL_LOG", "error"}, {"ASAN_OPTIONS", "quarantine_size_mb=4"}});
    EXPECT_TRUE(eventually([&] { return program->hasEnded() || WireClient(root_, service).connected(); }));
    EXPECT_FALSE(program->hasEnded()) << program->err();
    return program;
  }

  // --- What happens --------------------------------------------------------------------------------------------------

  void live(std::chrono::milliseconds time) {
    auto end = std::chrono::steady_clock::now() + time;
    soak::Crowd crowd(shared_, random_());
    while (std::chrono::steady_clock::now() < end && !shared_.stop) {
      changeBundle(random_() % kPlugIns);
      if (random_() % 8 == 0) startVictim();
      if (victims_.size() > 3) killVictim();
      std::this_thread::sleep_for(std::chrono::milliseconds(random_() % 20));
    }
    while (!victims_.empty()) killVictim();
  }
  void changeBundle(std::size_t index) {
    if (random_() % 3 == 0) {
      fs::remove_all(host(shared_.paths[index]));
    } else {
      addPlugIn(shared_.paths[index], manifest(identifierOf(index), "1." + std::to_string(++changes_)));
    }
  }
  void startVictim() {
    const std::vector<std::string> lives[] = {{"hold", "--plug-in", shared_.paths[random_() % kPlugIns]},
                                              {"hold", std::string(kPhotos)},
                                              {"match", "--all", "--json"},
                                              {"watch", "--json"},
                                              {"ready", identifierOf(random_() % kPlugIns)}};
    victims_.push_back(startAs(random_() % 2 == 0 ? kInstaller : kPhotos, lives[random_() % std::size(lives)]));
  }
  void killVictim() {
    victims_.erase(victims_.begin() + static_cast<std::ptrdiff_t>(random_() % victims_.size()));
    ++killed_;
  }

  // --- What must be left ---------------------------------------------------------------------------------------------

  void removeEverything() {
    for (const std::string& path : shared_.paths) fs::remove_all(host(path));
    EXPECT_TRUE(eventually([&] { return seenBy(kInstaller, {"--all"}).empty(); })) << seenBy(kInstaller, {"--all"});
  }
  std::size_t recordsIn(std::string_view folder) const {
    std::size_t count = 0;
    std::error_code gone;
    for (fs::recursive_directory_iterator at(host(folder), gone), end; !gone && at != end; at.increment(gone)) {
      count += at->is_regular_file(gone) ? 1 : 0;
    }
    return count;
  }
  void expectNothingKept(const Program& daemon) {
    EXPECT_TRUE(eventually([&] { return recordsIn("/run/jobd/services") == 0; }))
        << recordsIn("/run/jobd/services") << " external services on record, of plug-ins that are gone";
    EXPECT_TRUE(eventually([&] { return recordsIn("/run/jobd/instances") == 0; }));
    EXPECT_TRUE(eventually([&] { return !fs::exists(host("/run/jobd/keepalive/" + std::to_string(daemon.pid()))); }))
        << "a hold is left";
  }
  // What this process is told, by identifier and without the tokens that are made for each answer.
  std::map<std::string, PlistValue> answersOf(std::string_view service) {
    auto reply = WireClient(root_, service).call(WireClient::request("match"));
    const Message* matches = reply ? reply->get("matches") : nullptr;
    EXPECT_NE(matches, nullptr) << service;
    std::map<std::string, PlistValue> forms;
    const PlistValue all = matches != nullptr ? matches->toPlist() : PlistValue();
    for (const PlistValue& form : all.elements()) {
      forms[std::string(form["identifier"].stringValue())] = PlistBuilder(form).remove("extensions").take();
    }
    return forms;
  }
  void compareWithFreshOne() {
    constexpr const char* kOld = "com.vantrel.vornik.vkd";
    constexpr std::size_t kPresent = kPlugIns / 2;
    for (std::size_t i = 0; i < kPresent; ++i) addPlugIn(shared_.paths[i], manifest(identifierOf(i), "2"));
    EXPECT_TRUE(eventually([&] {
      std::size_t seen = 0;
      for (const auto& [identifier, form] : answersOf(kOld)) seen += form["version"].stringValue() == "2" ? 1 : 0;
      return seen == kPresent;
    })) << "what was installed is not seen";
    auto fresh = startOn({"-S", kFresh}, kFresh);
    auto old = answersOf(kOld), now = answersOf(kFresh);
    EXPECT_EQ(old.size(), now.size());
    for (const auto& [identifier, form] : old) {
      EXPECT_EQ(form, now[identifier]) << serializePropertyListXML(form) << serializePropertyListXML(now[identifier]);
    }
  }
  void expectReturned(const Program& daemon, const Footprint& before) {
    Footprint now;
    EXPECT_TRUE(eventually([&] { return (now = Footprint::of(daemon.pid())).within(before); }));
    EXPECT_LE(now.kilobytes, before.kilobytes * kMemoryFactorPercent / 100 + kMemorySlackKilobytes);
    std::cout << "before: " << before << "\nafter:  " << now << "\n";
  }

  const std::uint64_t seed_ = setting("SOAK_SEED", std::random_device()());
  soak::Shared shared_;
  std::mt19937_64 random_;
  std::vector<std::unique_ptr<Program>> victims_;
  std::uint64_t changes_ = 0, killed_ = 0;
};

TEST_F(Soak, LeavesNothingBehind) {
  const std::chrono::seconds time(setting("SOAK_SECONDS", kDefaultSeconds));
  std::cout << "SOAK_SEED=" << seed_ << std::endl;
  auto daemon = startOn({}, "com.vantrel.vornik.vkd");
  // Once around before it counts: threads that start with the first need, tables at their usual size.
  live(std::chrono::milliseconds(time) / 5);
  removeEverything();
  Footprint before = Footprint::of(daemon->pid());
  live(std::chrono::milliseconds(time) * 4 / 5);
  EXPECT_EQ(shared_.asked, shared_.answered);
  EXPECT_FALSE(daemon->hasEnded());
  compareWithFreshOne();
  removeEverything();
  expectNothingKept(*daemon);
  expectReturned(*daemon, before);
  EXPECT_EQ(daemon->err().find(" fault "), std::string::npos);
  std::cout << shared_.answered << " requests (" << shared_.granted << " granted, " << shared_.refused << " refused), "
            << shared_.connections << " connections, " << shared_.garbage << " garbled ones, " << changes_
            << " bundle changes, " << killed_ << " processes killed\n";
  if (HasFailure()) std::fputs(daemon->err().substr(0, 20000).c_str(), stderr);
}

}  // namespace
