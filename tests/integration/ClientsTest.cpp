// Clients that misbehave, beside a polite one: it gets every reply, each right and exactly one; and when the others are
// gone, so is everything that they cost.
//
// VKD_CLIENTS=full sends as much as a determined client would; by default a few seconds' worth.
#include <sys/resource.h>

#include <atomic>
#include <thread>

#include "tests/Support/Footprint.h"
#include "tests/Support/WireClient.h"
#include "tests/integration/Device.h"

namespace integration {
namespace {

constexpr const char* kIdentifier = "com.example.share";

void expectNoMore(const WireClient& client) {
  pollfd more{client.fd(), POLLIN, 0};
  EXPECT_EQ(::poll(&more, 1, 0), 0) << "a second reply";
}

// Asks for one plug-in again and again, on one connection, until it goes out of scope.
class PoliteClient {
 public:
  explicit PoliteClient(const fs::path& root) : client_(root.string()) {
    EXPECT_TRUE(client_.connected());
    ask();
    thread_ = std::thread([this] {
      while (!stop_ && ask()) std::this_thread::sleep_for(std::chrono::microseconds(200));
    });
  }
  ~PoliteClient() {
    stop_ = true;
    thread_.join();
    EXPECT_TRUE(ask()) << "after " << asked_ << " requests";
    expectNoMore(client_);
  }
  // Returns when it has got this many more replies.
  void waitFor(std::uint64_t replies) const {
    std::uint64_t until = asked_ + replies;
    EXPECT_TRUE(eventually([&] { return asked_ >= until || failed_; }));
  }

 private:
  bool ask() {
    const Message rules = support::messageOf({{"ZoExtensionIdentifier", kIdentifier}});
    std::uint64_t id = ++asked_, answered = 0;
    bool sent = client_.sendBytes(WireClient::frame(WireClient::request("match", {{"rules", rules}}), id));
    auto reply = sent ? client_.receive(&answered) : std::nullopt;
    EXPECT_TRUE(reply) << "request " << id << (client_.timedOut() ? ": no reply" : ": cut off");
    EXPECT_EQ(answered, id);
    PlistValue forms = reply && reply->get("matches") != nullptr ? reply->get("matches")->toPlist() : PlistValue();
    bool right = forms.size() == 1 && forms.at(0)["identifier"].stringValue() == kIdentifier;
    EXPECT_TRUE(right) << (reply ? reply->description() : "");
    failed_ = !right || answered != id;
    return !failed_;
  }

  WireClient client_;
  std::atomic<std::uint64_t> asked_{0};
  std::atomic<bool> stop_{false}, failed_{false};
  std::thread thread_;
};

class ClientsTest : public Device {
 protected:
  static constexpr std::size_t kCrowd = 512;
  static constexpr std::size_t kLargeText = 300'000;

