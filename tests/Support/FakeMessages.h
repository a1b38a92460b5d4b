// The IPC service for tests: connections that record what is sent, and answer and deliver what the test says. For one
// thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/MessageConnection.h"

namespace support {

class FakeAuditToken : public platform::AuditToken {
 public:
  explicit FakeAuditToken(std::int32_t pid) : pid_(pid) {}
  std::int32_t pid() const override { return pid_; }

 private:
  std::int32_t pid_;
};

// What both ends have.
template <class End>
class FakeConnection : public End {
 public:
  using Message = platform::Message;

  explicit FakeConnection(std::int32_t pid) : pid_(pid) {}

  std::int32_t peerPid() const override { return pid_; }
  void setEventHandler(typename End::EventHandler value) override { handler = std::move(value); }
  void resume() override { resumed = true; }
  void send(const Message& message) override { sent.push_back(message); }
  void cancel() override { cancelled = true; }
  std::string description() const override { return "<FakeConnection pid " + std::to_string(pid_) + ">"; }

  // Hands an event to the handler, now.
  void deliver(Message event) { handler(std::move(event)); }

  std::vector<Message> sent;
  typename End::EventHandler handler;
  bool resumed = false;
  bool cancelled = false;

 private:
  std::int32_t pid_;
};

class FakePeer : public FakeConnection<platform::PeerConnection> {
 public:
  using FakeConnection::FakeConnection;

  std::shared_ptr<platform::AuditToken> peerAuditToken() const override {
    return std::make_shared<FakeAuditToken>(peerPid());
  }
  void setContext(std::shared_ptr<void> value) override { context = std::move(value); }

  std::shared_ptr<void> context;
};

class FakeService : public FakeConnection<platform::ServiceConnection> {
 public:
  FakeService() : FakeConnection(0) {}

  void sendWithReply(const Message& message, std::shared_ptr<platform::WorkQueue> queue,
                     ReplyHandler replyHandler) override {
    sent.push_back(message);
    waiting.push_back({std::move(queue), std::move(replyHandler)});
  }
  // Puts the answer to the oldest waiting request on its queue.
  void answer(Message reply) {
    Waiting request = std::move(waiting.front());
    waiting.erase(waiting.begin());
    request.queue->async([handle = std::move(request.handler), reply = std::move(reply)] { handle(reply); });
  }

  struct Waiting {
    std::shared_ptr<platform::WorkQueue> queue;
    ReplyHandler handler;
  };
  std::vector<Waiting> waiting;
};

class FakeListener : public platform::MessageListener {
 public:
  void setConnectionHandler(ConnectionHandler value) override { handler = std::move(value); }
  std::optional<platform::DomainError> resume() override {
    resumed = succeeds;
    return succeeds ? std::nullopt : std::optional(refusedByTheTest());
  }
  static platform::DomainError refusedByTheTest() { return {platform::MessageErrorDomain, 0, "refused by the test"}; }

  ConnectionHandler handler;
  bool resumed = false;
  bool succeeds = true;
};

class FakeMessages : public platform::MessageService {
 public:
  // Null when `listener` was set to null.
  std::shared_ptr<platform::MessageListener> listen(std::string_view name,
                                                    std::shared_ptr<platform::WorkQueue> deliveryQueue,
                                                    platform::DomainError* error) override {
    serviceName = name;
    queue = std::move(deliveryQueue);
    if (listener == nullptr && error != nullptr) *error = FakeListener::refusedByTheTest();
    return listener;
  }
  std::shared_ptr<platform::ServiceConnection> connect(std::string_view name,
                                                       std::shared_ptr<platform::WorkQueue> deliveryQueue) override {
    serviceName = name;
    queue = std::move(deliveryQueue);
    return connection;
  }
  void beginKeepAlive() override { ++keepAlives; }
  void endKeepAlive() override { --keepAlives; }

  std::shared_ptr<FakeListener> listener = std::make_shared<FakeListener>();
  std::shared_ptr<FakeService> connection = std::make_shared<FakeService>();
  std::string serviceName;
  std::shared_ptr<platform::WorkQueue> queue;
  int keepAlives = 0;
};

}  // namespace support
