// The frame of every request: what is sent, and the one reply that comes back.
#include <gtest/gtest.h>

#include <new>

#include "tests/Support/FakeDaemon.h"

namespace vkd::testing {
namespace {

// With one plug-in, "a".
struct Transaction : ::testing::Test {
  FakeDaemon daemon;
  std::shared_ptr<FakeRecord> a = daemon.install("a");
  FakeClient client = daemon.connect();
  CapturedLog log;
};

Message envelope(Message version, Message type) {
  return messageOf({{kVKMessageVersion, std::move(version)}, {kVKMessageRequest, std::move(type)}});
}

TEST_F(Transaction, ChecksVersionBeforeTypeAndComparesTypesExactly) {
  const std::pair<Message, Message> conversation[] = {
      {Message::dictionary(), failure(7, "unsupported protocol version 0 (current 3)")},
      {envelope(std::int64_t{3}, "bulk"), failure(7, "unsupported protocol version 0 (current 3)")},
      {envelope("3", "bulk"), failure(7, "unsupported protocol version 0 (current 3)")},
      {envelope(std::uint64_t{1}, {}), failure(7, "unsupported protocol version 1 (current 3)")},
      {envelope(std::uint64_t{4}, "bulk"), failure(7, "unsupported protocol version 4 (current 3)")},
      {envelope(std::uint64_t{2}, "bulk"), success()},
      {envelope(std::uint64_t{3}, "bulk"), success()},
      {envelope(std::uint64_t{3}, {}), failure(4, "invalid request format (missing type)")},
      {envelope(std::uint64_t{3}, 5), failure(4, "invalid request format (missing type)")},
      {envelope(std::uint64_t{3}, "Match"), failure(4, "unrecognized request")},
      {envelope(std::uint64_t{3}, ""), failure(4, "unrecognized request")},
  };
  for (const auto& [request, reply] : conversation) EXPECT_EQ(client.tell(request), reply) << request.description();
  EXPECT_EQ(log.count("client 77 requested bulk"), 2) << "an accepted request is logged";
}

TEST_F(Transaction, RefusesWhatIsMalformedOrUnknownAndDoesNothingOfIt) {
  FakeClient manager = daemon.connectManager();
  const Message format = failure(4, "invalid request format");
  const Message relative = failure(9, "absolute path required: tmp/x"), path = listOf({pathOf("a")});
  for (std::string_view type : {"add", "remove", "lock"}) {
    SCOPED_TRACE(type);
    EXPECT_EQ(manager.ask(type), format);
    EXPECT_EQ(manager.ask(type, {{"paths", "/x"}}), format);
    EXPECT_EQ(manager.ask(type, {{"paths", listOf({5, pathOf("a")})}}), format);
    EXPECT_EQ(manager.ask(type, {{"paths", listOf({"tmp/x", pathOf("a")})}}), relative);
    EXPECT_EQ(manager.ask(type, {{"paths", listOf({""})}}), failure(9, "absolute path required: "));
  }
  const Message change = election(1), text = listOf({"not a uuid"}), unknown = uuids({"nobody", "a"});
  for (std::string_view type : {"ready", "access", "annotate"}) {
    SCOPED_TRACE(type);
    const auto ask = [&](const Message& list) { return client.ask(type, {{"annotations", change}, {"uuids", list}}); };
    EXPECT_EQ(ask({}), failure(4, "invalid request format (uuid)"));
    EXPECT_EQ(ask("x"), failure(4, "invalid request format (uuid)"));
    EXPECT_EQ(ask(text), failure(4, "invalid request (bad uuid array)"));
    EXPECT_EQ(ask(unknown), failure(4, "no such plugin (uuid not found)"));
  }
  const Message badDictionary = failure(4, "invalid request format (bad annotations dictionary)");
  const Message badFlags = failure(4, "invalid request format (unsupported hold flags)");
  const Message mixed = messageOf({{"election", 1}, {"extension", "x"}});
  const Message nobodys = messageOf({{uuidOf("nobody").text(), Message::dictionary()}});
  const std::pair<Message, Message> conversation[] = {
      {requestOf("annotate", {{"uuids", uuids({"a"})}}), badDictionary},
      {annotateRequest({"a"}, "x"), badDictionary},
      {annotateRequest({"a"}, messageOf({{"election", "1"}})),
       failure(4, "invalid request format (annotation election)")},
      {annotateRequest({"a"}, mixed), failure(4, "invalid request format (annotation extension)")},
      {requestOf("annotate", {{"annotations", messageOf({{"stranger", 1}})}}), success()},
      {requestOf("bulk-annotate"), badDictionary},
      {requestOf("bulk-annotate", {{"annotations", Message::array()}}), badDictionary},
      {requestOf("bulk-annotate", {{"annotations", messageOf({{"no uuid", 5}})}}),
       failure(18, "annotations values must be dictionaries")},
      {requestOf("bulk-annotate", {{"annotations", messageOf({{"no uuid", Message::dictionary()}})}}),
       failure(18, "invalid plug-in UUID value")},
      {requestOf("bulk-annotate", {{"annotations", nobodys}}), failure(2, "no plug-in with the requested uuid")},
      {requestOf("match", {{"rules", "x"}}), failure(4, "invalid request format (bad rules dictionary)")},
      {requestOf("add", {{"paths", listOf({"/gone", pathOf("a")})}}), failure(9, "invalid plugin path: /gone")},
      {lockRequest({pathOf("a"), "/gone"}, 2), failure(9, "invalid path: /gone")},
      {lockRequest({pathOf("a"), kHostApp.path}, 2), failure(9, "no plug-in at path:/Applications/Host.app")},
      {lockRequest({pathOf("a")}, 3), badFlags},
      {requestOf("lock", {{"paths", path}}), badFlags},
      {requestOf("lock", {{"uuids", "no list"}}), format},
      {requestOf("remove", {{"paths", path}}), failure(11, "caller lacks entitlement for this operation")},
      {requestOf("remove", {{"paths", listOf({"tmp/x", pathOf("a")})}}), relative},
      {requestOf("remove", {{"paths", Message::array()}}), success()},
  };
  for (const auto& [request, reply] : conversation) EXPECT_EQ(client.tell(request), reply) << request.description();
  const FakeRegistry& registry = *daemon.device.registry;
  EXPECT_EQ(registry.registered.size() + registry.unregistered.size(), 0U);
  EXPECT_TRUE(daemon.device.serviceManager->added.empty());
  EXPECT_FALSE(daemon.annotation("a"));
  EXPECT_TRUE(daemon.server->holds().empty());
  EXPECT_TRUE(daemon.device.notifier->posts.empty());
  EXPECT_EQ(log.count("refused request from pid=77 to remove plug-in at " + pathOf("a")), 1);
}

TEST_F(Transaction, DropsWhatADeadClientHadQueued) {
  client.deliver(lockRequest({}, 1));
  client.die();
  client.deliver(requestOf("bulk"));
  daemon.work();
  EXPECT_TRUE(client.connection->sent.empty());
  EXPECT_TRUE(daemon.server->holds().empty());
}

TEST_F(Transaction, AnswersOnceForAHandlerThatThrows) {
  *daemon.device.hook = [](std::string_view service) {
    if (service == "sandbox") throw std::bad_alloc();
  };
  EXPECT_EQ(client.ask("access", {{"uuids", uuids({"a"})}}), failure(4, "request could not be completed"));
  EXPECT_TRUE(log.has(LogLevel::Fault, "ops", "request of client 77 was abandoned: std::bad_alloc"));
  EXPECT_FALSE(client.connection->cancelled);
  EXPECT_EQ(client.ask("bulk"), success()) << "the next request is served";
}

}  // namespace
}  // namespace vkd::testing
