// "lock": who may hold what, how a hold ends, and what it keeps from hosts meanwhile.
#include <gtest/gtest.h>

#include "tests/vkd/FakeDaemon.h"

namespace vkd::testing {
namespace {

constexpr std::uint64_t kApplications = 1, kPlugIns = 2;

struct Holds : ::testing::Test {
  FakeDaemon daemon;
  std::shared_ptr<FakeRecord> a = daemon.install("a"), b = daemon.install("b");
  FakeClient client = daemon.connect();
  LogCapture log;

  Holds() {
    for (const char* path : {"/Applications/Host.app", "/Applications/Empty.app", "/elsewhere"}) exists(path);
    for (const auto& record : {a, b}) exists(record->url->path);
    auto app = std::make_shared<FakeAppRecord>();
    app->url = FileURL{"/Applications/Host.app"};
    app->list = {a, b};
    daemon.device.registry->apps[app->url.path] = app;
  }
  void exists(const std::string& path) { daemon.device.files->directories[path] = 0755; }
  void makeBusy(std::string_view bundleIdentifier) {
    for (const auto& record : {a, b}) record->changeManifest(kVKBundleIdentifier, bundleIdentifier);
    daemon.device.assertions->instances = {messageOf({{kAssurdBundleIdentifierKey, bundleIdentifier}})};
  }
  Message lock(FakeClient& by, std::initializer_list<std::string_view> list, std::uint64_t flags) {
    return by.ask("lock", {{"paths", paths(list)}, {"flags", flags}});
  }
  Message release(const Message& tokens) { return client.ask("lock", {{"uuids", tokens}}); }
  static UUID token(const Message& granted) {
    const Message* value = granted.get("uuids");
    return value != nullptr && value->as<UUID>() != nullptr ? *value->as<UUID>() : UUID();
  }
  static Message list(std::initializer_list<Message> elements) { return Message::Array(elements); }
  bool isHeld(const std::shared_ptr<FakeRecord>& record) {
    return daemon.server->holdOnPlugIn(*daemon.server->findPlugIn(*record->uuid));
  }
  std::size_t announcements() const { return daemon.device.notifier->posts.size(); }
};

TEST_F(Holds, HoldsEveryPlugInOfAnApplicationUntilTheTokenIsGivenBack) {
  const Message granted = lock(client, {"/Applications/Host.app"}, kApplications);
  const UUID held = token(granted);
  EXPECT_EQ(granted, messageOf({{"uuids", held}}));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "hold request granted uuid:" + held.text()));
  EXPECT_TRUE(isHeld(a) && isHeld(b));
  EXPECT_EQ(daemon.messages->keepAlives, 1);
  EXPECT_EQ(announcements(), 1U);

  // Tokens that are none and tokens of nobody do no harm; anybody may release.
  FakeClient other = daemon.connect(5);
  EXPECT_EQ(other.ask("lock", {{"uuids", list({5, UUID::random(), held, held})}}), success());
  EXPECT_FALSE(isHeld(a) || isHeld(b));
  EXPECT_EQ(daemon.messages->keepAlives, 0);
  EXPECT_EQ(announcements(), 2U);
  EXPECT_EQ(log.count("releasing plug-in hold " + held.text() + " at client's request"), 1);
  EXPECT_EQ(release(list({held})), success());
}

TEST_F(Holds, HoldsNothingForAnEmptyListOrAnApplicationWithoutPlugIns) {
  for (const Message& granted : {lock(client, {}, kApplications), lock(client, {"/Applications/Empty.app"}, 1)}) {
    EXPECT_NE(token(granted), UUID());
  }
  EXPECT_EQ(daemon.server->holds().size(), 2U);
  EXPECT_NE(token(lock(client, {}, 99)), UUID()) << "flags are looked at with a path";
}

