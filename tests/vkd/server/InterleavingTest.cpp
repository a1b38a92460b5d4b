// Requests, dying clients, uninstalls and rewritten preferences in many interleavings: each must end in the same state,
// with the same replies, as if the same things had happened one after the other in some order.
//
// VKD_INTERLEAVINGS says how many interleavings of each scenario; a failure names its seed, VKD_SEED takes it again.
#include <gtest/gtest.h>

#include <set>

#include "tests/Support/FakeDaemon.h"
#include "tests/Support/SeededQueues.h"
#include "tests/Support/Setting.h"

namespace vkd::testing {
namespace {

constexpr std::uint64_t kInterleavings = 400;

struct World {
  SeededQueues queues;
  FakeDaemon daemon{[this](Services& all) { all.queues = std::shared_ptr<WorkQueueFactory>(&queues, [](auto*) {}); }};
  std::shared_ptr<FakeRecord> a = install("a"), b = install("b"), c = install("c");
  FakeClient host = daemon.connect(1), installer = daemon.connect(2), settings = daemon.connect(3);

  // Wherever a service is asked, and at every line of the log, a thread may lose its core.
  explicit World(std::uint64_t seed) : queues(seed) {
    *daemon.device.hook = [this](std::string_view) { queues.pause(); };
    setLogSink([this](const LogLine&) { queues.pause(); });
  }
  ~World() { setLogSink({}); }

  std::shared_ptr<FakeRecord> install(const std::string& name) {
    auto record = daemon.install(name);
    record->bundleId = "/" + name + ".appex";
    return record;
  }
  // Everything that anybody can see afterwards. Tokens are random, and stand for themselves.
  std::string outcome() {
    std::string text;
    for (const auto& connection : daemon.connections) {
      text += "client " + std::to_string(connection->peerPid()) + ":";
      // Who is gone gets what is sent no more.
      const bool gone = !std::static_pointer_cast<VKDZypClient>(connection->context)->acceptWork();
      EXPECT_LE(connection->sent.size(), gone ? 1U : 2U);
      for (const Message& reply : connection->sent) text += gone ? "" : " " + textOf(reply);
      text += "\n";
    }
    for (const auto& hold : daemon.server->holds()) {
      text += hold->client() != nullptr ? "hold of" : "hold of nobody on";
      for (const auto& plugIn : hold->blocked()) text += " " + plugIn->identifier();
      text += "\n";
    }
    text += "keep-alives " + std::to_string(daemon.device.messages->keepAlives) + ", posts " +
            std::to_string(daemon.device.notifier->posts.size()) + "\n";
    for (const std::string& service : daemon.device.serviceManager->services) text += "service " + service + "\n";
    for (const char* name : {"a", "b", "c"}) {
      text += std::string(name) + (daemon.plugIn(name) == nullptr ? " gone " : " there ") +
              daemon.server->annotationSnapshot()->annotation(name)["election"].description() + "\n";
    }
    return text;
  }

