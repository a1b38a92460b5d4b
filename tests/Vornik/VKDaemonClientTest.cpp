#include <gtest/gtest.h>

#include <vector>

#include "Vornik/VKDaemonClient.h"
#include "Vornik/VKError.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/FakeMessages.h"
#include "tests/Support/InlineQueue.h"

namespace Vornik {
namespace {

class VKDaemonClientTest : public testing::Test {
 protected:
  std::shared_ptr<VKDaemonClient> connect(std::string_view name = {}) {
    Services services;
    services.queues = queues;
    services.messages = messages;
    return VKDaemonClient::initWithServiceName(services, name);
  }
  static Message envelope(const char* type, std::vector<std::pair<const char*, Message>> body) {
    Message message = Message::dictionary();
    message.set("request", type);
    message.set("version", 3U);
    for (auto& [key, value] : body) message.set(key, std::move(value));
    return message;
  }
  static Message reply(std::vector<std::pair<const char*, Message>> body) {
    Message message = Message::dictionary();
    for (auto& [key, value] : body) message.set(key, std::move(value));
    return message;
  }

  std::shared_ptr<support::InlineQueues> queues = std::make_shared<support::InlineQueues>();
  std::shared_ptr<support::FakeMessages> messages = std::make_shared<support::FakeMessages>();
  support::CapturedLog log;
  std::shared_ptr<VKDaemonClient> client = connect();
};

TEST_F(VKDaemonClientTest, ConnectsToTheUsualOrANamedService) {
  EXPECT_EQ(messages->serviceName, "com.vantrel.vornik.vkd");
  EXPECT_TRUE(messages->connection->resumed);
  EXPECT_EQ(messages->queue, queues->named("vkd_client"));
  connect("com.example.other");
  EXPECT_EQ(messages->serviceName, "com.example.other");
}

// A client made of services that nobody else keeps once lost its connection at the first request.
TEST_F(VKDaemonClientTest, KeepsTheServiceItsConnectionLivesFrom) {
  std::weak_ptr<support::FakeMessages> service = messages;
  messages = nullptr;
  EXPECT_FALSE(service.expired());
  client = nullptr;
  EXPECT_TRUE(service.expired());
}

TEST_F(VKDaemonClientTest, EachOperationSendsItsRequest) {
  const UUID a{{1}}, b{{2}};
  const std::vector<std::string> paths{"/b", "/a"};
  const std::vector<UUID> uuids{b, a};
  const PlistValue settings = PlistBuilder().set("election", 1).take();
  const Message pathArray(Message::Array{"/b", "/a"}), uuidArray(Message::Array{b, a});
  const Message settingsMessage = reply({{"election", 1}});

  client->addPlugInsReply(paths, {});
  client->removePlugInsReply(paths, {});
  client->bulkPluginsReply(7, {});
  client->readyPlugInsFlagsReply(uuids, 1, {});
  client->accessPlugInsFlagsReply(uuids, 2, {});
  client->matchPlugInsFlagsReply(settings, VKDiscoverAll, {});
  client->matchPlugInsFlagsReply({}, 0, {});
  client->setPluginAnnotationsAnnotationsReply(uuids, settings, {});
  client->bulkSetPluginAnnotationsReply(settings, {});
  client->holdPluginsFlagsReply(paths, VKHoldPlugIns, {});
  client->releaseHoldReply(a, {});

  const std::vector<Message> expected = {
      envelope("add", {{"paths", pathArray}}),
      envelope("remove", {{"paths", pathArray}}),
      envelope("bulk", {{"flags", 7U}}),
      envelope("ready", {{"flags", 1U}, {"uuids", uuidArray}}),
      envelope("access", {{"flags", 2U}, {"uuids", uuidArray}}),
      envelope("match", {{"rules", settingsMessage}, {"flags", 0x200U}}),
      envelope("match", {{"flags", 0U}}),
      envelope("annotate", {{"uuids", uuidArray}, {"annotations", settingsMessage}}),
      envelope("bulk-annotate", {{"annotations", settingsMessage}}),
      envelope("lock", {{"paths", pathArray}, {"flags", 2U}}),
      envelope("lock", {{"uuids", Message(Message::Array{a})}}),
  };
  ASSERT_EQ(messages->connection->sent.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(messages->connection->sent[i], expected[i]) << messages->connection->sent[i].description();
  }
}

TEST_F(VKDaemonClientTest, TheReplyReachesItsBlockOnTheReplyQueue) {
  std::vector<Message> received;
  client->bulkPluginsReply(0, [&](const Message& message) {
    EXPECT_TRUE(client->replyQueue()->isCurrent());
    received.push_back(message);
  });
  const Message answer = reply({{"errorcode", 14U}, {"error", "plug-ins are busy"}, {"conflicts", Message::array()}});
  messages->connection->answer(answer);
  EXPECT_TRUE(received.empty());
  queues->drainAll();
  ASSERT_EQ(received, std::vector{answer});
  EXPECT_TRUE(log.has(LogLevel::Debug, "traffic", "request: " + messages->connection->sent[0].description())) << log;
  EXPECT_TRUE(log.has(LogLevel::Debug, "traffic", "reply: " + answer.description())) << log;
}

TEST_F(VKDaemonClientTest, ConnectionEventsAreLoggedAndPassedOn) {
  const Message event = Message::error(ConnectionError::Interrupted, "the daemon went away");
  std::vector<Message> received;
  client->setEventBlock([&](const Message& message) { received.push_back(message); });
  messages->connection->deliver(event);
  client->setEventBlock({});
  messages->connection->deliver(event);
  EXPECT_EQ(received, std::vector{event});
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "Communications error: the daemon went away")) << log;
}

