// Requests, dying clients, uninstalls and rewritten preferences in many interleavings: each must end in the same state,
// with the same replies, as if the same things had happened one after the other in some order.
//
// VKD_INTERLEAVINGS says how many interleavings of each scenario; a failure names its seed, VKD_SEED takes it again.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <set>

#include "tests/Support/SeededQueues.h"
#include "tests/vkd/FakeDaemon.h"

namespace vkd::testing {
namespace {

using support::SeededQueues;

constexpr std::uint64_t kInterleavings = 400;

std::uint64_t setting(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

// Services at whose door somebody else may go first.
struct OvertakenRegistry : FakeRegistry {
  SeededQueues* queues = nullptr;

  std::optional<RegistryPlugInRecords> installedPlugIns() override { return passing(FakeRegistry::installedPlugIns()); }
  std::optional<RegistryPlugInRecords> plugInsMatching(const PlistValue& query, const Filter& filter) override {
    FakeRegistry now;  // the filter is called on a list that changes no more
    now.installed = installed;
    return passing(now.plugInsMatching(query, filter));
  }
  std::shared_ptr<RegistryPlugInRecord> plugInRecord(const UUID& uuid) override {
    return passing(FakeRegistry::plugInRecord(uuid));
  }
  std::shared_ptr<RegistryPlugInRecord> plugInRecord(const FileURL& url) override {
    return passing(FakeRegistry::plugInRecord(url));
  }
  std::shared_ptr<RegistryAppRecord> appRecord(const FileURL& url) override {
    auto found = FakeRegistry::appRecord(url);
    if (found == nullptr) return found;
    auto now = std::make_shared<FakeAppRecord>(static_cast<const FakeAppRecord&>(*found));
    now->list = *installed;
    return passing(std::shared_ptr<RegistryAppRecord>(now));
  }
  // As the registry does it: lookups see it at once, observers are told later.
  void remove(const std::shared_ptr<FakeRecord>& record) {
    std::erase(*installed, std::shared_ptr<RegistryPlugInRecord>(record));
    queues->pause();
    observer->pluginsWillUninstall({record});
  }

 private:
  template <class Answer>
  Answer passing(Answer answer) {
    queues->pause();
    return answer;
  }
};

struct OvertakenPreferences : FakePreferences {
  SeededQueues* queues = nullptr;
  PlistValue value(std::string_view key, std::string_view domain) override {
    queues->pause();
    return FakePreferences::value(key, domain);
  }
};

// Keeps records as the real one: of a bundle, until they are removed.
struct RecordingServiceManager : FakeServiceManager {
  SeededQueues* queues = nullptr;
  std::set<std::string> services;
  int addExternalService(std::int32_t, std::string_view executable, const Message&) override {
    queues->pause();
    services.emplace(executable);
    queues->pause();
    return 0;
  }
  void removeExternalService(std::string_view identifier, std::string_view, std::shared_ptr<WorkQueue> queue,
                             std::function<void(int)> completion) override {
    queues->pause();
    std::erase_if(services, [&](const std::string& path) { return path.find(identifier) != std::string::npos; });
    queue->async([completion = std::move(completion)] { completion(0); });
  }
};

struct World {
  SeededQueues queues;
  std::shared_ptr<OvertakenRegistry> registry = std::make_shared<OvertakenRegistry>();
  std::shared_ptr<OvertakenPreferences> preferences = std::make_shared<OvertakenPreferences>();
  std::shared_ptr<RecordingServiceManager> manager = std::make_shared<RecordingServiceManager>();
  FakeDaemon daemon;
  std::shared_ptr<FakeRecord> a = install("a"), b = install("b"), c = install("c");
  FakeClient host = daemon.connect(1), installer = daemon.connect(2), settings = daemon.connect(3);

  explicit World(std::uint64_t seed)
      : queues(seed), daemon([this](FakeServices& device) {
          device.otherQueues = std::shared_ptr<WorkQueueFactory>(&queues, [](auto*) {});
          device.registry = registry;
          device.preferences = preferences;
          device.serviceManager = manager;
        }) {
    registry->queues = preferences->queues = manager->queues = &queues;
    registry->apps["/Applications/Host.app"] = std::make_shared<FakeAppRecord>();
    for (const auto& record : {a, b, c}) daemon.device.files->directories[record->url->path] = 0755;
    daemon.device.files->directories["/Applications/Host.app"] = 0755;
    // Every line of the log is a place where a thread may lose its core.
    setLogSink([this](const LogLine&) { queues.pause(); });
  }
  ~World() { setLogSink({}); }

  std::shared_ptr<FakeRecord> install(const char* name) {
    auto record = daemon.install(name);
    record->bundleId = "/" + std::string(name) + ".appex";
    // Results may be sorted by it, and a seed is to take the same way again.
    record->uuid = UUID::parse("00000000-0000-0000-0000-00000000000" + std::string(name));
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
      text += "hold of";
      for (const auto& record : {a, b, c}) {
        for (const auto& plugIn : hold->blocked())
          text += plugIn->uuid() == *record->uuid ? " " + record->identifier : "";
      }
      text += hold->client() != nullptr ? "\n" : " of nobody\n";
    }
    text += "keep-alives " + std::to_string(daemon.messages->keepAlives) + ", posts " +
            std::to_string(daemon.device.notifier->posts.size()) + "\n";
    for (const std::string& service : manager->services) text += "service " + service + "\n";
    for (const auto& record : {a, b, c}) {
      auto plugIn = daemon.server->findPlugIn(*record->uuid);
      text += record->identifier + (plugIn == nullptr ? " gone " : " there ") +
              daemon.server->annotationSnapshot()->annotation(record->identifier)["election"].description() + "\n";
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

Step request(FakeClient World::*by, std::function<Message(World&)> make) {
  return [by, make](World& world) { (world.*by).deliver(make(world)); };
}
Message lock(World& world) {
  return requestOf("lock", {{"paths", paths({world.a->url->path})}, {"flags", std::uint64_t{2}}});
}
Message lockApplication(World&) {
  return requestOf("lock", {{"paths", paths({"/Applications/Host.app"})}, {"flags", std::uint64_t{1}}});
}
Message ready(World& world) { return requestOf("ready", {{"uuids", uuids({world.b, world.a})}}); }
Message match(World&) { return requestOf("match"); }
Message matchElected(World&) { return requestOf("match", {{"rules", messageOf({{kVKRuleUserElection, "1"}})}}); }
Message annotate(World& world) {
  return requestOf("annotate",
                   {{"uuids", uuids({world.a, world.b})}, {"annotations", messageOf({{"election", std::int64_t{1}}})}});
}
void installerDies(World& world) { world.installer.die(); }
void uninstallA(World& world) { world.registry->remove(world.a); }
void uninstallB(World& world) { world.registry->remove(world.b); }
Step exclude(std::string_view identifier) {
  return [identifier](World& world) {
    world.preferences->exclusions = PlistValue::array({PlistBuilder().set(kVKRuleIdentifier, identifier).take()});
  };
}
void nothing(World&) {}
void everythingIsCached(World& world) { world.daemon.server->findPlugIns(PlistValue()); }
void cacheIsTiny(World& world) { world.daemon.server->setCacheLimit(0); }
void lookUpC(World& world) { world.daemon.server->findPlugIn(*world.c->uuid); }
void electsItself(World& world) {
  world.b->rights = PlistBuilder().set(kVKEntitlementAutoElect, true).take();
  cacheIsTiny(world);
}

const Scenario kScenarios[] = {
    {"a client dies during its lock",
     everythingIsCached,
     {{request(&World::installer, lock)},
      {installerDies},
      {request(&World::host, ready)},
      {request(&World::settings, match)}}},
    {"a client dies that has a hold",
     [](World& world) {
       world.installer.deliver(lock(world));
       world.queues.run();
     },
     {{installerDies}, {request(&World::host, ready)}, {request(&World::settings, lock)}}},
    {"an uninstall during ready", everythingIsCached, {{uninstallA}, {request(&World::host, ready)}}},
    {"an uninstall during lookups that fill the cache",
     nothing,
     {{uninstallA}, {request(&World::host, match)}, {request(&World::installer, lockApplication)}}},
    {"two uninstalls during lock, match and ready",
     nothing,
     {{uninstallA, uninstallB},
      {request(&World::installer, lock)},
      {request(&World::host, match), request(&World::host, ready)}}},
    {"annotate during match",
     nothing,
     {{request(&World::settings, annotate)},
      {request(&World::host, matchElected)},
      {request(&World::installer, match)},
      {uninstallB}}},
    {"preferences rewritten during match",
     nothing,
     {{exclude("a"), exclude("b")},
      {request(&World::host, match), request(&World::host, match)},
      {request(&World::installer, match)}}},
    {"cache purged during match",
     cacheIsTiny,
     {{request(&World::host, match)}, {lookUpC, lookUpC}, {request(&World::settings, annotate)}, {uninstallA}}},
    {"automatic election during match",
     electsItself,
     {{request(&World::host, matchElected)}, {lookUpC}, {request(&World::settings, annotate)}}},
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
