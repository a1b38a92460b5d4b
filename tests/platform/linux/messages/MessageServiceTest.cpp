#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <atomic>
#include <future>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "platform/linux/messages/MessageBudget.h"
#include "platform/linux/messages/MessageService.h"
#include "platform/linux/messages/MessageSocket.h"
#include "platform/linux/messages/PeerIdentity.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/ChildProgram.h"
#include "tests/Support/WireClient.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using support::ChildProgram;
using support::eventually;

std::string frame(FrameType type, std::uint64_t id, std::string_view payload) {
  auto header = FrameHeader{static_cast<std::uint32_t>(payload.size()), type, id}.encoded();
  return std::string(header.data(), header.size()).append(payload);
}

Message dictionary(std::string_view key, Message value) {
  Message message = Message::dictionary();
  message.set(key, std::move(value));
  return message;
}

bool isClosed(WireClient& client) { return !client.receive() && !client.timedOut(); }

const Message kInvalid = Message::error(ConnectionError::Invalid, "Connection invalid");
const Message kInterrupted = Message::error(ConnectionError::Interrupted, "Connection interrupted");
const Message kTermination = Message::error(ConnectionError::TerminationImminent, "Termination imminent");

// What a connection was told, in order. Safe from any thread.
class Events {
 public:
  void note(const Message& event) {
    std::lock_guard lock(mutex_);
    all_.push_back(event);
  }
  std::vector<Message> all() const {
    std::lock_guard lock(mutex_);
    return all_;
  }
  std::size_t count(const Message& event) const {
    const std::vector<Message> now = all();
    return static_cast<std::size_t>(std::count(now.begin(), now.end(), event));
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Message> all_;
};

// A daemon that answers a request {"n": …} by {"n": …}, on its service queue, and remembers its events.
class Daemon {
 public:
  Daemon(const std::shared_ptr<const DeviceRoot>& root, const std::string& name)
      : messages(makeMessageService(RunningLoop(), root)) {
    DomainError error;
    listener = messages->listen(name, queues->serial("zyp", WorkQueue::Order::Outer), &error);
    if (listener == nullptr) throw std::runtime_error(error.localizedDescription());
    listener->setConnectionHandler([this](std::shared_ptr<PeerConnection> peer) { welcome(peer); });
    EXPECT_FALSE(listener->resume());
  }
  ~Daemon() {
    listener.reset();
    messages.reset();
    serviceQueue->sync([] {});  // after all that waits
  }

  void welcome(const std::shared_ptr<PeerConnection>& peer) {
    std::weak_ptr<PeerConnection> weak = peer;
    peer->setContext(std::shared_ptr<void>(nullptr, [this](void*) { ++contextsReleased; }));
    peer->setEventHandler([this, weak](Message event) {
      events.note(event);
      if (event.isError() || event.route() != Message::Route::Request) return;
      serviceQueue->async([this, weak, event] { answer(weak.lock(), event); });
    });
    {
      std::lock_guard lock(mutex);
      peers.push_back(peer);
    }
    peer->resume();
  }
  void answer(const std::shared_ptr<PeerConnection>& peer, const Message& event) {
    Message reply = Message::createReply(event);
    if (const Message* number = event.get("n")) reply.set("n", *number);
    if (event.get("large") != nullptr) {
      static const Rope large = encodePlist(PlistValue(std::string(std::size_t{50} << 20, 'x')));
      reply.set("large", Message(large));
    }
    if (peer == nullptr) return;
    peer->send(reply);
    peer->send(reply);  // a second reply goes nowhere
  }
  std::shared_ptr<PeerConnection> peer(std::size_t index) const {
    std::shared_ptr<PeerConnection> found;
    eventually([&] {
      std::lock_guard lock(mutex);
      return peers.size() > index && (found = peers[index].lock()) != nullptr;
    });
    return found;
  }
  std::shared_ptr<PeerIdentity> identity(std::size_t index) const {
    return std::dynamic_pointer_cast<PeerIdentity>(peer(index)->peerAuditToken());
  }
  // Nothing is answered until the promise is kept.
  std::shared_ptr<std::promise<void>> closeGate() const {
    auto gate = std::make_shared<std::promise<void>>();
    serviceQueue->async([gate] { gate->get_future().wait(); });
    return gate;
  }

