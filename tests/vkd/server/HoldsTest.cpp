// "lock": who may hold what, how a hold ends, and what it keeps from hosts meanwhile.
#include <gtest/gtest.h>

#include "tests/Support/FakeDaemon.h"

namespace vkd::testing {
namespace {

constexpr std::uint64_t kApplications = 1, kPlugIns = 2;

struct Holds : ::testing::Test {
  FakeDaemon daemon;
  std::shared_ptr<FakeRecord> a = daemon.install("a"), b = daemon.install("b");
  FakeClient client = daemon.connect(), other = daemon.connect(5);
  CapturedLog log;

  // The token that was granted.
  static UUID lock(FakeClient by, std::initializer_list<Message> paths, std::uint64_t flags = kPlugIns) {
    const Message granted = by.tell(lockRequest(paths, flags));
    const Message* token = granted.get("uuids");
    EXPECT_TRUE(token != nullptr && token->as<UUID>() != nullptr) << granted.description();
    return token != nullptr && token->as<UUID>() != nullptr ? *token->as<UUID>() : UUID();
  }
  static Message release(FakeClient by, std::initializer_list<Message> tokens) {
    return by.ask("lock", {{"uuids", listOf(tokens)}});
  }
  std::string held() {
    std::string names;
    for (const char* name : {"a", "b"}) names += daemon.isHeld(name) ? name : "";
    return names;
  }
  std::size_t announcements() const { return daemon.device.notifier->posts.size(); }
};

TEST_F(Holds, HoldsEveryPlugInOfAnApplicationUntilTheTokenIsGivenBack) {
  const UUID token = lock(client, {kHostApp.path}, kApplications);
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "hold request granted uuid:" + token.text()));
  EXPECT_EQ(held(), "ab");
  EXPECT_EQ(daemon.device.messages->keepAlives, 1);
  EXPECT_EQ(announcements(), 1U);

  // Tokens that are none and tokens of nobody do no harm; anybody may release.
  EXPECT_EQ(release(other, {5, UUID::random(), token, token}), success());
  EXPECT_EQ(held(), "");
  EXPECT_EQ(daemon.device.messages->keepAlives, 0);
  EXPECT_EQ(announcements(), 2U);
  EXPECT_EQ(log.count("releasing plug-in hold " + token.text() + " at client's request"), 1);
}

TEST_F(Holds, HoldsNothingForAnEmptyListOrAnApplicationWithoutPlugIns) {
  daemon.device.files->directories["/Applications/Empty.app"] = 0755;
  lock(client, {"/Applications/Empty.app"}, kApplications);
  lock(client, {}, 99);  // flags are looked at with a path
  EXPECT_EQ(daemon.server->holds().size(), 2U);
  EXPECT_EQ(held(), "");
}

TEST_F(Holds, RefusesBusyApplicationsButHoldsASinglePlugInAllTheSame) {
  constexpr std::string_view kBusy = "com.example.busy";
  for (const auto& record : {a, b}) record->changeManifest(kVKBundleIdentifier, kBusy);
  daemon.device.assertions->instances = {messageOf({{kAssurdBundleIdentifierKey, kBusy}})};
  const Message conflict = messageOf({{kJobdExtensionBundleIdentifierKey, kBusy}});
  Message refusal = failure(14, "plug-ins are busy");
  refusal.set("conflicts", listOf({conflict, conflict}));
  EXPECT_EQ(client.tell(lockRequest({kHostApp.path}, kApplications)), refusal);
  EXPECT_EQ(log.count("hold rejected. Busy plug-ins:"), 1);
  EXPECT_TRUE(daemon.server->holds().empty());
  lock(client, {pathOf("a")});
  EXPECT_EQ(held(), "a");
}

TEST_F(Holds, EndWithTheLastOfThemOrWithTheirClient) {
  const UUID first = lock(client, {pathOf("a"), pathOf("a")}), second = lock(client, {pathOf("a")});
  release(client, {first});
  EXPECT_EQ(held(), "a");
  const UUID kept = lock(other, {pathOf("b")}), third = lock(client, {pathOf("b")});
  client.die();
  ASSERT_EQ(daemon.server->holds().size(), 1U);
  EXPECT_EQ(daemon.server->holds().front()->uuid(), kept);
  EXPECT_EQ(held(), "b");
  for (const UUID& uuid : {second, third}) {
    EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "releasing plug-in hold " + uuid.text() + " for dead client pid 77"));
  }
  EXPECT_EQ(announcements(), 7U);
}

TEST_F(Holds, AreNotPlacedForAClientThatDiedMeanwhile) {
  const auto messages = daemon.device.messages;
  auto hold = VKDPlugInHold::initWithPlugInsForClient(messages, {daemon.plugIn("a")}, client.object());
  client.die();
  EXPECT_EQ(daemon.server->addHold(hold), VKDServer::HoldAdded::ClientIsGone);
  EXPECT_EQ(held(), "");
  EXPECT_EQ(announcements(), 0U);
}

TEST_F(Holds, AreBoundedPerClient) {
  UUID last;
  for (std::uint32_t i = 0; i < VKDServer::kMaxHoldsPerClient; ++i) last = lock(client, {});
  EXPECT_EQ(client.tell(lockRequest({pathOf("a")}, kPlugIns)), failure(4, "too many holds"));
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "client 77 is refused a hold: it has 256"));
  EXPECT_EQ(held(), "");
  lock(other, {});
  release(client, {last});
  lock(client, {});
}

}  // namespace
}  // namespace vkd::testing
