#include <gtest/gtest.h>

#include <vector>

#include "Vornik/VKDaemonClient.h"
#include "Vornik/VKError.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/FakeMessages.h"
#include "tests/Support/InlineQueue.h"
#include "tests/Support/Values.h"

namespace Vornik {
namespace {

using support::listOf, support::messageOf, support::requestOf;

class VKDaemonClientTest : public testing::Test {
 protected:
  std::shared_ptr<VKDaemonClient> connect(std::string_view name = {}) {
    Services services;
    services.queues = queues;
    services.messages = messages;
    return VKDaemonClient::initWithServiceName(services, name);
  }

  std::shared_ptr<support::InlineQueues> queues = std::make_shared<support::InlineQueues>();
  std::shared_ptr<support::FakeMessages> messages = std::make_shared<support::FakeMessages>();
  std::shared_ptr<support::FakeService> connection = messages->connection;
  support::CapturedLog log;
  std::shared_ptr<VKDaemonClient> client = connect();
};

// A client made of services that nobody else keeps once lost its connection at the first request.
TEST_F(VKDaemonClientTest, ConnectsToTheUsualOrANamedServiceAndKeepsIt) {
  EXPECT_EQ(messages->serviceName, "com.vantrel.vornik.vkd");
  EXPECT_TRUE(connection->resumed);
  EXPECT_EQ(messages->queue->label(), "vkd_client");
  client = connect("com.example.other");
  EXPECT_EQ(messages->serviceName, "com.example.other");
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
  const Message pathList = listOf({"/b", "/a"}), uuidList = listOf({b, a}), change = messageOf({{"election", 1}});

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
      requestOf("add", {{"paths", pathList}}),
      requestOf("remove", {{"paths", pathList}}),
      requestOf("bulk", {{"flags", 7U}}),
      requestOf("ready", {{"flags", 1U}, {"uuids", uuidList}}),
      requestOf("access", {{"flags", 2U}, {"uuids", uuidList}}),
      requestOf("match", {{"rules", change}, {"flags", 0x200U}}),
      requestOf("match", {{"flags", 0U}}),
      requestOf("annotate", {{"uuids", uuidList}, {"annotations", change}}),
      requestOf("bulk-annotate", {{"annotations", change}}),
      requestOf("lock", {{"paths", pathList}, {"flags", 2U}}),
      requestOf("lock", {{"uuids", listOf({a})}}),
  };
  EXPECT_EQ(connection->sent, expected);
}

TEST_F(VKDaemonClientTest, TheReplyReachesItsBlockOnTheReplyQueue) {
  std::vector<Message> received;
  client->bulkPluginsReply(0, [&](const Message& message) {
    EXPECT_TRUE(client->replyQueue()->isCurrent());
    received.push_back(message);
  });
  const Message answer = messageOf({{"errorcode", 14U}, {"error", "plug-ins are busy"}});
  connection->answer(answer);
  EXPECT_TRUE(received.empty());
  queues->named("vkd_client").drain();
  ASSERT_EQ(received, std::vector{answer});
  EXPECT_TRUE(log.has(LogLevel::Debug, "traffic", "request: " + connection->sent[0].description())) << log;
  EXPECT_TRUE(log.has(LogLevel::Debug, "traffic", "reply: " + answer.description())) << log;
}

TEST_F(VKDaemonClientTest, ConnectionEventsAreLoggedAndPassedOn) {
  const Message event = Message::error(ConnectionError::Interrupted, "the daemon went away");
  std::vector<Message> received;
  client->setEventBlock([&](const Message& message) { received.push_back(message); });
  connection->deliver(event);
  client->setEventBlock({});
  connection->deliver(event);
  EXPECT_EQ(received, std::vector{event});
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "Communications error: the daemon went away")) << log;
}

TEST_F(VKDaemonClientTest, AReplyTellsItsFailure) {
  for (const Message& fine : {messageOf({}), messageOf({{"errorcode", 0U}})}) EXPECT_FALSE(client->errorInReply(fine));
  const struct {
    Message reply;
    std::int64_t code;
    const char* description;
  } cases[] = {
      {messageOf({{"errorcode", 14U}, {"error", "plug-ins are busy"}}), 14, "plug-ins are busy"},
      {messageOf({{"errorcode", 9U}}), 9, "unknown error returned by Vornik subsystem"},
      {Message::error(ConnectionError::Invalid, "no daemon"), 4, "no daemon"},
  };
  for (const auto& [reply, code, description] : cases) {
    auto error = client->errorInReply(reply);
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->isInDomain(VKErrorDomain));
    EXPECT_EQ(error->code, code);
    EXPECT_EQ(error->description, description);
  }
  EXPECT_THROW(client->errorInReply(messageOf({{"error", "whatever"}})), VKInternalInconsistency);
}

TEST_F(VKDaemonClientTest, PropertyListsTravelInVersionThreeOnly) {
  const PlistValue forms = PlistValue::array({PlistBuilder().set("a", 1.5).take()});
  const Message carried = VKDaemonClient::convertToZYPVersion(forms, 3);
  EXPECT_EQ(carried.kind(), Message::Kind::Plist);
  EXPECT_FALSE(VKDaemonClient::convertToZYPVersion(forms, 2));
  EXPECT_FALSE(VKDaemonClient::convertToZYPVersion({}, 3));
  EXPECT_EQ(client->plugInsInReply(messageOf({{"matches", carried}})), forms);
  EXPECT_FALSE(client->plugInsInReply(messageOf({})));
  EXPECT_FALSE(client->convertFromZYP(Message::fromPlist("text")));
  client->setProtocolVersion(2);
  EXPECT_FALSE(client->convertFromZYP(carried));
  client->bulkPluginsReply(0, {});
  EXPECT_EQ(connection->sent[0].getUnsigned("version"), 2U);
  EXPECT_EQ(VKErrorName(18), "VKErrorInvalidValue");
  EXPECT_EQ(VKErrorName(3), std::nullopt);
}

}  // namespace
}  // namespace Vornik
