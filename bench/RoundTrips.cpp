#include <condition_variable>
#include <mutex>
#include <thread>

#include "Vornik/VKDaemonClient.h"
#include "bench/DaemonProcess.h"
#include "bench/Limits.h"
#include "bench/Roads.h"
#include "bench/SampleRoot.h"
#include "bench/WireClient.h"

namespace bench {

namespace {

constexpr int kRounds = 15;
constexpr std::size_t kCalls = 2000;
constexpr std::size_t kClients = 8;
constexpr std::size_t kInFlight = 16;
constexpr int kPinnedCpu = 0;
constexpr std::size_t kReplySize = 16 + 9;  // a frame with an empty dictionary

void append(std::vector<double>& all, std::vector<double> more) { all.insert(all.end(), more.begin(), more.end()); }

// A round trip through the client library, from the request to the end of its reply block.
class LibraryClient {
 public:
  LibraryClient() : client_(Vornik::VKDaemonClient::initWithServiceName()) {}
  void call() {
    bool done = false;
    client_->bulkPluginsReply(0, [&](const platform::Message&) {
      std::lock_guard lock(mutex_);
      seconds_ = watch_.seconds();
      done = true;
      answered_.notify_one();
    });
    std::unique_lock lock(mutex_);
    answered_.wait(lock, [&] { return done; });
  }
  // The time to the reply block alone: what comes after it is this program waking itself.
  std::vector<double> run(std::size_t calls) {
    std::vector<double> result;
    result.reserve(calls);
    for (std::size_t i = 0; i < calls; ++i) {
      watch_ = Stopwatch();
      call();
      result.push_back(seconds_);
    }
    return result;
  }

 private:
  std::shared_ptr<Vornik::VKDaemonClient> client_;
  std::mutex mutex_;
  std::condition_variable answered_;
  Stopwatch watch_;
  double seconds_ = 0;
};

void measureOneClient(Table& table, const std::string& root, const std::string& frame, bool pinned) {
  int cpu = pinned ? kPinnedCpu : -1;
  DaemonProcess daemon(root, cpu);
  EchoServer echo(EchoServer::Kind::ThreadPerSocket, 1, frame.size(), kReplySize, cpu);
  pinSelf(cpu);
  WireClient wire(root);
  LibraryClient library;
  std::vector<char> reply;
  auto wireCall = [&] {
    wire.send(frame);
    wire.receiveInto(reply);
  };
  wireCall();
  library.call();
  std::vector<double> limits;
  std::vector<double> wires;
  std::vector<double> libraries;
  for (int round = 0; round < kRounds; ++round) {
    append(limits, samples(kCalls, [&] { echo.roundTrip(0); }));
    append(wires, samples(kCalls, wireCall));
    append(libraries, library.run(kCalls));
  }
  pinSelf(-1);
  const char* limit = pinned ? "ping-pong on one core" : "bare ping-pong";
  std::string where = pinned ? ", all on one core" : "";
  table.add({"\"bulk\" round trip" + where, limit, median(wires), median(limits), pinned ? 1.6 : 2.0});
  if (!pinned) {
    table.add({"its 99th percentile", "the limit's", percentile(wires, 0.99), percentile(limits, 0.99), 3.0});
  }
  table.add({"through VKDaemonClient" + where, limit, median(libraries), median(limits), pinned ? 2.5 : 3.5});
}

// Seconds for every client to make `calls` calls, `inFlight` at a time.
double runClients(std::size_t calls, std::size_t inFlight, const std::function<void(std::size_t)>& send,
                  const std::function<void(std::size_t)>& receive) {
  Stopwatch watch;
  std::vector<std::thread> threads;
  threads.reserve(kClients);
  for (std::size_t client = 0; client < kClients; ++client) {
    threads.emplace_back([&, client] {
      for (std::size_t i = 0; i < inFlight; ++i) send(client);
      for (std::size_t i = inFlight; i < calls; ++i) {
        receive(client);
        send(client);
      }
      for (std::size_t i = 0; i < inFlight; ++i) receive(client);
    });
  }
  for (std::thread& thread : threads) thread.join();
  return watch.seconds();
}

double runEcho(EchoServer& echo, std::size_t calls, std::size_t inFlight, const std::string& frame) {
  return runClients(
      calls, inFlight, [&](std::size_t client) { writeAll(echo.socket(client), frame.data(), frame.size()); },
      [&](std::size_t client) {
        char reply[kReplySize];
        readAll(echo.socket(client), reply, sizeof reply);
      });
}

void measureManyClients(Table& table, const std::string& root, const std::string& frame) {
  constexpr std::size_t calls = 3000;
  DaemonProcess daemon(root);
  EchoServer pairs(EchoServer::Kind::ThreadPerSocket, kClients, frame.size(), kReplySize);
  EchoServer loop(EchoServer::Kind::EpollInline, kClients, frame.size(), kReplySize);
  std::vector<std::unique_ptr<WireClient>> clients;
  for (std::size_t i = 0; i < kClients; ++i) clients.push_back(std::make_unique<WireClient>(root));
  auto send = [&](std::size_t client) { clients[client]->send(frame); };
  auto receive = [&](std::size_t client) {
    thread_local std::vector<char> reply;
    clients[client]->receiveInto(reply);
  };
  std::vector<double> one;
  std::vector<double> oneLimit;
  std::vector<double> many;
  std::vector<double> manyLimit;
  for (int round = 0; round < kRounds; ++round) {
    oneLimit.push_back(runEcho(pairs, calls, 1, frame));
    one.push_back(runClients(calls, 1, send, receive));
    manyLimit.push_back(runEcho(loop, calls, kInFlight, frame));
    many.push_back(runClients(calls, kInFlight, send, receive));
  }
  constexpr double total = static_cast<double>(calls * kClients);
  table.add({"8 clients, one request in flight each", "8 ping-pong pairs", median(one) / total,
             median(oneLimit) / total, 2.5});
  table.add({"8 clients, 16 in flight each, requests a second", "epoll loop answering inline", total / median(many),
             total / median(manyLimit), 1.0 / 3, true});
}

}  // namespace

void measureRoundTrips(Table& table) {
  SampleRoot root;
  ::setenv("VANTREL_ROOT", root.path().c_str(), 1);
  std::string frame = WireClient::frame(WireClient::request("bulk"));
  measureOneClient(table, root.path(), frame, false);
  measureOneClient(table, root.path(), frame, true);
  measureManyClients(table, root.path(), frame);
}

}  // namespace bench
