// The clients of the soak: each kind a thread with a connection of its own, which it gives up now and then. All count
// what they ask and what they are told, and share what they learned of the plug-ins.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/Support/WireClient.h"

namespace soak {

using namespace platform;

// What clients have in common. Safe from any thread.
class Shared {
 public:
  Shared(std::string deviceRoot, std::vector<std::string> plugInPaths)
      : root(std::move(deviceRoot)), paths(std::move(plugInPaths)) {}

  void learn(std::vector<UUID> uuids) {
    std::lock_guard lock(mutex_);
    uuids_ = std::move(uuids);
  }
  // One that was there a moment ago; any when there is none.
  UUID someone(std::mt19937_64& random) {
    std::lock_guard lock(mutex_);
    return uuids_.empty() ? UUID::random() : uuids_[random() % uuids_.size()];
  }

  const std::string root;
  const std::vector<std::string> paths;
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> asked{0}, answered{0}, granted{0}, refused{0}, connections{0}, garbage{0};

 private:
  std::mutex mutex_;
  std::vector<UUID> uuids_;
};

class Client {
 public:
  Client(Shared& all, std::uint64_t seed) : shared(all), random(seed) { connect(); }

  // Exactly one reply, which is a success, or a failure with a code and mostly a text. Nothing is a failed test.
  std::optional<Message> ask(const Message& request) {
    std::uint64_t id = random(), repliedTo = ~id;
    ++shared.asked;
    bool sent = wire_->sendBytes(WireClient::frame(request, id));
    auto reply = sent ? wire_->receive(&repliedTo) : std::nullopt;
    EXPECT_TRUE(reply) << request.description() << (wire_->timedOut() ? ": no reply" : ": cut off");
    if (!reply) {
      shared.stop = true;
      return reply;
    }
    EXPECT_EQ(repliedTo, id) << "a reply too many, or to somebody else";
    ++shared.answered;
    ++(reply->getUnsigned("errorcode") == 0 ? shared.granted : shared.refused);
    return reply;
  }
  void connect() {
    if (wire_) expectSilence();
    wire_.emplace(shared.root);
    EXPECT_TRUE(wire_->connected());
    ++shared.connections;
  }
  // Nothing comes that was not asked for.
  void expectSilence() {
    pollfd more{wire_->fd(), POLLIN, 0};
    EXPECT_EQ(::poll(&more, 1, 0), 0);
  }
  // True once in so many times.
  bool oneOf(std::uint64_t times) { return random() % times == 0; }
  Message uuids() {
    Message list = Message::array();
    for (std::uint64_t count = 1 + random() % 3; count != 0; --count) list.append(shared.someone(random));
    return list;
  }
  const std::string& path() { return shared.paths[random() % shared.paths.size()]; }

  Shared& shared;
  std::mt19937_64 random;

 private:
  std::optional<WireClient> wire_;
};

using Fields = std::initializer_list<std::pair<const char*, Message>>;

inline Message dictionary(Fields fields, Message message = Message::dictionary()) {
  for (const auto& [key, value] : fields) message.set(key, value);
  return message;
}
inline Message request(std::string_view type, Fields fields) { return dictionary(fields, WireClient::request(type)); }

inline void match(Client& client) {
  auto reply = client.ask(request("match", {{"flags", std::uint64_t{client.oneOf(2) ? 0U : 5U}}}));
  if (!reply || reply->get("matches") == nullptr) return;
  std::vector<UUID> uuids;
  for (const PlistValue& form : reply->get("matches")->toPlist().elements()) {
    if (auto uuid = UUID::parse(form["uuid"].stringValue())) uuids.push_back(*uuid);
  }
  client.shared.learn(std::move(uuids));
}

inline void annotate(Client& client) {
  Message note = dictionary({{"note", std::string(client.random() % 2000, 'n')}});
  if (client.oneOf(3)) {
    Message annotations = Message::dictionary();
    annotations.set(client.shared.someone(client.random).text(), note);
    client.ask(request("bulk-annotate", {{"annotations", annotations}}));
  } else {
    auto election = static_cast<std::int64_t>(client.random() % 3);
    Message annotations = dictionary({{"election", election}, {"extension", note}});
    client.ask(request("annotate", {{"uuids", client.uuids()}, {"annotations", annotations}}));
  }
}

// Half of the holds end with their connection.
inline void hold(Client& client) {
  auto reply = client.ask(request("lock", {{"flags", std::uint64_t{2}}, {"paths", Message::Array{client.path()}}}));
  if (!reply || reply->get("uuids") == nullptr) return;
  if (client.oneOf(2)) return client.connect();
  client.ask(request("lock", {{"uuids", *reply->get("uuids")}}));
}

inline void prepare(Client& client) {
  client.ask(request(client.oneOf(2) ? "ready" : "access", {{"uuids", client.uuids()}}));
}

inline void administer(Client& client) {
  bool add = client.oneOf(2);
  auto reply = client.ask(request(add ? "add" : "remove", {{"paths", Message::Array{client.path()}}}));
  if (!reply || add) return;
  EXPECT_NE(reply->getUnsigned("errorcode"), 0U) << "removed without the right to";
}

// Frames with bits turned over, on connections that may be cut for it; and its own connection must not care.
inline void garble(Client& client) {
  std::string bytes = WireClient::frame(request("lock", {{"uuids", client.uuids()}}), 1);
  for (std::uint64_t turns = client.random() % 8; turns != 0; --turns) {
    bytes[client.random() % bytes.size()] ^= static_cast<char>(1U << client.random() % 8);
  }
  bytes.resize(1 + client.random() % bytes.size());
  {
    WireClient garbage(client.shared.root);
    garbage.sendBytes(bytes);
    ++client.shared.garbage;
    if (client.oneOf(4)) client.ask(WireClient::request("bulk"));
  }
  client.ask(WireClient::request(client.oneOf(2) ? "nonsense" : "bulk"));
}

// All kinds at once until somebody says stop.
class Crowd {
 public:
  Crowd(Shared& shared, std::uint64_t seed) : shared_(shared) {
    shared.stop = false;
    for (auto* kind : {match, annotate, hold, prepare, administer, garble}) {
      threads_.emplace_back([&shared, kind, seed = ++seed] { live(shared, kind, seed); });
    }
  }
  ~Crowd() {
    shared_.stop = true;
    for (std::thread& thread : threads_) thread.join();
  }

 private:
  static void live(Shared& shared, void (*kind)(Client&), std::uint64_t seed) {
    Client client(shared, seed);
    while (!shared.stop) {
      kind(client);
      if (client.oneOf(64)) client.connect();
      if (client.oneOf(4)) std::this_thread::sleep_for(std::chrono::microseconds(client.random() % 2000));
    }
    client.expectSilence();
  }

  Shared& shared_;
  std::vector<std::thread> threads_;
};

}  // namespace soak