TEST_F(Holds, RefusesWhatItCannotFindAndHoldsNothingOfIt) {
  EXPECT_EQ(lock(client, {a->url->path, "/gone"}, kPlugIns), failure(9, "invalid path: /gone"));
  EXPECT_EQ(lock(client, {a->url->path, "/elsewhere"}, kPlugIns), failure(9, "no plug-in at path:/elsewhere"));
  const Message unsupported = failure(4, "invalid request format (unsupported hold flags)");
  EXPECT_EQ(lock(client, {"/elsewhere"}, 3), unsupported);
  EXPECT_EQ(client.ask("lock", {{"paths", paths({"/elsewhere"})}}), unsupported);
  EXPECT_EQ(client.ask("lock", {{"uuids", "no list"}}), failure(4, "invalid request format"));
  EXPECT_TRUE(daemon.server->holds().empty());
  EXPECT_EQ(announcements(), 0U);
}

TEST_F(Holds, RefusesBusyApplicationsButHoldsASinglePlugInAllTheSame) {
  makeBusy("com.example.busy");
  const Message conflict = messageOf({{kJobdExtensionBundleIdentifierKey, "com.example.busy"}});
  Message expected = failure(14, "plug-ins are busy");
  expected.set("conflicts", list({conflict, conflict}));
  EXPECT_EQ(lock(client, {"/Applications/Host.app"}, kApplications), expected);
  EXPECT_EQ(log.count("hold rejected. Busy plug-ins:"), 1);
  EXPECT_TRUE(daemon.server->holds().empty());

  EXPECT_NE(token(lock(client, {a->url->path}, kPlugIns)), UUID());
  EXPECT_TRUE(isHeld(a));
  EXPECT_FALSE(isHeld(b));
}

TEST_F(Holds, KeepsAPlugInHeldUntilTheLastOfItsHoldsEnds) {
  const UUID first = token(lock(client, {a->url->path, a->url->path}, kPlugIns));
  const UUID second = token(lock(client, {a->url->path}, kPlugIns));
  release(list({first}));
  EXPECT_TRUE(isHeld(a));
  release(list({second}));
  EXPECT_FALSE(isHeld(a));
}

TEST_F(Holds, EndWithTheirClientAndOnlyTheirs) {
  FakeClient other = daemon.connect(5);
  const UUID first = token(lock(client, {a->url->path}, kPlugIns));
  const UUID kept = token(lock(other, {b->url->path}, kPlugIns));
  const UUID second = token(lock(client, {b->url->path}, kPlugIns));
  client.die();
  ASSERT_EQ(daemon.server->holds().size(), 1U);
  EXPECT_EQ(daemon.server->holds().front()->uuid(), kept);
  EXPECT_FALSE(isHeld(a));
  EXPECT_TRUE(isHeld(b));
  for (const UUID& uuid : {first, second}) {
    EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "releasing plug-in hold " + uuid.text() + " for dead client pid 77"));
  }
  EXPECT_EQ(announcements(), 5U);
}

TEST_F(Holds, AreNotPlacedForAClientThatDiedMeanwhile) {
  auto hold =
      VKDPlugInHold::initWithPlugInsForClient(daemon.messages, {daemon.server->findPlugIn(*a->uuid)}, client.object());
  client.die();
  EXPECT_EQ(daemon.server->addHold(hold), VKDServer::HoldAdded::ClientIsGone);
  EXPECT_FALSE(isHeld(a));
  EXPECT_EQ(announcements(), 0U);
  hold = nullptr;
  EXPECT_EQ(daemon.messages->keepAlives, 0);
}

TEST_F(Holds, AreBoundedPerClient) {
  FakeClient other = daemon.connect(5);
  UUID last;
  for (std::uint32_t i = 0; i < VKDServer::kMaxHoldsPerClient; ++i) last = token(lock(client, {}, kApplications));
  EXPECT_EQ(lock(client, {a->url->path}, kPlugIns), failure(4, "too many holds"));
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "client 77 is refused a hold: it has 256"));
  EXPECT_FALSE(isHeld(a));
  EXPECT_NE(token(lock(other, {}, kApplications)), UUID());
  release(list({last}));
  EXPECT_NE(token(lock(client, {}, kApplications)), UUID());
}

}  // namespace
}  // namespace vkd::testing