TEST_F(VKDaemonClientTest, AReplyTellsItsFailure) {
  EXPECT_FALSE(client->errorInReply(reply({})));
  EXPECT_FALSE(client->errorInReply(reply({{"errorcode", 0U}})));
  auto expectError = [&](const Message& message, std::int64_t code, const char* description) {
    auto error = client->errorInReply(message);
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->isInDomain(VKErrorDomain));
    EXPECT_EQ(error->code, code);
    EXPECT_EQ(error->description, description);
  };
  expectError(reply({{"errorcode", 14U}, {"error", "plug-ins are busy"}}), 14, "plug-ins are busy");
  expectError(reply({{"errorcode", 9U}}), 9, "unknown error returned by Vornik subsystem");
  expectError(Message::error(ConnectionError::Invalid, "no daemon"), 4, "no daemon");
  try {
    client->errorInReply(reply({{"error", "whatever"}}));
    FAIL();
  } catch (const VKInternalInconsistency& failure) {
    EXPECT_STREQ(failure.what(), "vkd reported error without a code: whatever");
  }
}

TEST_F(VKDaemonClientTest, PropertyListsTravelInVersionThreeOnly) {
  const PlistValue forms = PlistValue::array({PlistBuilder().set("a", 1.5).take()});
  const Message carried = VKDaemonClient::convertToZYPVersion(forms, 3);
  EXPECT_EQ(carried.kind(), Message::Kind::Plist);
  EXPECT_FALSE(VKDaemonClient::convertToZYPVersion(forms, 2));
  EXPECT_FALSE(VKDaemonClient::convertToZYPVersion({}, 3));
  EXPECT_EQ(client->plugInsInReply(reply({{"matches", carried}})), forms);
  EXPECT_FALSE(client->plugInsInReply(reply({})));
  EXPECT_FALSE(client->convertFromZYP(Message::fromPlist("text")));
  client->setProtocolVersion(2);
  EXPECT_FALSE(client->convertFromZYP(carried));
  client->bulkPluginsReply(0, {});
  EXPECT_EQ(messages->connection->sent[0].getUnsigned("version"), 2U);
}

TEST(VKErrorName, KnowsEveryCode) {
  EXPECT_EQ(VKErrorName(VKErrorBusy), "VKErrorBusy");
  EXPECT_EQ(VKErrorName(18), "VKErrorInvalidValue");
  EXPECT_EQ(VKErrorName(3), std::nullopt);
}

}  // namespace
}  // namespace Vornik
