#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/linux/MessageBudget.h"
#include "platform/linux/MessageFrame.h"
#include "platform/linux/MessageService.h"
#include "platform/linux/MessageSocket.h"
#include "platform/linux/PeerIdentity.h"
#include "tests/Support/CapturedLog.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
constexpr auto kPatience = 20s;

// True as soon as `condition` is, false when it never becomes so.
template <class Condition>
bool soon(Condition condition) {
  for (auto end = std::chrono::steady_clock::now() + kPatience; std::chrono::steady_clock::now() < end;) {
    if (condition()) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

std::string frame(FrameType type, std::uint64_t id, std::string_view payload) {
  auto header = FrameHeader{static_cast<std::uint32_t>(payload.size()), type, id}.encoded();
  return std::string(header.data(), header.size()).append(payload);
}

Message dictionary(std::string_view key, Message value) {
  Message message = Message::dictionary();
  message.set(key, std::move(value));
  return message;
}

std::string request(std::uint64_t id, const Message& message) {
  return frame(FrameType::Request, id, encodeMessage(message).flat().view());
}

// A client that speaks bytes.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << path;
    timeval patience{20, 0};
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  int fd() const { return fd_.get(); }
  void write(std::string_view bytes) const {
    while (!bytes.empty()) {
      ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  std::string read(std::size_t size) const {
    std::string bytes(size, '\0');
    ssize_t got = ::recv(fd_.get(), bytes.data(), size, MSG_WAITALL);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }
  // The next reply; an empty message when the connection is closed or times out.
  Message reply(std::uint64_t* id = nullptr) const {
    std::string bytes = read(kFrameHeaderBytes);
    FrameHeader header;
    if (bytes.size() < kFrameHeaderBytes || header.decode(bytes) != nullptr) return {};
    if (id != nullptr) *id = header.id;
    return decodeMessage(SharedSlice::take(read(header.length)));
  }
  Message ask(const Message& message) const {
    write(request(1, message));
    return reply();
  }
  bool isClosed() const {
    char byte;
    ssize_t got = ::recv(fd_.get(), &byte, 1, 0);
    return got == 0 || (got < 0 && errno == ECONNRESET);
  }
  void endSending() const { ::shutdown(fd_.get(), SHUT_WR); }
  void close() { fd_.reset(); }

 private:
  UniqueFd fd_;
};

// A daemon that answers a request {"n": …} by {"n": …}, on its service queue, and remembers its events.
class Daemon {
 public:
  Daemon(const std::shared_ptr<const DeviceRoot>& root, const std::string& name) {
    std::string reason;
    listener = service(root)->listen(name, queues->serial("zyp", WorkQueue::Order::Outer), &reason);
    if (listener == nullptr) throw std::runtime_error(reason);
    listener->setConnectionHandler([this](std::shared_ptr<MessageConnection> peer) { welcome(peer); });
    EXPECT_TRUE(listener->resume());
  }
  ~Daemon() {
    listener.reset();
    loop.reset();
    serviceQueue->sync([] {});  // after all that waits
  }

  std::shared_ptr<LinuxMessageService> service(const std::shared_ptr<const DeviceRoot>& root) {
    return makeMessageService(loop, root);
  }
  void welcome(const std::shared_ptr<MessageConnection>& peer) {
    std::weak_ptr<MessageConnection> weak = peer;
    peer->setContext(std::shared_ptr<void>(nullptr, [this](void*) { ++contextsReleased; }));
    peer->setEventHandler([this, weak](Message event) {
      note(event);
      if (event.isError() || event.route() != Message::Route::Request) return;
      serviceQueue->async([this, weak, event] { answer(weak.lock(), event); });
    });
    {
      std::lock_guard lock(mutex);
      peers.push_back(peer);
    }
    peer->resume();
  }
  void answer(const std::shared_ptr<MessageConnection>& peer, const Message& event) {
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
  void note(const Message& event) {
    std::lock_guard lock(mutex);
    const auto* error = event.as<Message::ErrorEvent>();
    events.push_back(error != nullptr ? error->text : event.description());
  }
  std::size_t count(std::string_view text) const {
    std::lock_guard lock(mutex);
    return static_cast<std::size_t>(std::count(events.begin(), events.end(), text));
  }
  std::shared_ptr<MessageConnection> peer(std::size_t index) const {
    std::shared_ptr<MessageConnection> found;
    soon([&] {
      std::lock_guard lock(mutex);
      return peers.size() > index && (found = peers[index].lock()) != nullptr;
    });
    return found;
  }

  std::shared_ptr<WorkQueueFactory> queues = makeWorkQueues();
  std::shared_ptr<WorkQueue> serviceQueue = queues->serial("service", WorkQueue::Order::Outer);
  std::shared_ptr<MessageListener> listener;
  mutable std::mutex mutex;
  std::vector<std::weak_ptr<MessageConnection>> peers;
  std::vector<std::string> events;
  std::atomic<int> contextsReleased = 0;
  std::shared_ptr<EventLoop> loop = EventLoop::create();
};

struct MessageServices : testing::Test {
  void SetUp() override {
    std::string pattern = std::filesystem::temp_directory_path() / "service-XXXXXX";
    folder = ::mkdtemp(pattern.data());
    root = std::make_shared<const DeviceRoot>(folder);
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  std::string path(const std::string& name = "test") const { return folder + "/run/zyp/" + name; }
  // Whether the daemon still serves others.
  void expectServed() {
    RawClient polite(path());
    EXPECT_EQ(polite.ask(dictionary("n", 5)), dictionary("n", 5));
  }

  std::string folder;
  std::shared_ptr<const DeviceRoot> root;
  support::CapturedLog log{LogLevel::Info};
};

TEST_F(MessageServices, AnswerEachRequestOnceAndInOrderHoweverItIsCut) {
  Daemon daemon(root, "test");
  RawClient client(path());
  std::string bytes;
  for (int i = 0; i < 300; ++i) {  // more than may wait at once, with plain messages between
    bytes += request(static_cast<std::uint64_t>(i), dictionary("n", i));
    if (i % 50 == 0) bytes += frame(FrameType::Message, 0, encodeMessage(dictionary("plain", i)).flat().view());
  }
  std::thread writer([&] {
    std::size_t at = 0;
    for (std::size_t step : {1, 3, 15, 16, 17, 1, 1, 40, 2}) {
      client.write(std::string_view(bytes).substr(at, step));
      at += step;
      std::this_thread::sleep_for(1ms);
    }
    client.write(std::string_view(bytes).substr(at));
  });
  for (int i = 0; i < 300; ++i) {
    std::uint64_t id = 0;
    ASSERT_EQ(client.reply(&id), dictionary("n", i));
    ASSERT_EQ(id, static_cast<std::uint64_t>(i));
  }
  writer.join();
  EXPECT_EQ(client.ask(dictionary("n", "last")), dictionary("n", "last"));
}

TEST_F(MessageServices, ReadNoFurtherWhileTooManyRequestsWait) {
  Daemon daemon(root, "test");
  RawClient client(path());
  std::promise<void> gate;
  daemon.serviceQueue->async([&] { gate.get_future().wait(); });
  for (std::uint64_t i = 0; i < 3 * kMaxWaitingRequests; ++i) client.write(request(i, dictionary("n", 1)));
  auto delivered = [&] {
    std::lock_guard lock(daemon.mutex);
    return daemon.events.size();
  };
  EXPECT_TRUE(soon([&] { return delivered() >= kMaxWaitingRequests; }));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(delivered(), kMaxWaitingRequests);
  gate.set_value();
  for (std::uint64_t i = 0; i < 3 * kMaxWaitingRequests; ++i) EXPECT_EQ(client.reply(), dictionary("n", 1));
}

TEST_F(MessageServices, CutOffWhoeverBreaksTheProtocolAlone) {
  Daemon daemon(root, "test");
  std::string tooLong = frame(FrameType::Request, 1, "x");
  std::uint32_t length = kMaxMessageBytes + 1;
  std::memcpy(tooLong.data(), &length, sizeof length);
  struct Case {
    std::string bytes;
    std::string reason;
  };
  for (const Case& bad :
       {Case{frame(static_cast<FrameType>(9), 1, "x"), "unknown frame type"},
        {tooLong, "message too large"},
        {frame(FrameType::Request, 1, ""), "empty message"},
        {frame(FrameType::Request, 1, "garbage"), "bytes that are no message"},
        {frame(FrameType::Reply, 77, encodeMessage(Message(1)).flat().view()), "a reply to no request"}}) {
    log.clear();
    RawClient client(path());
    client.write(bad.bytes);
    EXPECT_TRUE(client.isClosed()) << bad.reason;
    ASSERT_TRUE(soon([&] { return !log.lines().empty(); })) << bad.reason;
    auto lines = log.lines();
    EXPECT_EQ(lines.size(), 1u) << log;
    std::string start = "process " + std::to_string(::getpid()) + " is cut off: " + bad.reason;
    EXPECT_TRUE(lines[0].text.starts_with(start) && lines[0].level == LogLevel::Error) << lines[0].text;
  }
  RawClient half(path());
  half.write(frame(FrameType::Request, 1, "unfinished").substr(0, 20));
  expectServed();
  EXPECT_TRUE(soon([&] { return daemon.count("Connection invalid") == 6; }));
}

TEST_F(MessageServices, DeliverWhatIsNoDictionary) {
  Daemon daemon(root, "test");
  RawClient client(path());
  client.write(frame(FrameType::Message, 0, encodeMessage(Message("text")).flat().view()));
  EXPECT_TRUE(soon([&] { return daemon.count(Message("text").description()) == 1; }));
}

TEST_F(MessageServices, CutOffWhoeverDoesNotReadWhileOthersAreServed) {
  Daemon daemon(root, "test");
  RawClient silent(path());
  std::promise<void> gate;
  daemon.serviceQueue->async([&] { gate.get_future().wait(); });
  for (std::uint64_t i = 0; i < 4; ++i) silent.write(request(i, dictionary("large", true)));
  EXPECT_TRUE(soon([&] { return daemon.count(dictionary("large", true).description()) == 4; }));
  gate.set_value();
  EXPECT_TRUE(soon([&] { return daemon.count("Connection invalid") == 1; }));
  std::string line = "process " + std::to_string(::getpid()) + " is cut off: it does not read what it is sent";
  EXPECT_TRUE(log.has(LogLevel::Error, "default", line)) << log;
  expectServed();
  RawClient slow(path());
  slow.write(request(1, dictionary("large", true)));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(slow.reply().get("large")->kind(), Message::Kind::Plist);
}

TEST_F(MessageServices, CarryLargeMessages) {
  Daemon daemon(root, "test");
  RawClient client(path());
  Message large = dictionary("n", std::string(std::size_t{20} << 20, 'y'));
  EXPECT_EQ(client.ask(large), large);
}

TEST_F(MessageServices, TellHowAConnectionEnds) {
  Daemon daemon(root, "test");
  RawClient client(path());
  std::promise<void> gate;
  daemon.serviceQueue->async([&] { gate.get_future().wait(); });
  client.write(request(1, dictionary("n", 1)));
  client.endSending();
  EXPECT_TRUE(soon([&] { return daemon.count("Termination imminent") == 1; }));
  gate.set_value();
  EXPECT_EQ(client.reply(), dictionary("n", 1));
  EXPECT_EQ(daemon.contextsReleased, 0);
  client.close();
  EXPECT_TRUE(soon([&] { return daemon.contextsReleased == 1; }));

  RawClient cancelled(path());
  daemon.peer(1)->cancel();
  EXPECT_TRUE(cancelled.isClosed());
  EXPECT_TRUE(soon([&] { return daemon.contextsReleased == 2; }));
  EXPECT_EQ(daemon.count("Connection invalid"), 2u);
  EXPECT_EQ(daemon.events.back(), "Connection invalid");
}

// The client's end, with its events in order.
struct Client {
  Client(const std::shared_ptr<const DeviceRoot>& root, const std::string& name) {
    connection = makeMessageService(loop, root)->connect(name, queue);
    connection->setEventHandler([this](Message event) {
      std::lock_guard lock(mutex);
      events.push_back(event.as<Message::ErrorEvent>()->text);
    });
    connection->resume();
  }
  ~Client() {
    loop.reset();
    queue->sync([] {});
  }
  std::future<Message> send(const Message& message) const {
    auto reply = std::make_shared<std::promise<Message>>();
    connection->sendWithReply(message, queue, [reply](Message value) { reply->set_value(std::move(value)); });
    return reply->get_future();
  }
  bool hasEvents(const std::vector<std::string>& expected) {
    return soon([&] {
      std::lock_guard lock(mutex);
      return events == expected;
    });
  }
  std::mutex mutex;
  std::vector<std::string> events;
  std::shared_ptr<WorkQueue> queue = makeWorkQueues()->serial("client", WorkQueue::Order::Outer);
  std::shared_ptr<MessageConnection> connection;
  std::shared_ptr<EventLoop> loop = EventLoop::create();
};

const Message kInvalid = Message::error(ConnectionError::Invalid, "Connection invalid");
const Message kInterrupted = Message::error(ConnectionError::Interrupted, "Connection interrupted");

TEST_F(MessageServices, ClientsOutliveTheirDaemon) {
  Client client(root, "test");
  EXPECT_EQ(client.send(dictionary("n", 1)).get(), kInvalid);
  EXPECT_TRUE(client.hasEvents({"Connection invalid"}));
  {
    Daemon daemon(root, "test");
    EXPECT_EQ(client.send(dictionary("n", 2)).get(), dictionary("n", 2));
    EXPECT_EQ(client.connection->peerPid(), ::getpid());
    daemon.serviceQueue->async([] { std::this_thread::sleep_for(50ms); });
    auto pending = client.send(dictionary("n", 3));
    daemon.peer(0)->cancel();
    EXPECT_EQ(pending.get(), kInterrupted);
    EXPECT_TRUE(client.hasEvents({"Connection invalid", "Connection interrupted"}));
  }
  Daemon daemon(root, "test");
  EXPECT_EQ(client.send(dictionary("n", 4)).get(), dictionary("n", 4));
  client.connection->cancel();
  EXPECT_EQ(client.send(dictionary("n", 5)).get(), kInvalid);
  EXPECT_TRUE(client.hasEvents({"Connection invalid", "Connection interrupted", "Connection invalid"}));
}

TEST_F(MessageServices, TakeANameFromTheDeadOnly) {
  std::string reason;
  {
    Daemon daemon(root, "test");
    EXPECT_EQ(daemon.service(root)->listen("test", daemon.serviceQueue, &reason), nullptr);
    EXPECT_EQ(reason, "service name test is in use");
    struct stat socket {};
    ASSERT_EQ(::stat(path().c_str(), &socket), 0);
    EXPECT_EQ(socket.st_mode & 0777, 0666u);
    // What stays when a daemon is killed.
    ASSERT_EQ(::link(path().c_str(), path("stale").c_str()), 0);
  }
  Daemon next(root, "stale");
  RawClient client(path("stale"));
  EXPECT_EQ(client.ask(dictionary("n", 1)), dictionary("n", 1));
  for (std::string name : {"", ".", "..", ".test.lock", "a/b"}) {
    EXPECT_EQ(next.service(root)->listen(name, next.serviceQueue, &reason), nullptr) << name;
  }
  std::string longest(96, 'n');
  std::filesystem::create_directories(folder + "/" + std::string(100, 'd'));
  auto deep = std::make_shared<const DeviceRoot>(folder + "/" + std::string(100, 'd'));
  Daemon far(deep, longest);
  Client near(deep, longest);
  EXPECT_EQ(near.send(dictionary("n", 6)).get(), dictionary("n", 6));
  EXPECT_EQ(next.service(root)->listen(longest + "n", next.serviceQueue, &reason), nullptr);
}

// Runs `work` in a child process that has the connected socket, and waits for its end.
template <class Work>
void inChild(Work work) {
  pid_t child = ::fork();
  if (child == 0) {
    work();
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
}

TEST_F(MessageServices, KnowNobodyWhoIsNotWhoConnected) {
  Daemon daemon(root, "test");
  RawClient client(path());
  auto mine = std::dynamic_pointer_cast<PeerIdentity>(daemon.peer(0)->peerAuditToken());
  EXPECT_EQ(mine->pid(), ::getpid());
  EXPECT_EQ(mine->uid(), ::getuid());
  EXPECT_EQ(mine->executablePath(), std::filesystem::read_symlink("/proc/self/exe"));
  EXPECT_EQ(client.ask(dictionary("n", 1)), dictionary("n", 1));
  EXPECT_TRUE(mine->stillSame());
  inChild([&] { client.write(request(2, dictionary("n", 2))); });
  EXPECT_EQ(client.reply(), dictionary("n", 2));
  EXPECT_FALSE(mine->stillSame());

  // A process that executes something else after it connected, and then ends.
  std::array<int, 2> go{};
  ASSERT_EQ(::pipe(go.data()), 0);
  std::string target = path();
  pid_t child = ::fork();
  if (child == 0) {
    RawClient other(target);
    char byte;
    if (::read(go[0], &byte, 1) == 1) ::execl("/bin/sleep", "sleep", "20", nullptr);
    ::_exit(1);
  }
  auto theirs = std::dynamic_pointer_cast<PeerIdentity>(daemon.peer(1)->peerAuditToken());
  EXPECT_EQ(theirs->pid(), child);
  EXPECT_TRUE(theirs->stillSame());
  EXPECT_EQ(::write(go[1], "x", 1), 1);
  EXPECT_TRUE(soon([&] { return !theirs->stillSame(); }));
  auto sleeper = PeerIdentity::ofProcess(child);
  EXPECT_TRUE(sleeper->stillSame());
  ::kill(child, SIGKILL);
  EXPECT_TRUE(soon([&] { return !sleeper->stillSame(); }));
  ::waitpid(child, nullptr, 0);
  EXPECT_FALSE(PeerIdentity::ofProcess(child)->stillSame());
  ::close(go[0]);
  ::close(go[1]);
}

TEST_F(MessageServices, LookAwayWhileThereAreNoDescriptors) {
  Daemon daemon(root, "test");
  RawClient early(path());
  EXPECT_EQ(early.ask(dictionary("n", 1)), dictionary("n", 1));
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  rlimit used{static_cast<rlim_t>(UniqueFd(::dup(0)).get()), before.rlim_max};
  std::string target = path();
  ::setrlimit(RLIMIT_NOFILE, &used);
  pid_t child = ::fork();
  if (child == 0) {
    ::setrlimit(RLIMIT_NOFILE, &before);
    ::_exit(RawClient(target).ask(dictionary("n", 2)) == dictionary("n", 2) ? 0 : 1);
  }
  auto shortages = [&] {
    return log.count(LogLevel::Error, "default", "no client can be accepted for now: Too many open files");
  };
  EXPECT_TRUE(soon([&] { return shortages() > 0; }));
  std::this_thread::sleep_for(250ms);
  EXPECT_EQ(shortages(), 1u);
  EXPECT_EQ(early.ask(dictionary("n", 3)), dictionary("n", 3));
  ::setrlimit(RLIMIT_NOFILE, &before);
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
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
  EXPECT_EQ(budget->connections(), 3u);
}

TEST(FrameReaderTest, TakesMemoryForWhatArrivedOnly) {
  FrameReader reader;
  std::vector<char> scratch(4096);
  FrameHeader claimed{kMaxMessageBytes, FrameType::Message, 0};
  auto space = reader.space(scratch);
  std::memcpy(space.data(), claimed.encoded().data(), kFrameHeaderBytes);
  reader.arrived(kFrameHeaderBytes);
  FrameHeader header;
  SharedSlice payload;
  EXPECT_EQ(reader.next(&header, &payload), FrameReader::Next::More);
  EXPECT_LE(reader.space(scratch).size(), 64u * 1024);
}

TEST_F(MessageServices, MarkABusyProcess) {
  auto service = makeMessageService(EventLoop::create(), root);
  std::string file = folder + "/run/jobd/keepalive/" + std::to_string(::getpid());
  service->beginKeepAlive();
  service->beginKeepAlive();
  service->endKeepAlive();
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(service->keepAliveCount(), 1);
  service->endKeepAlive();
  EXPECT_FALSE(std::filesystem::exists(file));
}

}  // namespace
}  // namespace platform