  std::shared_ptr<WorkQueueFactory> queues = makeWorkQueues();
  std::shared_ptr<WorkQueue> serviceQueue = queues->serial("service", WorkQueue::Order::Outer);
  std::shared_ptr<MessageListener> listener;
  mutable std::mutex mutex;
  std::vector<std::weak_ptr<PeerConnection>> peers;
  Events events;
  std::atomic<int> contextsReleased = 0;
  std::shared_ptr<LinuxMessageService> messages;
};

struct MessageServices : testing::Test {
  WireClient connect(const std::string& name = "test") const { return WireClient(root->hostPath(), name); }
  // Whether the daemon still serves others.
  void expectServed() { EXPECT_EQ(connect().call(dictionary("n", 5)), dictionary("n", 5)); }
  std::string cutOff(const char* why) { return "process " + std::to_string(::getpid()) + " is cut off: " + why; }

  support::ScratchRoot scratch;
  std::shared_ptr<const DeviceRoot> root = scratch.root();
  support::CapturedLog log{LogLevel::Info};
};

TEST_F(MessageServices, AnswerInOrderHoweverRequestsAreCutAndReadNoFurtherWhileTooManyWait) {
  Daemon daemon(root, "test");
  WireClient client = connect();
  constexpr std::uint64_t kRequests = 3 * kMaxWaitingRequests;
  constexpr std::uint64_t kPlain = 6;
  auto gate = daemon.closeGate();
  std::string bytes;
  for (std::uint64_t i = 0; i < kRequests; ++i) {
    if (i < kPlain) bytes += WireClient::frame("no dictionary", 0, FrameType::Message);
    bytes += WireClient::frame(dictionary("n", 1), i);
  }
  std::thread writer([&] {
    std::minstd_rand random(1);
    for (std::size_t at = 0, step; at < bytes.size(); at += step) {
      step = 1 + random() % 40;
      client.sendBytes(std::string_view(bytes).substr(at, step));
    }
  });
  EXPECT_TRUE(eventually([&] { return daemon.events.count(dictionary("n", 1)) >= kMaxWaitingRequests; }));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(daemon.events.count(dictionary("n", 1)), kMaxWaitingRequests);
  gate->set_value();
  std::uint64_t id = 0;
  for (std::uint64_t i = 0; i < kRequests; ++i) {
    ASSERT_EQ(client.receive(&id), dictionary("n", 1));
    ASSERT_EQ(id, i);
  }
  writer.join();
  EXPECT_EQ(client.call(dictionary("n", "last")), dictionary("n", "last"));
  EXPECT_EQ(daemon.events.count(Message("no dictionary")), kPlain);
}

TEST_F(MessageServices, CutOffWhoeverBreaksTheProtocolAlone) {
  Daemon daemon(root, "test");
  std::string tooLong = frame(FrameType::Request, 1, "x");
  std::uint32_t length = kMaxMessageBytes + 1;
  std::memcpy(tooLong.data(), &length, sizeof length);
  const std::pair<std::string, const char*> cases[] = {
      {frame(static_cast<FrameType>(9), 1, "x"), "unknown frame type"},
      {tooLong, "message too large"},
      {frame(FrameType::Request, 1, ""), "empty message"},
      {frame(FrameType::Request, 1, "garbage"), "bytes that are no message"},
      {WireClient::frame(1, 77, FrameType::Reply), "a reply to no request"},
  };
  for (const auto& [bytes, reason] : cases) {
    log.clear();
    WireClient client = connect();
    client.sendBytes(bytes);
    EXPECT_TRUE(isClosed(client)) << reason;
    ASSERT_TRUE(eventually([&] { return !log.lines().empty(); })) << reason;
    EXPECT_EQ(log.lines().size(), 1U) << log;
    const LogLine line = log.lines()[0];
    EXPECT_TRUE(line.text.starts_with(cutOff(reason)) && line.level == LogLevel::Error) << log;
  }
  {
    WireClient half = connect();
    half.sendBytes(frame(FrameType::Request, 1, "unfinished").substr(0, 20));
  }
  expectServed();
  EXPECT_TRUE(eventually([&] { return daemon.events.count(kInvalid) == 7; }));
}

TEST_F(MessageServices, CutOffWhoeverDoesNotReadWhileOthersAreServed) {
  Daemon daemon(root, "test");
  WireClient silent = connect();
  const Message large = dictionary("large", true);
  auto gate = daemon.closeGate();
  for (std::uint64_t i = 0; i < 4; ++i) silent.sendBytes(WireClient::frame(large, i));
  EXPECT_TRUE(eventually([&] { return daemon.events.count(large) == 4; }));
  gate->set_value();
  EXPECT_TRUE(eventually([&] { return daemon.events.count(kInvalid) == 1; }));
  EXPECT_TRUE(log.has(LogLevel::Error, "default", cutOff("it does not read what it is sent"))) << log;
  // Large messages are fine with who reads, be it late.
  WireClient slow = connect();
  slow.sendBytes(WireClient::frame(large, 1));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(slow.receive()->get("large")->kind(), Message::Kind::Plist);
  const Message asked = dictionary("n", std::string(std::size_t{20} << 20, 'y'));
  EXPECT_EQ(slow.call(asked), asked);
}

TEST_F(MessageServices, TellHowAConnectionEnds) {
  Daemon daemon(root, "test");
  {
    WireClient client = connect();
    auto gate = daemon.closeGate();
    client.sendBytes(WireClient::frame(dictionary("n", 1), 1));
    ::shutdown(client.fd(), SHUT_WR);
    EXPECT_TRUE(eventually([&] { return daemon.events.count(kTermination) == 1; }));
    gate->set_value();
    EXPECT_EQ(client.receive(), dictionary("n", 1));
    EXPECT_EQ(daemon.contextsReleased, 0);
  }
  EXPECT_TRUE(eventually([&] { return daemon.contextsReleased == 1; }));

  WireClient cancelled = connect();
  daemon.peer(1)->cancel();
  EXPECT_TRUE(isClosed(cancelled));
  EXPECT_TRUE(eventually([&] { return daemon.contextsReleased == 2; }));
  EXPECT_EQ(daemon.events.count(kInvalid), 2U);
  EXPECT_EQ(daemon.events.all().back(), kInvalid);
}

// The client's end, with its events in order.
struct Client {
  Client(const std::shared_ptr<const DeviceRoot>& root, const std::string& name)
      : messages(makeMessageService(RunningLoop(), root)) {
    connection = messages->connect(name, queue);
    connection->setEventHandler([this](Message event) { events.note(event); });
    connection->resume();
  }
  ~Client() {
    messages.reset();
    queue->sync([] {});
  }
  std::future<Message> send(const Message& message) const {
    auto reply = std::make_shared<std::promise<Message>>();
    connection->sendWithReply(message, queue, [reply](Message value) { reply->set_value(std::move(value)); });
    return reply->get_future();
  }
  bool isTold(const std::vector<Message>& expected) {
    return eventually([&] { return events.all() == expected; });
  }
  Events events;
  std::shared_ptr<WorkQueue> queue = makeWorkQueues()->serial("client", WorkQueue::Order::Outer);
  std::shared_ptr<LinuxMessageService> messages;
  std::shared_ptr<ServiceConnection> connection;
};

TEST_F(MessageServices, ClientsOutliveTheirDaemon) {
  Client client(root, "test");
  EXPECT_EQ(client.send(dictionary("n", 1)).get(), kInvalid);
  EXPECT_TRUE(client.isTold({kInvalid}));
  {
    Daemon daemon(root, "test");
    EXPECT_EQ(client.send(dictionary("n", 2)).get(), dictionary("n", 2));
    EXPECT_EQ(client.connection->peerPid(), ::getpid());
    auto gate = daemon.closeGate();
    auto pending = client.send(dictionary("n", 3));
    daemon.peer(0)->cancel();
    EXPECT_EQ(pending.get(), kInterrupted);
    EXPECT_TRUE(client.isTold({kInvalid, kInterrupted}));
    gate->set_value();
  }
  Daemon daemon(root, "test");
  EXPECT_EQ(client.send(dictionary("n", 4)).get(), dictionary("n", 4));
  client.connection->cancel();
  EXPECT_EQ(client.send(dictionary("n", 5)).get(), kInvalid);
  EXPECT_TRUE(client.isTold({kInvalid, kInterrupted, kInvalid}));
}

TEST_F(MessageServices, TakeANameFromTheDeadOnly) {
  DomainError error;
  const std::string longest(96, 'n');
  auto socketOf = [&](const char* name) { return scratch.host(std::string("/run/zyp/") + name); };
  auto refused = [&](const std::string& name) {
    auto service = makeMessageService(RunningLoop(), root);
    return service->listen(name, makeWorkQueues()->serial("zyp", WorkQueue::Order::Outer), &error) == nullptr;
  };
  {
    Daemon daemon(root, "test");
    EXPECT_TRUE(refused("test"));
    EXPECT_EQ(error.localizedDescription(), "service name test is in use");
    EXPECT_EQ(std::filesystem::status(socketOf("test")).permissions(), std::filesystem::perms(0666));
    // What stays when a daemon is killed.
    std::filesystem::create_hard_link(socketOf("test"), socketOf("stale"));
  }
  Daemon next(root, "stale");
  EXPECT_EQ(connect("stale").call(dictionary("n", 1)), dictionary("n", 1));
  for (const std::string& name : {std::string(), std::string("."), std::string(".."), std::string(".test.lock"),
                                  std::string("a/b"), longest + "n"}) {
    EXPECT_TRUE(refused(name)) << name;
  }
  // The longest name in a folder that no socket address holds.
  const std::string folder = scratch.host("/" + std::string(100, 'd'));
  std::filesystem::create_directories(folder);
  auto deep = std::make_shared<const DeviceRoot>(folder);
  Daemon far(deep, longest);
  Client near(deep, longest);
  EXPECT_EQ(near.send(dictionary("n", 6)).get(), dictionary("n", 6));
}

TEST_F(MessageServices, KnowNobodyWhoIsNotWhoConnected) {
  Daemon daemon(root, "test");
  WireClient client = connect();
  auto mine = daemon.identity(0);
  EXPECT_EQ(mine->pid(), ::getpid());
  EXPECT_EQ(mine->uid(), ::getuid());
  EXPECT_EQ(mine->executablePath(), std::filesystem::read_symlink("/proc/self/exe"));
  EXPECT_EQ(client.call(dictionary("n", 1)), dictionary("n", 1));
  EXPECT_TRUE(mine->stillSame());
  ChildProgram heir([&] { return client.sendBytes(WireClient::frame(dictionary("n", 2), 2)) ? 0 : 1; });
  EXPECT_EQ(heir.wait(), 0);
  EXPECT_EQ(client.receive(), dictionary("n", 2));
  EXPECT_FALSE(mine->stillSame());

  // A process that executes something else after it connected, and then ends.
  ChildProgram other([&] {
    WireClient kept = connect();
    eventually([&] { return std::filesystem::exists(scratch.host("/go")); });
    return ::execl("/bin/sleep", "sleep", "20", nullptr);
  });
  auto theirs = daemon.identity(1);
  EXPECT_EQ(theirs->pid(), other.pid());
  EXPECT_TRUE(theirs->stillSame());
  scratch.write("/go", "");
  EXPECT_TRUE(eventually([&] { return !theirs->stillSame(); }));
  auto sleeper = PeerIdentity::ofProcess(other.pid());
  EXPECT_TRUE(sleeper->stillSame());
  const pid_t pid = other.pid();
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(eventually([&] { return !sleeper->stillSame(); }));
  other.wait();
  EXPECT_FALSE(PeerIdentity::ofProcess(pid)->stillSame());
}

TEST_F(MessageServices, LookAwayWhileThereAreNoDescriptors) {
  Daemon daemon(root, "test");
  WireClient early = connect();
  EXPECT_EQ(early.call(dictionary("n", 1)), dictionary("n", 1));
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  rlimit used{static_cast<rlim_t>(UniqueFd(::dup(0)).get()), before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &used);
  ChildProgram next([&] {
    ::setrlimit(RLIMIT_NOFILE, &before);
    return connect().call(dictionary("n", 2)) == dictionary("n", 2) ? 0 : 1;
  });
  auto shortages = [&] {
    return log.count(LogLevel::Error, "default", "no client can be accepted for now: Too many open files");
  };
  EXPECT_TRUE(eventually([&] { return shortages() > 0; }));
  std::this_thread::sleep_for(250ms);
  EXPECT_EQ(shortages(), 1U);
  EXPECT_EQ(early.call(dictionary("n", 3)), dictionary("n", 3));
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(next.wait(), 0);
}

TEST(MessageBudgetTest, LeavesHalfToOtherUsers) {
  auto budget = std::make_shared<MessageBudget>(4);
  const char* refusal = nullptr;
  auto first = budget->admit(1, &refusal);
  auto second = budget->admit(1, &refusal);
  EXPECT_EQ(budget->admit(1, &refusal), nullptr);
  EXPECT_STREQ(refusal, "too many connections of this user");
  auto third = budget->admit(2, &refusal);
  auto fourth = budget->admit(3, &refusal);
  EXPECT_EQ(budget->admit(4, &refusal), nullptr);
  EXPECT_STREQ(refusal, "too many connections");
  EXPECT_TRUE(first->keep(kMaxKeptBytesPerUser - 10));
  EXPECT_FALSE(second->keep(11));
  EXPECT_TRUE(second->keep(10));
  EXPECT_TRUE(third->keep(kMaxKeptBytesPerUser));
  EXPECT_FALSE(fourth->keep(1));
  first.reset();
  EXPECT_TRUE(fourth->keep(1));
  EXPECT_EQ(budget->connections(), 3U);
}

TEST(FrameReaderTest, TakesMemoryForWhatArrivedOnly) {
  FrameReader reader;
  std::vector<char> scratch(4096);
  FrameHeader claimed{kMaxMessageBytes, FrameType::Message, 0};
  std::memcpy(reader.space(scratch).data(), claimed.encoded().data(), kFrameHeaderBytes);
  reader.arrived(kFrameHeaderBytes);
  FrameHeader header;
  SharedSlice payload;
  EXPECT_EQ(reader.next(&header, &payload), FrameReader::Next::More);
  EXPECT_LE(reader.space(scratch).size(), 64U * 1024);
}

TEST_F(MessageServices, MarkABusyProcess) {
  auto service = makeMessageService(RunningLoop(), root);
  auto marked = [&] {
    return std::filesystem::exists(scratch.host("/run/jobd/keepalive/" + std::to_string(::getpid())));
  };
  for (int i = 0; i < 2; ++i) service->beginKeepAlive();
  service->endKeepAlive();
  EXPECT_TRUE(marked());
  service->endKeepAlive();
  EXPECT_FALSE(marked());
}

}  // namespace
}  // namespace platform
