// The real daemon for a long time: clients of all kinds, bundles that come, change and go, processes killed at random.
// Then everything is taken away, and what it cost the daemon must be gone with it.
//
// SOAK_SECONDS is how long (scripts/soak asks in minutes), SOAK_SEED repeats the choices that are made here.
#include <algorithm>
#include <array>
#include <cinttypes>

#include "tests/Support/Footprint.h"
#include "tests/integration/Device.h"
#include "tests/soak/SoakClients.h"

namespace {

using namespace integration;

constexpr std::uint64_t kDefaultSeconds = 4;
constexpr std::size_t kPlugIns = 8;
constexpr std::string_view kInstaller = "/System/Applications/Installer.app";
constexpr const char* kFresh = "com.example.fresh";
// The allocator keeps some of what it once had.
constexpr std::size_t kMemoryFactorPercent = 150;
constexpr std::size_t kMemorySlackKilobytes = 16 * 1024;

std::uint64_t numberFrom(const char* variable, std::uint64_t otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}
std::string pathOf(std::size_t index) {
  return "/Applications/Photos.app/PlugIns/P" + std::to_string(index) + ".appex";
}
std::vector<std::string> allPaths() {
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < kPlugIns; ++i) paths.push_back(pathOf(i));
  return paths;
}

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
      fs::remove_all(host(pathOf(index)));
    } else {
      addPlugIn(pathOf(index), manifest(identifierOf(index), "1." + std::to_string(++changes_)));
    }
  }
  static std::string identifierOf(std::size_t index) { return "com.example.p" + std::to_string(index); }
  void startVictim() {
    std::string identifier = identifierOf(random_() % kPlugIns);
    const std::array<std::vector<std::string>, 5> lives{{
        {"hold", "--plug-in", pathOf(random_() % kPlugIns)},
        {"hold", std::string(kPhotos)},
        {"match", "--all", "--json"},
        {"watch", "--json"},
        {"ready", identifier},
    }};
    victims_.push_back(startAs(random_() % 2 == 0 ? kInstaller : kPhotos, lives[random_() % lives.size()]));
  }
  void killVictim() {
    victims_.erase(victims_.begin() + static_cast<std::ptrdiff_t>(random_() % victims_.size()));
    ++killed_;
  }

  // --- What must be left ---------------------------------------------------------------------------------------------

  void removeEverything() {
    for (std::size_t i = 0; i < kPlugIns; ++i) fs::remove_all(host(pathOf(i)));
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
  // What this process is told, without the tokens that are made for each answer.
  std::vector<PlistValue> answersOf(std::string_view service) {
    WireClient client(root_, service);
    auto reply = client.call(WireClient::request("match"));
    EXPECT_TRUE(reply && reply->get("matches") != nullptr) << service;
    std::vector<PlistValue> forms;
    if (!reply || reply->get("matches") == nullptr) return forms;
    PlistValue all = reply->get("matches")->toPlist();
    for (const PlistValue& form : all.elements()) {
      forms.push_back(PlistBuilder(form).set("extensions", PlistValue()).take());
    }
    std::sort(forms.begin(), forms.end(), [](const PlistValue& one, const PlistValue& other) {
      return one["identifier"].stringValue() < other["identifier"].stringValue();
    });
    return forms;
  }
  void compareWithFreshOne() {
    for (std::size_t i = 0; i < kPlugIns / 2; ++i) addPlugIn(pathOf(i), manifest(identifierOf(i), "2"));
    auto allSeen = [&] {
      auto forms = answersOf("com.vantrel.vornik.vkd");
      return static_cast<std::size_t>(std::count_if(forms.begin(), forms.end(), [](const PlistValue& form) {
               return form["version"].stringValue() == "2";
             })) == kPlugIns / 2;
    };
    EXPECT_TRUE(eventually(allSeen)) << "what was installed is not seen";
    auto fresh = startOn({"-S", kFresh}, kFresh);
    auto old = answersOf("com.vantrel.vornik.vkd"), now = answersOf(kFresh);
    EXPECT_EQ(old.size(), now.size());
    for (std::size_t i = 0; i < std::min(old.size(), now.size()); ++i) {
      EXPECT_EQ(old[i], now[i]) << serializePropertyListXML(old[i]) << serializePropertyListXML(now[i]);
    }
  }
  void expectReturned(const Program& daemon, const Footprint& before) {
    Footprint now;
    EXPECT_TRUE(eventually([&] { return (now = Footprint::of(daemon.pid())).within(before); }));
    EXPECT_LE(now.kilobytes, before.kilobytes * kMemoryFactorPercent / 100 + kMemorySlackKilobytes);
    std::ostringstream text;
    text << "before: " << before << "\nafter:  " << now << "\n";
    std::fputs(text.str().c_str(), stdout);
    if (HasFailure()) ADD_FAILURE() << text.str();
  }

  const std::uint64_t seed_ = numberFrom("SOAK_SEED", std::random_device()());
  soak::Shared shared_;
  std::mt19937_64 random_;
  std::vector<std::unique_ptr<Program>> victims_;
  std::uint64_t changes_ = 0, killed_ = 0;
};

TEST_F(Soak, LeavesNothingBehind) {
  const std::chrono::seconds time(numberFrom("SOAK_SECONDS", kDefaultSeconds));
  std::printf("SOAK_SEED=%" PRIu64 "\n", seed_);
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
  std::printf("%" PRIu64 " requests (%" PRIu64 " granted, %" PRIu64 " refused), %" PRIu64 " connections, %" PRIu64
              " garbled ones, %" PRIu64 " bundle changes, %" PRIu64 " processes killed\n",
              shared_.answered.load(), shared_.granted.load(), shared_.refused.load(), shared_.connections.load(),
              shared_.garbage.load(), changes_, killed_);
  if (HasFailure()) std::fputs(daemon->err().substr(0, 20000).c_str(), stderr);
}

}  // namespace
