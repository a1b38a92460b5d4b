// Platform services that answer late, twice or never: nobody is stopped beyond the request that asked, or, where the
// service queue itself waits for the answer, for longer than that; and nothing is lost or answered twice by it.
#include <gtest/gtest.h>

#include "tests/Support/SeededQueues.h"
#include "tests/vkd/FakeDaemon.h"

namespace vkd::testing {
namespace {

using support::SeededQueues;

constexpr std::uint64_t kSeeds = 20;

// A door through which whoever asks a service has to go.
struct Door {
  SeededQueues queues;
  bool shut = false;
  explicit Door(std::uint64_t seed) : queues(seed) {}
  void pass() {
    queues.waitUntil([this] { return !shut; });
  }
};

template <class Fake>
struct Behind : Fake {
  explicit Behind(Door& it) : door(it) {}
  Door& door;
};
struct SlowManager : Behind<FakeServiceManager> {
  using Behind::Behind;
  int addExternalService(std::int32_t pid, std::string_view executable, const Message& overlay) override {
    door.pass();
    return FakeServiceManager::addExternalService(pid, executable, overlay);
  }
  void removeExternalService(std::string_view identifier, std::string_view version, std::shared_ptr<WorkQueue> queue,
                             std::function<void(int)> completion) override {
    door.pass();
    FakeServiceManager::removeExternalService(identifier, version, std::move(queue), std::move(completion));
  }
};
struct SlowAssertions : Behind<FakeAssertions> {
  using Behind::Behind;
  std::vector<Message> busyExtensionInstances(const std::set<std::string>& identifiers) override {
    door.pass();
    return FakeAssertions::busyExtensionInstances(identifiers);
  }
};
struct SlowConsent : Behind<FakeConsent> {
  using Behind::Behind;
  std::optional<std::vector<Record>> informationForBundle(const CoreBundle& bundle) override {
    door.pass();
    return FakeConsent::informationForBundle(bundle);
  }
};
struct SlowRegistry : Behind<FakeRegistry> {
  using Behind::Behind;
  bool registerPlugIn(const FileURL& url) override {
    door.pass();
    return FakeRegistry::registerPlugIn(url);
  }
};
struct SlowPreferences : Behind<FakePreferences> {
  using Behind::Behind;
  void synchronize(std::string_view domain) override {
    door.pass();
    FakePreferences::synchronize(domain);
  }
};
struct SlowSandbox : Behind<FakeSandbox> {
  using Behind::Behind;
  std::optional<std::string> issueReadExtension(std::string_view path, int* error) override {
    door.pass();
    return FakeSandbox::issueReadExtension(path, error);
  }
};
struct SlowNotifier : Behind<FakeNotifier> {
  using Behind::Behind;
  void post(std::string_view name) override {
    door.pass();
    FakeNotifier::post(name);
  }
};
struct SlowCodeSigning : Behind<CodeSigning> {
  using Behind::Behind;
  struct Task : CodeSigningTask {
    explicit Task(Door& it) : door(it) {}
    Door& door;
    PlistValue entitlement(std::string_view name, std::optional<DomainError>* error) override {
      return entitlements(error)[name];
    }
    PlistValue entitlements(std::optional<DomainError>*) override {
      door.pass();
      return PlistBuilder().set(kVKEntitlementManager, true).take();
    }
  };
  std::unique_ptr<CodeSigningTask> task(std::shared_ptr<AuditToken>) override { return std::make_unique<Task>(door); }
  std::optional<std::string> executablePath(std::int32_t) override {
    door.pass();
    return "/Applications/Host.app/run";
  }
};

struct Scene {
  Door door;
  FakeDaemon daemon;
  LogCapture log;
  std::shared_ptr<FakeRecord> a = daemon.install("a"), gone = daemon.install("gone");
  FakeClient host = daemon.connect(1), other = daemon.connect(2), dying = daemon.connect(3);