  ClientsTest() {
    addApplication(kPhotos);
    addPlugIn("/Applications/Photos.app/PlugIns/Share.appex", manifest(kIdentifier));
    addPlugIn("/Applications/Photos.app/PlugIns/Large.appex",
              manifest("com.example.large", "1", dictionary("Text", std::string(kLargeText, 'x'))));
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
  }
  static bool full() { return std::getenv("VKD_CLIENTS") != nullptr; }
  void begin() {
    startDaemon();
    ASSERT_TRUE(WireClient(root_).call(WireClient::request("match")));
    before_ = Footprint::of(daemon().pid());
  }
  static void expectAllReturned(pid_t pid, const Footprint& before) {
    Footprint now;
    EXPECT_TRUE(eventually([&] { return (now = Footprint::of(pid)).within(before); }))
        << "before: " << before << "\nnow:    " << now;
  }
  void expectAllReturned() { expectAllReturned(daemon().pid(), before_); }
  // Sends what the socket takes at once; answers the rest.
  static std::string_view sendSome(const WireClient& client, std::string_view bytes) {
    while (!bytes.empty()) {
      ssize_t sent = ::send(client.fd(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent <= 0) break;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return bytes;
  }

  Footprint before_;
};

TEST_F(ClientsTest, ACrowdThatNeverReadsOrNeverEndsItsFrameIsInNobodysWay) {
  begin();
  {
    PoliteClient polite(root_);
    std::vector<WireClient> readers;
    std::string large;
    for (std::uint64_t id = 1; id <= 4; ++id) large += WireClient::frame(WireClient::request("match"), id);
    for (std::size_t i = 0; i < kCrowd; ++i) {
      readers.emplace_back(root_);
      ASSERT_TRUE(readers.back().connected());
      sendSome(readers.back(), large);
    }
    polite.waitFor(100);
    std::vector<WireClient> halves;
    const std::string frame = WireClient::frame(WireClient::request("match"), 1);
    for (std::size_t i = 0; i < kCrowd; ++i) {
      halves.emplace_back(root_);
      ASSERT_TRUE(halves.back().connected());
      EXPECT_EQ(sendSome(halves.back(), std::string_view(frame).substr(0, 1 + i % (frame.size() - 1))), "");
    }
    polite.waitFor(100);
    // Half a frame is no offence: its sender may end it later, and is answered.
    std::size_t last = kCrowd - 1;
    ASSERT_TRUE(halves[last].sendBytes(std::string_view(frame).substr(1 + last % (frame.size() - 1))));
    auto reply = halves[last].receive();
    EXPECT_TRUE(reply && reply->get("matches") != nullptr);
  }
  expectAllReturned();
}

TEST_F(ClientsTest, WhoSendsWithoutReadingIsNotReadFurtherAndLosesNothing) {
  begin();
  {
    const std::uint64_t count = full() ? 1'000'000 : 200'000;
    PoliteClient polite(root_);
    WireClient flood(root_);
    std::string bytes;
    std::uint64_t sent = 0, received = 0;
    auto refill = [&] {
      bytes.clear();
      while (bytes.size() < 65536 && sent < count) bytes += WireClient::frame(WireClient::request("bulk"), ++sent);
    };
    refill();
    std::string_view rest = bytes;
    // Until the daemon takes no more: then it has stopped to read, not to keep.
    for (int stalls = 0; stalls < 50 && !rest.empty();) {
      rest = sendSome(flood, rest);
      if (rest.empty()) {
        refill();
        rest = bytes;
        stalls = 0;
      } else {
        ++stalls;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    }
    EXPECT_LT(sent, count) << "the replies to all of them are kept somewhere";
    EXPECT_LT(Footprint::of(daemon().pid()).kilobytes, before_.kilobytes + 65536);
    polite.waitFor(20);
    std::thread sender([&] {
      while (!rest.empty() && flood.sendBytes(rest)) {
        refill();
        rest = bytes;
      }
    });
    for (std::uint64_t id = 0; received < count && flood.receive(&id) && id == received + 1;) ++received;
    EXPECT_EQ(received, count) << "each one reply, in order";
    if (received < count) ::shutdown(flood.fd(), SHUT_RDWR);
    sender.join();
    expectNoMore(flood);
  }
  expectAllReturned();
}

TEST_F(ClientsTest, WhatAsksForNothingTakesNoPlaceAmongTheWaitingRequests) {
  begin();
  WireClient client(root_);
  std::string bytes;
  for (std::uint64_t id = 1; id <= 300; ++id) bytes += WireClient::frame(Message("no request"), id);
  ASSERT_TRUE(client.sendBytes(bytes + WireClient::frame(WireClient::request("bulk"), 301)));
  std::uint64_t id = 0;
  EXPECT_TRUE(client.receive(&id)) << "its connection is not read any more";
  EXPECT_EQ(id, 301U);
}

TEST_F(ClientsTest, AStormOfConnectionsPasses) {
  begin();
  {
    // Together more than there may be at a time: a place that is not given back is missed.
    const int each = full() ? 20'000 : 1'100;
    PoliteClient polite(root_);
    std::vector<std::thread> threads;
    for (unsigned kind = 0; kind < 4; ++kind) {
      threads.emplace_back([this, kind, each] {
        const std::string frame = WireClient::frame(WireClient::request(kind == 3 ? "nonsense" : "match"), 1);
        for (int i = 0; i < each; ++i) {
          WireClient client(root_);
          EXPECT_TRUE(client.connected());
          if (kind != 0) sendSome(client, std::string_view(frame).substr(0, frame.size() / (kind == 1 ? 2 : 1)));
          if (kind == 3) {
            auto reply = client.receive();
            EXPECT_TRUE(reply && reply->getUnsigned("errorcode") == 4);
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    polite.waitFor(10);
  }
  expectAllReturned();
}

TEST_F(ClientsTest, WithoutDescriptorsTheNextClientsWaitOrAreRefusedAndTheRestIsServed) {
  auto limited = start({"/bin/sh", "-c", "ulimit -n 64; exec \"$0\"", VKD_PROGRAM});
  ASSERT_TRUE(eventually([&] {
    WireClient first(root_);
    return first.connected() && first.call(WireClient::request("match"));
  }));
  Footprint before = Footprint::of(limited->pid());
  {
    PoliteClient polite(root_);
    std::vector<WireClient> crowd;
    const std::string frame = WireClient::frame(WireClient::request("bulk"), 1);
    for (int i = 0; i < 200; ++i) {
      crowd.emplace_back(root_);
      if (crowd.back().connected()) sendSome(crowd.back(), frame);
    }
    std::size_t served = 0, refused = 0;
    for (WireClient& client : crowd) {
      bool answered = client.connected() && client.receive().has_value();
      ASSERT_FALSE(client.timedOut()) << "neither served nor refused";
      ++(answered ? served : refused);
    }
    EXPECT_GT(served, 0U);
    EXPECT_GT(refused, 100U) << "there are 64 descriptors";
    EXPECT_FALSE(limited->hasEnded());
    polite.waitFor(50);
    crowd.clear();
    EXPECT_TRUE(eventually([&] {
      WireClient next(root_);
      return next.connected() && next.call(WireClient::request("bulk"));
    })) << "what the crowd had is there again";
  }
  expectAllReturned(limited->pid(), before);
  EXPECT_NE(limited->err().find("is refused: too many connections"), std::string::npos) << limited->err();
}

}  // namespace
}  // namespace integration
