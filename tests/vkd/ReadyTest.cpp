// "ready", "access".
#include <gtest/gtest.h>

#include "tests/vkd/FakeDaemon.h"

namespace vkd::testing {
namespace {

struct Ready : ::testing::Test {
  FakeDaemon daemon;
  std::shared_ptr<FakeRecord> a = daemon.install("a"), b = daemon.install("b");
  FakeServiceManager& manager = *daemon.device.serviceManager;
  LogCapture log;

  std::vector<std::string> enabled() const {
    std::vector<std::string> list;
    for (const auto& added : manager.added) list.push_back(added.executable);
    return list;
  }
  static std::string executable(const std::shared_ptr<FakeRecord>& record) { return record->url->path + "/run"; }
  static std::string denied(const std::shared_ptr<FakeRecord>& record, std::string_view why) {
    return "denied access to 77 for plugin " + record->identifier + "(" + record->uuid->text() +
           "): " + std::string(why);
  }
};

TEST_F(Ready, EnablesEachNamedPlugInOnceForTheHostThatAsked) {
  FakeClient client = daemon.connect();
  EXPECT_EQ(client.ask("ready", {{"uuids", uuids({})}}), success());
  EXPECT_EQ(client.ask("ready", {{"uuids", uuids({a, b, a})}}), success());
  EXPECT_EQ(enabled(), (std::vector<std::string>{executable(a), executable(b)}));
  EXPECT_EQ(manager.added.front().pid, 77);
}

TEST_F(Ready, NeitherAsksNorEnablesForDataPlugIns) {
  a->changeSection(kVKExtensionProtocol, kVKDataProtocol);
  a->changeSection(kVKExtensionHostEntitlement, "nobody has it");
  EXPECT_EQ(daemon.connect().ask("ready", {{"uuids", uuids({a})}}), success());
  EXPECT_TRUE(enabled().empty());
}

TEST_F(Ready, EnablesNoneWhenOneIsRefused) {
  b->changeSection(kVKExtensionHostEntitlement, "special");
  const std::string why = "the host does not have the \"special\" entitlement";
  EXPECT_EQ(daemon.connect().ask("ready", {{"uuids", uuids({a, b})}}),
            failure(11, "access to plugin b denied: " + why));
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", denied(b, why))) << log.all();
  EXPECT_TRUE(enabled().empty());
  FakeClient entitled = daemon.connect(5, PlistBuilder().set("special", "yes").take());
  EXPECT_EQ(entitled.ask("ready", {{"uuids", uuids({a, b})}}), success());
}

TEST_F(Ready, RefusesAHeldPlugInEvenOfData) {
  a->changeSection(kVKExtensionProtocol, kVKDataProtocol);
  FakeClient client = daemon.connect();
  auto plugIn = daemon.server->findPlugIn(*a->uuid);
  daemon.server->addHold(VKDPlugInHold::initWithPlugInsForClient(daemon.messages, {plugIn}, client.object()));
  EXPECT_EQ(client.ask("ready", {{"uuids", uuids({b, a})}}),
            failure(11, "access to plugin a denied: the plug-in is on hold"));
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", denied(a, "the plug-in is on hold"))) << log.all();
  EXPECT_TRUE(enabled().empty());
}

TEST_F(Ready, PassesOnTheFirstFailureToEnable) {
  manager.answer = 22;
  EXPECT_EQ(daemon.connect().ask("ready", {{"uuids", uuids({a, b})}}),
            failure(4, "unable to enable plug-in a(" + a->uuid->text() + ")"));
  EXPECT_EQ(manager.added.size(), 1U);
}

TEST_F(Ready, GivesAReadTokenForEachNameInOrder) {
  FakeClient client = daemon.connect();
  Message tokens = Message::array();
  for (const auto& record : {b, a, b}) tokens.append("token:" + record->url->path);
  EXPECT_EQ(client.ask("access", {{"uuids", uuids({b, a, b})}}), messageOf({{"extensions", tokens}}));
  EXPECT_EQ(client.ask("access", {{"uuids", uuids({})}}), messageOf({{"extensions", Message::array()}}));
  daemon.device.sandbox->refused.insert(a->url->path);
  EXPECT_EQ(client.ask("access", {{"uuids", uuids({b, a})}}),
            failure(4, "cannot create extension to " + a->url->path + ": 2"))
      << "no partial answer";
}

}  // namespace
}  // namespace vkd::testing
