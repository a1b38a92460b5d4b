// A whole daemon on services in memory, and clients that talk to it: connections hand in messages and keep the replies.
//
//   FakeDaemon daemon;
//   auto plugIn = daemon.device.registry->add(FakeRecord::appex("a"));
//   FakeClient client = daemon.connect();
//   EXPECT_EQ(client.ask("ready", {{"uuids", uuids({plugIn})}}), success());
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKProtocol.h"
#include "platform/CodeSigningTask.h"
#include "tests/Support/FakeMessages.h"
#include "tests/vkd/Fakes.h"
#include "vkd/VKDPlugInHold.h"
#include "vkd/VKDServer.h"
#include "vkd/VKDZypClient.h"

namespace vkd::testing {

using namespace Vornik;

using support::FakeConnection;
using support::FakeMessages;

// By process id.
struct FakeCodeSigning : CodeSigning {
  struct Process {
    std::optional<std::string> path;
    PlistValue rights;
    bool unreadable = false;
    int looks = 0;
  };
  std::map<std::int32_t, Process> processes;

  struct Task : CodeSigningTask {
    explicit Task(Process& it) : process(it) {}
    Process& process;
    PlistValue entitlement(std::string_view name, std::optional<DomainError>* error) override {
      return entitlements(error)[name];
    }
    PlistValue entitlements(std::optional<DomainError>* error) override {
      ++process.looks;
      if (!process.unreadable) return process.rights;
      *error = DomainError{FileErrorDomain, 1, std::nullopt};
      return {};
    }
  };
  std::unique_ptr<CodeSigningTask> task(std::shared_ptr<AuditToken> token) override {
    return std::make_unique<Task>(processes[token->pid()]);
  }
  std::optional<std::string> executablePath(std::int32_t pid) override { return processes[pid].path; }
};

// --- What is sent and what comes back --------------------------------------------------------------------------------

using Body = std::initializer_list<std::pair<std::string_view, Message>>;

inline Message messageOf(Body body) {
  Message message = Message::dictionary();
  for (const auto& [key, value] : body) message.set(key, value);
  return message;
}
inline Message requestOf(std::string_view type, Body body = {}) {
  Message message = messageOf(body);
  message.set(kVKMessageRequest, type);
  message.set(kVKMessageVersion, kVKProtocolVersion);
  return message;
}
inline Message success() { return Message::dictionary(); }
inline Message failure(std::uint64_t code, std::string_view text) {
  return messageOf({{kVKMessageErrorCode, code}, {kVKMessageError, text}});
}
inline Message paths(std::initializer_list<std::string_view> list) {
  Message array = Message::array();
  for (std::string_view path : list) array.append(path);
  return array;
}
inline Message uuids(std::initializer_list<std::shared_ptr<FakeRecord>> list) {
  Message array = Message::array();
  for (const auto& record : list) array.append(*record->uuid);
  return array;
}
// Readable in failing tests.
inline void PrintTo(const Message& message, std::ostream* out) { *out << message.description(); }

// --- The daemon and its clients --------------------------------------------------------------------------------------

struct FakeDaemon;

struct FakeClient {
  FakeDaemon& daemon;
  std::shared_ptr<FakeConnection> connection;

  // Only hands the message in; the service queue has not run.
  void deliver(Message event) { connection->deliver(std::move(event)); }
  // Hands it in, lets the daemon work, and answers the one reply.
  Message tell(Message request);
  Message ask(std::string_view type, Body body = {}) { return tell(requestOf(type, body)); }
  void die() { deliver(Message::error(ConnectionError::Invalid, "gone")); }
  std::shared_ptr<VKDZypClient> object() const { return std::static_pointer_cast<VKDZypClient>(connection->context); }
};

struct FakeDaemon {
  static constexpr std::int32_t kPid = 77;

  FakeServices device;
  std::shared_ptr<FakeMessages> messages = std::make_shared<FakeMessages>();
  std::shared_ptr<FakeCodeSigning> codeSigning = std::make_shared<FakeCodeSigning>();
  std::shared_ptr<VKDServer> server;
  std::vector<std::shared_ptr<FakeConnection>> connections;

  // `prepare` may exchange services before the server is made.
  explicit FakeDaemon(const std::function<void(FakeServices&)>& prepare = {}) {
    if (prepare) prepare(device);
    server = make();
    server->setCacheLimit(1000);
    server->start();
  }
  ~FakeDaemon() {
    for (const auto& connection : connections) disconnect(*connection);
  }
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  Services services() const {
    Services all = device.services();
    all.messages = messages;
    all.codeSigning = codeSigning;
    if (device.otherCodeSigning != nullptr) all.codeSigning = device.otherCodeSigning;
    return all;
  }
  std::shared_ptr<VKDServer> make() { return VKDServer::initForServiceDatabase(services(), "test.service", "/store"); }

  FakeClient connect(std::int32_t pid = kPid, const PlistValue& rights = {}) {
    auto& process = codeSigning->processes[pid];
    process.rights = rights;
    if (!process.path) process.path = "/Applications/Host.app/run";
    return connect(std::make_shared<FakeConnection>(pid));
  }
  FakeClient connect(const std::shared_ptr<FakeConnection>& connection) {
    connections.push_back(connection);
    messages->listener->handler(connection);
    return FakeClient{*this, connection};
  }
  FakeClient connectManager(std::int32_t pid = kPid + 1) {
    return connect(pid, PlistBuilder().set(kVKEntitlementManager, true).take());
  }
  static void disconnect(FakeConnection& connection) {
    connection.handler = nullptr;
    connection.context = nullptr;
  }
  void work() { device.queues->named("service").drain(); }
  std::shared_ptr<FakeRecord> install(std::string identifier, const PlistValue& attributes = {}) {
    return device.registry->add(FakeRecord::appex(std::move(identifier), attributes));
  }
};

inline Message FakeClient::tell(Message request) {
  const std::size_t before = connection->sent.size();
  deliver(std::move(request));
  daemon.work();
  if (connection->sent.size() != before + 1) throw std::logic_error("not exactly one reply");
  return connection->sent.back();
}

}  // namespace vkd::testing
