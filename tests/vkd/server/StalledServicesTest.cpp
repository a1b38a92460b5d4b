// Platform services that answer late or never: nobody is stopped beyond the request that asked, or, where the service
// queue itself waits for the answer, for longer than that; and nothing is lost or answered twice by it.
#include <gtest/gtest.h>

#include "tests/Support/FakeDaemon.h"
#include "tests/Support/SeededQueues.h"

namespace vkd::testing {
namespace {

constexpr std::uint64_t kSeeds = 20;

// While `shut`, one service answers nobody.
struct Scene {
  support::SeededQueues queues;
  bool shut = false;
  FakeDaemon daemon{[this](Services& all) { all.queues = std::shared_ptr<WorkQueueFactory>(&queues, [](auto*) {}); }};
  CapturedLog log;
  std::shared_ptr<FakeRecord> gone = daemon.install("gone");
  FakeClient host = daemon.connectManager(1), other = daemon.connect(2), dying = daemon.connect(3);

  Scene(std::string_view stalled, std::uint64_t seed) : queues(seed) {
    *daemon.device.hook = [this, stalled](std::string_view service) {
      if (service == stalled) queues.waitUntil([this] { return !shut; });
    };
    // Whoever asks for this one asks every service.
    auto record = daemon.install("a", dictionary({{std::string(kVKRequestsOpenAccess), true}}));
    record->changeManifest(kVKBundleIdentifier, "com.example.a");
    record->changeSection(kVKExtensionPointIdentifier, "com.vantrel.keyboard-service");
  }
  void deliver(FakeClient& client, const Message& request) {
    queues.thread("delivery", [&client, request] { client.deliver(request); });
  }
  // One reply, and what kind.
  static void expectServed(const FakeClient& client, const char* who) {
    ASSERT_EQ(client.connection->sent.size(), 1U) << who;
    const Message& reply = client.connection->sent.front();
    EXPECT_EQ(reply.get("errorcode"), nullptr) << who << ": " << reply.description();
  }
};

// What the service queue asks and waits for: everybody's requests wait with it, since they are served one at a time.
// But connections are read and end, and when the answer comes everybody gets one reply.
TEST(StalledService, OnTheServiceQueueDelaysRequestsAndLosesNone) {
  const Message ready = requestOf("ready", {{"uuids", uuids({"a"})}});
  const std::pair<const char*, Message> cases[] = {
      {"service manager", ready},
      {"consent", ready},
      {"assertions", lockRequest({kHostApp.path}, 1)},
      {"preferences", requestOf("match")},
      {"sandbox", requestOf("access", {{"uuids", uuids({"a"})}})},
      {"notifier", annotateRequest({"a"}, election(1))},
      {"registry", requestOf("add", {{"paths", listOf({pathOf("a")})}})},
      {"code signing", requestOf("remove", {{"paths", listOf({pathOf("a")})}})},
  };
  for (const auto& [service, request] : cases) {
    for (std::uint64_t seed = 1; seed <= kSeeds && !HasFailure(); ++seed) {
      SCOPED_TRACE(std::string(service) + ", seed " + std::to_string(seed));
      Scene scene(service, seed);
      scene.shut = true;
      scene.host.deliver(request);
      scene.queues.run();
      EXPECT_TRUE(scene.host.connection->sent.empty()) << "the service was not asked";

      scene.deliver(scene.other, requestOf("bulk"));
      scene.queues.thread("delivery", [&] { scene.dying.die(); });
      EXPECT_TRUE(scene.queues.run()) << "deliveries wait";
      EXPECT_FALSE(scene.dying.object()->acceptWork());

      scene.shut = false;
      EXPECT_TRUE(scene.queues.run());
      Scene::expectServed(scene.host, "who asked");
      Scene::expectServed(scene.other, "who waited");
    }
  }
}

// What others wait for, the service queue does not.
TEST(StalledService, ElsewhereStopsNobody) {
  const std::pair<const char*, std::function<void(Scene&)>> cases[] = {
      {"service manager", [](Scene& s) { s.daemon.device.registry->uninstall(s.gone); }},
      {"code signing", [](Scene& s) { s.daemon.connect(4).deliver(requestOf("bulk")); }},
  };
  for (const auto& [service, wait] : cases) {
    for (std::uint64_t seed = 1; seed <= kSeeds && !HasFailure(); ++seed) {
      SCOPED_TRACE(std::string(service) + ", seed " + std::to_string(seed));
      Scene scene(service, seed);
      scene.shut = true;
      scene.queues.thread("waiting", [&scene, &ask = wait] { ask(scene); });
      EXPECT_FALSE(scene.queues.run()) << "the service was not asked";

      scene.deliver(scene.host, annotateRequest({}, election(1)));
      scene.deliver(scene.other, requestOf("lock", {{"uuids", Message::array()}}));
      EXPECT_FALSE(scene.queues.run());
      Scene::expectServed(scene.host, "annotate");
      Scene::expectServed(scene.other, "lock");

      scene.shut = false;
      EXPECT_TRUE(scene.queues.run());
    }
  }
}

}  // namespace
}  // namespace vkd::testing
