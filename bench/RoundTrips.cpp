#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
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

constexpr int kRounds = 40;
constexpr std::size_t kCalls = 1000;
constexpr int kManyRounds = 15;
constexpr std::size_t kClients = 8;
constexpr std::size_t kInFlight = 16;
constexpr std::size_t kReplySize = 16 + 9;  // a frame with an empty dictionary

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

// What `measure` answers in a process of its own. A scheduler that once put a client and one of its servers on one core
// keeps them there, and the client's other server on the other; a fresh process begins without such a history.
std::vector<double> inFreshProcess(const std::function<std::vector<double>()>& measure) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
  pid_t pid = ::fork();
  if (pid == 0) {
    std::vector<double> measured = measure();
    writeAll(ends[1], measured.data(), measured.size() * sizeof(double));
    ::_exit(0);
  }
  ::close(ends[1]);
  std::vector<double> result(kCalls);
  readAll(ends[0], result.data(), result.size() * sizeof(double));
  ::close(ends[0]);
  ::waitpid(pid, nullptr, 0);
  return result;
}

// A row of round trips, round by round. On free cores a round has one of two values, both sides on one core or a core
// woken for each message, so that the middle of all would be the one or the other by luck: the mean of the rounds
// counts.
struct RoundTripTimes {
  void add(std::vector<double> round) {
    medians += median(round) / kRounds;
    all.insert(all.end(), round.begin(), round.end());
  }
  double medians = 0;
  std::vector<double> all;
};

// Where the two sides run, and what is expected of the daemon then. -1: wherever the kernel likes.
struct Placement {
  const char* name;
  int clientCpu, serverCpu;
  double wireTarget, libraryTarget;
};
constexpr Placement kPlacements[] = {
    {"", -1, -1, 2.0, 3.5}, {", on two cores", 0, 1, 2.0, 3.5}, {", all on one core", 0, 0, 1.6, 2.5}};

void measureOneClient(Table& table, const std::string& root, const std::string& frame, const Placement& placement) {
  DaemonProcess daemon(root, placement.serverCpu);
  const auto round = [&](const std::function<std::vector<double>()>& run) {
    return inFreshProcess([&] {
      pinSelf(placement.clientCpu);
      return run();
    });
  };
  const auto bareCalls = [&] {
    EchoServer echo(EchoServer::Kind::ThreadPerSocket, 1, frame.size(), kReplySize, placement.serverCpu);
    echo.roundTrip(0);
    return samples(kCalls, [&] { echo.roundTrip(0); });
  };
  const auto wireCalls = [&] {
    WireClient wire(root);
    std::vector<char> reply;
    const auto call = [&] {
      wire.send(frame);
      wire.receiveInto(reply);
    };
    call();
    return samples(kCalls, call);
  };
  const auto libraryCalls = [] {
    LibraryClient library;
    library.call();
    return library.run(kCalls);
  };
  RoundTripTimes limits, wires, libraries;
  for (int i = 0; i < kRounds; ++i) {
    limits.add(round(bareCalls));
    wires.add(round(wireCalls));
    libraries.add(round(libraryCalls));
  }
  const std::string limit = std::string("bare ping-pong") + placement.name;
  table.add({std::string("\"bulk\" round trip") + placement.name, limit, wires.medians, limits.medians,
             placement.wireTarget});
  table.add({"its 99th percentile", "the limit's", percentile(wires.all, 0.99), percentile(limits.all, 0.99), 3.0});
  table.add({std::string("through VKDaemonClient") + placement.name, limit, libraries.medians, limits.medians,
             placement.libraryTarget});
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
  for (int round = 0; round < kManyRounds; ++round) {
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
  for (const Placement& placement : kPlacements) measureOneClient(table, root.path(), frame, placement);
  measureManyClients(table, root.path(), frame);
}

}  // namespace bench