 private:
  static std::string textOf(const Message& reply) {
    if (reply.get("errorcode") != nullptr) return reply.description();
    const Message* matches = reply.get("matches");
    if (matches == nullptr) return reply.get("uuids") != nullptr ? "token" : "done";
    std::multiset<std::string> forms;  // they come in no defined order
    for (const PlistValue& form : matches->toPlist().elements()) {
      forms.insert(std::string(form["identifier"].stringValue()) + form["annotations"]["election"].description());
    }
    std::string text = "[";
    for (const std::string& form : forms) text += form + " ";
    return text + "]";
  }
};

using Step = std::function<void(World&)>;
struct Scenario {
  const char* name;
  Step prepare;
  std::vector<std::vector<Step>> threads;  // each does its steps in order
};

Step request(FakeClient World::*by, const Message& message) {
  return [by, message](World& world) { (world.*by).deliver(message); };
}
const Message kLock = lockRequest({pathOf("a")}, 2), kLockApplication = lockRequest({kHostApp.path}, 1);
const Message kReady = requestOf("ready", {{"uuids", uuids({"b", "a"})}});
const Message kMatch = requestOf("match"), kAnnotate = annotateRequest({"a", "b"}, election(1));
const Message kMatchElected = requestOf("match", {{"rules", messageOf({{kVKRuleUserElection, "1"}})}});

void installerDies(World& world) { world.installer.die(); }
void uninstallA(World& world) { world.daemon.device.registry->uninstall(world.a); }
void uninstallB(World& world) { world.daemon.device.registry->uninstall(world.b); }
Step exclude(const std::string& identifier) {
  return [rule = dictionary({{std::string(kVKRuleIdentifier), identifier}})](World& world) {
    world.daemon.device.preferences->exclusions = list({rule});
  };
}
void nothing(World&) {}
void everythingIsCached(World& world) { world.daemon.server->findPlugIns(PlistValue()); }
void cacheIsTiny(World& world) { world.daemon.server->setCacheLimit(0); }
void lookUpC(World& world) { world.daemon.plugIn("c"); }
void electsItself(World& world) {
  world.b->rights = dictionary({{std::string(kVKEntitlementAutoElect), true}});
  cacheIsTiny(world);
}
void installerHolds(World& world) {
  world.installer.deliver(kLock);
  world.queues.run();
}

const Step kHostReady = request(&World::host, kReady), kHostMatch = request(&World::host, kMatch);
const Step kInstallerLock = request(&World::installer, kLock), kInstallerMatch = request(&World::installer, kMatch);
const Step kSettingsAnnotate = request(&World::settings, kAnnotate);
const Step kHostElected = request(&World::host, kMatchElected);

const Scenario kScenarios[] = {
    {"a client dies during its lock",
     everythingIsCached,
     {{kInstallerLock}, {installerDies}, {kHostReady}, {request(&World::settings, kMatch)}}},
    {"a client dies that has a hold",
     installerHolds,
     {{installerDies}, {kHostReady}, {request(&World::settings, kLock)}}},
    {"an uninstall during ready", everythingIsCached, {{uninstallA}, {kHostReady}}},
    {"an uninstall during lookups that fill the cache",
     nothing,
     {{uninstallA}, {kHostMatch}, {request(&World::installer, kLockApplication)}}},
    {"two uninstalls during lock, match and ready",
     nothing,
     {{uninstallA, uninstallB}, {kInstallerLock}, {kHostMatch, kHostReady}}},
    {"annotate during match", nothing, {{kSettingsAnnotate}, {kHostElected}, {kInstallerMatch}, {uninstallB}}},
    {"preferences rewritten during match",
     nothing,
     {{exclude("a"), exclude("b")}, {kHostMatch, kHostMatch}, {kInstallerMatch}}},
    {"cache purged during match", cacheIsTiny, {{kHostMatch}, {lookUpC, lookUpC}, {kSettingsAnnotate}, {uninstallA}}},
    {"automatic election during match", electsItself, {{kHostElected}, {lookUpC}, {kSettingsAnnotate}}},
};

// What every order of the steps comes to, one after the other; those of one thread stay in theirs.
class SerialOutcomes {
 public:
  explicit SerialOutcomes(const Scenario& scenario) : scenario_(scenario) {
    for (std::size_t thread = 0; thread < scenario.threads.size(); ++thread) {
      order_.insert(order_.end(), scenario.threads[thread].size(), thread);
    }
    do {
      play();
    } while (std::ranges::next_permutation(order_).found);
  }
  bool contain(const std::string& outcome) const { return outcomes_.contains(outcome); }
  std::string text() const {
    std::string all;
    for (const std::string& outcome : outcomes_) all += "- " + outcome;
    return all;
  }

 private:
  void play() {
    World world(0);
    scenario_.prepare(world);
    std::vector<std::size_t> next(scenario_.threads.size());
    for (std::size_t thread : order_) {
      const Step& step = scenario_.threads[thread][next[thread]++];
      world.queues.thread("step", [&] { step(world); });
      EXPECT_TRUE(world.queues.run());
    }
    outcomes_.insert(world.outcome());
  }

  const Scenario& scenario_;
  std::vector<std::size_t> order_;  // of the threads whose turn it is
  std::set<std::string> outcomes_;
};

TEST(Interleavings, EndAsSomeSerialOrderDoes) {
  const std::uint64_t count = setting("VKD_INTERLEAVINGS", kInterleavings);
  const std::uint64_t first = setting("VKD_SEED", 1);
  for (const Scenario& scenario : kScenarios) {
    SerialOutcomes serial(scenario);
    std::set<std::string> seen;
    bool known = true;
    for (std::uint64_t seed = first; seed < first + count && known; ++seed) {
      World world(seed);
      scenario.prepare(world);
      for (const auto& steps : scenario.threads) {
        world.queues.thread(scenario.name, [&] {
          for (const Step& step : steps) {
            world.queues.linger();
            step(world);
          }
        });
      }
      ASSERT_TRUE(world.queues.run()) << scenario.name << ": stuck with seed " << seed;
      const std::string outcome = world.outcome();
      known = serial.contain(outcome);
      EXPECT_TRUE(known) << scenario.name << ", seed " << seed << "\n" << outcome << "is none of\n" << serial.text();
      seen.insert(outcome);
    }
    EXPECT_TRUE(!known || seen.size() > 1 || count < kInterleavings) << scenario.name << ": nothing ever met";
  }
}

}  // namespace
}  // namespace vkd::testing
