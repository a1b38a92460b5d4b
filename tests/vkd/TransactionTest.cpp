// The frame of every request, in conversations: what is sent, and the one reply that comes back.
#include <gtest/gtest.h>

#include <new>

#include "tests/vkd/FakeDaemon.h"

namespace vkd::testing {
namespace {

struct Exchange {
  Message sent;
  Message reply;
};

void converse(FakeClient client, const std::vector<Exchange>& script) {
  for (const Exchange& exchange : script) {
    EXPECT_EQ(client.tell(exchange.sent), exchange.reply) << "to " << exchange.sent.description();
  }
}

Message envelope(Message version, Message type) {
  return messageOf({{kVKMessageVersion, std::move(version)}, {kVKMessageRequest, std::move(type)}});
}

TEST(Transaction, ChecksVersionBeforeTypeAndComparesTypesExactly) {
  FakeDaemon daemon;
  const Message none = failure(7, "unsupported protocol version 0 (current 3)");
  converse(
      daemon.connect(),
      {
          {Message::dictionary(), none},
          {envelope(std::int64_t{3}, "bulk"), none},
          {envelope("3", "bulk"), none},
          {messageOf({{kVKMessageVersion, std::uint64_t{1}}}),
           failure(7, "unsupported protocol version 1 (current 3)")},
          {envelope(std::uint64_t{4}, "bulk"), failure(7, "unsupported protocol version 4 (current 3)")},
          {envelope(std::uint64_t{2}, "bulk"), success()},
          {envelope(std::uint64_t{3}, "bulk"), success()},
          {messageOf({{kVKMessageVersion, std::uint64_t{3}}}), failure(4, "invalid request format (missing type)")},
          {envelope(std::uint64_t{3}, 5), failure(4, "invalid request format (missing type)")},
          {envelope(std::uint64_t{3}, "Match"), failure(4, "unrecognized request")},
          {envelope(std::uint64_t{3}, ""), failure(4, "unrecognized request")},
      });
}

TEST(Transaction, AnswersMalformedListsTheSameForEveryRequestThatHasThem) {
  FakeDaemon daemon;
  FakeClient client = daemon.connectManager();
  Message number = Message::array();
  number.append(5);
  Message text = Message::array();
  text.append("not a uuid");
  Message unknown = Message::array();
  unknown.append(UUID::random());
  for (std::string_view type : {"add", "remove", "lock"}) {
    converse(client, {
                         {requestOf(type), failure(4, "invalid request format")},
                         {requestOf(type, {{"paths", "/x"}}), failure(4, "invalid request format")},
                         {requestOf(type, {{"paths", number}}), failure(4, "invalid request format")},
                         {requestOf(type, {{"paths", paths({"tmp/x"})}}), failure(9, "absolute path required: tmp/x")},
                         {requestOf(type, {{"paths", paths({""})}}), failure(9, "absolute path required: ")},
                     });
  }
  const Message change = messageOf({{"election", 1}});
  for (std::string_view type : {"ready", "access", "annotate"}) {
    converse(client, {
                         {requestOf(type, {{"annotations", change}}), failure(4, "invalid request format (uuid)")},
                         {requestOf(type, {{"annotations", change}, {"uuids", "x"}}),
                          failure(4, "invalid request format (uuid)")},
                         {requestOf(type, {{"annotations", change}, {"uuids", text}}),
                          failure(4, "invalid request (bad uuid array)")},
                         {requestOf(type, {{"annotations", change}, {"uuids", unknown}}),
                          failure(4, "no such plugin (uuid not found)")},
                     });
  }
}

TEST(Transaction, LogsAnAcceptedRequestOnly) {
  FakeDaemon daemon;
  FakeClient client = daemon.connect();
  LogCapture log;
  client.tell(requestOf("bulk"));
  client.tell(messageOf({{kVKMessageVersion, std::uint64_t{1}}, {kVKMessageRequest, "bulk"}}));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "client 77 requested bulk"));
  EXPECT_EQ(log.count("requested"), 1);
}

TEST(Transaction, DropsWhatADeadClientHadQueued) {
  FakeDaemon daemon;
  FakeClient client = daemon.connect();
  client.deliver(requestOf("lock", {{"paths", Message::array()}, {"flags", std::uint64_t{1}}}));
  client.die();
  client.deliver(requestOf("bulk"));
  daemon.work();
  EXPECT_TRUE(client.connection->sent.empty());
  EXPECT_TRUE(daemon.server->holds().empty());
}

TEST(Transaction, AnswersOnceForAHandlerThatThrows) {
  struct Exhausted : FakeSandbox {
    std::optional<std::string> issueReadExtension(std::string_view, int*) override { throw std::bad_alloc(); }
  };
  FakeDaemon daemon([](FakeServices& device) { device.sandbox = std::make_shared<Exhausted>(); });
  auto record = daemon.install("a");
  FakeClient client = daemon.connect();
  LogCapture log;
  EXPECT_EQ(client.ask("access", {{"uuids", uuids({record})}}), failure(4, "request could not be completed"));
  EXPECT_TRUE(log.has(LogLevel::Fault, "ops", "request of client 77 was abandoned: std::bad_alloc"));
  EXPECT_FALSE(client.connection->cancelled);
  EXPECT_EQ(client.ask("bulk"), success()) << "the next request is served";
}

TEST(Transaction, CutsOffAClientToWhomNothingCanBeSent) {
  LogCapture log;
  struct Broken : FakeConnection {
    using FakeConnection::FakeConnection;
    int attempts = 0;
    void send(const Message&) override {
      ++attempts;
      throw std::bad_alloc();
    }
  };
  FakeDaemon daemon;
  auto broken = std::make_shared<Broken>(5);
  FakeClient client = daemon.connect(broken);
  client.deliver(requestOf("bulk"));
  daemon.work();
  EXPECT_EQ(broken->attempts, 1) << "no second reply";
  EXPECT_TRUE(broken->cancelled);
}

}  // namespace
}  // namespace vkd::testing
