// "ready", "access".
#include <gtest/gtest.h>

#include "tests/Support/FakeDaemon.h"

namespace vkd::testing {
namespace {

struct Ready : ::testing::Test {
  FakeDaemon daemon;
  std::shared_ptr<FakeRecord> a = daemon.install("a"), b = daemon.install("b");
  FakeClient client = daemon.connect();
  FakeServiceManager& manager = *daemon.device.serviceManager;
  CapturedLog log;

  static Message ready(std::initializer_list<std::string_view> names) {
    return requestOf("ready", {{"uuids", uuids(names)}});
  }
  bool toldDenied(const std::string& name, const std::string& why) const {
    return log.has(LogLevel::Default, "ops",
                   "denied access to 77 for plugin " + name + "(" + uuidOf(name).text() + "): " + why);
  }
};

TEST_F(Ready, EnablesEachNamedPlugInOnceForTheHostThatAsked) {
  EXPECT_EQ(client.tell(ready({})), success());
  EXPECT_EQ(client.tell(ready({"a", "b", "a"})), success());
  ASSERT_EQ(manager.added.size(), 2U);
  EXPECT_EQ(manager.added.front().executable, pathOf("a") + "/run");
  EXPECT_EQ(manager.added.back().executable, pathOf("b") + "/run");
  EXPECT_EQ(manager.added.front().pid, 77);
  manager.answer = 22;
  EXPECT_EQ(client.tell(ready({"a", "b"})), failure(4, "unable to enable plug-in a(" + uuidOf("a").text() + ")"));
  EXPECT_EQ(manager.added.size(), 3U) << "the first failure is the last try";
}

TEST_F(Ready, EnablesNoneWhenOneIsRefused) {
  b->changeSection(kVKExtensionHostEntitlement, "special");
  const std::string why = "the host does not have the \"special\" entitlement";
  EXPECT_EQ(client.tell(ready({"a", "b"})), failure(11, "access to plugin b denied: " + why));
  EXPECT_TRUE(toldDenied("b", why)) << log;
  EXPECT_TRUE(manager.added.empty());
  EXPECT_EQ(daemon.connect(5, dictionary({{"special", "yes"}})).tell(ready({"a", "b"})), success());
}

TEST_F(Ready, NeitherAsksNorEnablesForDataPlugInsUnlessTheyAreHeld) {
  a->changeSection(kVKExtensionProtocol, kVKDataProtocol);
  a->changeSection(kVKExtensionHostEntitlement, "nobody has it");
  EXPECT_EQ(client.tell(ready({"a"})), success());
  client.tell(lockRequest({pathOf("a")}, 2));
  EXPECT_EQ(client.tell(ready({"b", "a"})), failure(11, "access to plugin a denied: the plug-in is on hold"));
  EXPECT_TRUE(toldDenied("a", "the plug-in is on hold")) << log;
  EXPECT_TRUE(manager.added.empty());
}

TEST_F(Ready, GivesAReadTokenForEachNameInOrder) {
  const std::string tokenA = "token:" + pathOf("a"), tokenB = "token:" + pathOf("b");
  EXPECT_EQ(client.ask("access", {{"uuids", uuids({"b", "a", "b"})}}),
            messageOf({{"extensions", listOf({tokenB, tokenA, tokenB})}}));
  EXPECT_EQ(client.ask("access", {{"uuids", uuids({})}}), messageOf({{"extensions", Message::array()}}));
  daemon.device.sandbox->refused.insert(pathOf("a"));
  EXPECT_EQ(client.ask("access", {{"uuids", uuids({"b", "a"})}}),
            failure(4, "cannot create extension to " + pathOf("a") + ": 2"))
      << "no partial answer";
}

}  // namespace
}  // namespace vkd::testing
