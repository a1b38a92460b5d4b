// A whole daemon on services in memory, and clients that talk to it: connections hand in messages and keep the replies.
//
//   FakeDaemon daemon;
//   daemon.install("a");
//   FakeClient client = daemon.connect();
//   EXPECT_EQ(client.ask("ready", {{"uuids", uuids({"a"})}}), success());
#pragma once

#include <functional>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKProtocol.h"
#include "tests/Support/Fakes.h"
#include "vkd/server/VKDPlugInHold.h"
#include "vkd/server/VKDServer.h"
#include "vkd/server/VKDZypClient.h"

namespace vkd::testing {

using namespace Vornik;

// --- What is sent and what comes back --------------------------------------------------------------------------------

inline Message success() { return Message::dictionary(); }
inline Message failure(std::uint64_t code, std::string_view text) {
  return messageOf({{kVKMessageErrorCode, code}, {kVKMessageError, text}});
}
// Of the plug-ins with these names.
inline Message uuids(std::initializer_list<std::string_view> names) {
  Message array = Message::array();
  for (std::string_view name : names) array.append(uuidOf(name));
  return array;
}
inline Message lockRequest(std::initializer_list<Message> paths, std::uint64_t flags) {
  return requestOf("lock", {{"paths", listOf(paths)}, {"flags", flags}});
}
inline Message annotateRequest(std::initializer_list<std::string_view> names, const Message& change) {
  return requestOf("annotate", {{"uuids", uuids(names)}, {"annotations", change}});
}
inline Message election(std::int64_t number) { return messageOf({{kVKAnnotationElection, number}}); }

// --- The daemon and its clients --------------------------------------------------------------------------------------

struct FakeDaemon;

struct FakeClient {
  FakeDaemon& daemon;
  std::shared_ptr<FakePeer> connection;

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
  using Exchange = std::function<void(Services&)>;

  FakeServices device;
  Exchange exchange;
  std::shared_ptr<VKDServer> server;
  std::vector<std::shared_ptr<FakePeer>> connections;

  // `others` may put other services in the place of fakes.
  explicit FakeDaemon(Exchange others = [](Services&) {}) : exchange(std::move(others)) {
    device.files->directories[kHostApp.path] = 0755;
    server = make();
    server->setCacheLimit(1000);
    server->start();
  }
  ~FakeDaemon() {
    for (const auto& connection : connections) disconnect(*connection);
  }
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  std::shared_ptr<VKDServer> make(const std::optional<std::string>& database = "/store") const {
    Services services = device.services();
    exchange(services);
    return VKDServer::initForServiceDatabase(services, "test.service", database);
  }

  FakeClient connect(std::int32_t pid = kPid, const PlistValue& rights = {}) {
    auto& process = device.codeSigning->processes[pid];
    process.rights = rights;
    if (!process.path) process.path = kHostApp.path + "/run";
    return connect(std::make_shared<FakePeer>(pid));
  }
  FakeClient connect(const std::shared_ptr<FakePeer>& connection) {
    connections.push_back(connection);
    device.messages->listener->handler(connection);
    return FakeClient{*this, connection};
  }
  FakeClient connectManager(std::int32_t pid = kPid + 1) {
    return connect(pid, dictionary({{std::string(kVKEntitlementManager), true}}));
  }
  static void disconnect(FakePeer& connection) {
    connection.handler = nullptr;
    connection.context = nullptr;
  }
  void work() { device.queues->named("service").drain(); }
  std::shared_ptr<FakeRecord> install(std::string identifier, const PlistValue& attributes = {}) {
    auto record = FakeRecord::appex(std::move(identifier), attributes);
    device.files->directories[record->url->path] = 0755;
    return device.registry->add(record);
  }
  std::shared_ptr<VKDPlugIn> plugIn(std::string_view name) { return server->findPlugIn(uuidOf(name)); }
  bool isHeld(std::string_view name) { return server->holdOnPlugIn(*plugIn(name)); }
  PlistValue annotation(std::string_view name) { return server->annotationForPlugIn(*plugIn(name)); }
};

inline Message FakeClient::tell(Message request) {
  const std::size_t before = connection->sent.size();
  deliver(std::move(request));
  daemon.work();
  if (connection->sent.size() != before + 1) throw std::logic_error("not exactly one reply");
  return connection->sent.back();
}

}  // namespace vkd::testing