  explicit Scene(std::uint64_t seed)
      : door(seed), daemon([this](FakeServices& device) {
          device.otherQueues = std::shared_ptr<WorkQueueFactory>(&door.queues, [](auto*) {});
          device.otherCodeSigning = std::make_shared<SlowCodeSigning>(door);
          device.registry = std::make_shared<SlowRegistry>(door);
          device.preferences = std::make_shared<SlowPreferences>(door);
          device.serviceManager = std::make_shared<SlowManager>(door);
          device.assertions = std::make_shared<SlowAssertions>(door);
          device.consent = std::make_shared<SlowConsent>(door);
          device.sandbox = std::make_shared<SlowSandbox>(door);
          device.notifier = std::make_shared<SlowNotifier>(door);
        }) {
    a->changeManifest(kVKBundleIdentifier, "com.example.a");
    a->changeSection(kVKExtensionPointIdentifier, "com.vantrel.keyboard-service");
    a->changeSection(
        kVKExtensionAttributes,
        PlistBuilder(a->plugInDictionary()[kVKExtensionAttributes]).set(kVKRequestsOpenAccess, true).take());
    daemon.device.files->directories[a->url->path] = 0755;
    daemon.device.files->directories["/Applications/Host.app"] = 0755;
    auto app = std::make_shared<FakeAppRecord>();
    app->list = {a};
    daemon.device.registry->apps["/Applications/Host.app"] = app;
  }
  void deliver(FakeClient& client, Message request) {
    door.queues.thread("delivery", [&client, request] { client.deliver(request); });
  }
  // One reply each, and what kind.
  static void expectServed(const FakeClient& client, const char* who) {
    ASSERT_EQ(client.connection->sent.size(), 1U) << who;
    EXPECT_EQ(client.connection->sent.front().get("errorcode"), nullptr)
        << client.connection->sent.front().description();
  }
};

// What the service queue asks and waits for: everybody's requests wait with it, since they are served one at a time.
// But connections are read and end, uninstalls are heard, and when the answer comes everybody gets one reply.
TEST(StalledService, OnTheServiceQueueDelaysRequestsAndLosesNone) {
  const struct {
    const char* service;
    std::function<Message(Scene&)> request;
  } kCases[] = {
      {"service manager, consent",
       [](Scene& s) {
         return requestOf("ready", {{"uuids", uuids({s.a})}});
       }},
      {"assertions",
       [](Scene&) {
         return requestOf("lock", {{"paths", paths({"/Applications/Host.app"})}, {"flags", std::uint64_t{1}}});
       }},
      {"preferences", [](Scene&) { return requestOf("match"); }},
      {"sandbox",
       [](Scene& s) {
         return requestOf("access", {{"uuids", uuids({s.a})}});
       }},
      {"notifier",
       [](Scene& s) {
         return requestOf("annotate", {{"uuids", uuids({s.a})}, {"annotations", messageOf({{"election", 1}})}});
       }},
      {"registry",
       [](Scene& s) {
         return requestOf("add", {{"paths", paths({s.a->url->path})}});
       }},
      {"code signing",
       [](Scene& s) {
         return requestOf("remove", {{"paths", paths({s.a->url->path})}});
       }},
  };
  for (const auto& stalled : kCases) {
    for (std::uint64_t seed = 1; seed <= kSeeds && !::testing::Test::HasFailure(); ++seed) {
      SCOPED_TRACE(std::string(stalled.service) + ", seed " + std::to_string(seed));
      Scene scene(seed);
      scene.door.shut = true;
      scene.host.deliver(stalled.request(scene));
      scene.door.queues.run();
      EXPECT_TRUE(scene.host.connection->sent.empty()) << "the service was not asked";

      scene.deliver(scene.other, requestOf("bulk"));
      scene.door.queues.thread("delivery", [&] { scene.dying.die(); });
      EXPECT_TRUE(scene.door.queues.run()) << "deliveries wait";
      EXPECT_FALSE(scene.dying.object()->acceptWork());

      scene.door.shut = false;
      EXPECT_TRUE(scene.door.queues.run());
      Scene::expectServed(scene.host, "who asked");
      Scene::expectServed(scene.other, "who waited");
    }
  }
}

// What others wait for, the service queue does not.
TEST(StalledService, ElsewhereStopsNobody) {
  const struct {
    const char* who;
    std::function<void(Scene&)> wait;
  } kCases[] = {
      {"an uninstall, in the service manager", [](Scene& s) { s.daemon.device.registry->uninstall(s.gone); }},
      {"a newcomer, in code signing", [](Scene& s) { s.daemon.connect(4).deliver(requestOf("bulk")); }},
  };
  for (const auto& stalled : kCases) {
    for (std::uint64_t seed = 1; seed <= kSeeds && !::testing::Test::HasFailure(); ++seed) {
      SCOPED_TRACE(std::string(stalled.who) + ", seed " + std::to_string(seed));
      Scene scene(seed);
      scene.door.shut = true;
      scene.door.queues.thread(stalled.who, [&] { stalled.wait(scene); });
      EXPECT_FALSE(scene.door.queues.run()) << "the service was not asked";
      EXPECT_EQ(scene.daemon.server->findPlugIn(*scene.gone->uuid) == nullptr, scene.daemon.connections.size() == 3);

      scene.deliver(scene.host, requestOf("annotate", {{"uuids", uuids({})}, {"annotations", messageOf({})}}));
      scene.deliver(scene.other, requestOf("lock", {{"uuids", Message::array()}}));
      EXPECT_FALSE(scene.door.queues.run());
      Scene::expectServed(scene.host, "annotate");
      Scene::expectServed(scene.other, "lock");

      scene.door.shut = false;
      EXPECT_TRUE(scene.door.queues.run());
    }
  }
}

TEST(StalledService, IsHeardOnceHoweverOftenItAnswersAndWhenever) {
  struct Manager : FakeServiceManager {
    std::shared_ptr<WorkQueue> queue;
    std::function<void(int)> completion;
    void removeExternalService(std::string_view, std::string_view, std::shared_ptr<WorkQueue> on,
                               std::function<void(int)> then) override {
      queue = std::move(on);
      completion = std::move(then);
    }
  };
  auto manager = std::make_shared<Manager>();
  FakeDaemon daemon([&](FakeServices& device) { device.serviceManager = manager; });
  LogCapture log;
  daemon.device.registry->uninstall(daemon.install("a"));
  FakeClient client = daemon.connect();
  EXPECT_EQ(client.ask("bulk"), success()) << "no answer yet";
  EXPECT_EQ(log.count("jobd reported"), 0);
  for (int answer : {0, 3, 22}) manager->queue->async([&, answer] { manager->completion(answer); });
  EXPECT_EQ(client.ask("bulk"), success());
  EXPECT_EQ(log.count("jobd reported plug-ins have been terminated"), 1);
  EXPECT_EQ(log.count("jobd reported no") + log.count("jobd error"), 0) << log.all();
}

}  // namespace
}  // namespace vkd::testing
