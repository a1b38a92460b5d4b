// What the IPC layer adds to a socket: a request and its reply of some hundred bytes, through listener, connection and
// a serial queue, beside the same bytes between two threads and a bare socket pair. Compare rows of one run:
//
//   RoundTripBench --benchmark_enable_random_interleaving=true --benchmark_repetitions=9
//                  --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/messages/MessageFrame.h"
#include "platform/linux/messages/MessageService.h"
#include "platform/linux/messages/MessageServiceSocket.h"

namespace platform {
namespace {

Message sampleRequest() {
  Message request = Message::dictionary();
  request.set("request", "bulk");
  request.set("version", std::uint64_t{3});
  request.set("flags", std::uint64_t{1});
  return request;
}

std::string sampleFrame() {
  Rope payload = encodeMessage(sampleRequest());
  auto header = FrameHeader{static_cast<std::uint32_t>(payload.size()), FrameType::Request, 1}.encoded();
  return std::string(header.data(), header.size()).append(payload.flat().view());
}

// One blocking write, then reads until `size` bytes have come.
void exchange(int fd, const std::string& request, std::size_t size) {
  std::array<char, 4096> buffer;
  if (::write(fd, request.data(), request.size()) < 0) throw std::runtime_error("write");
  for (std::size_t got = 0; got < size;) {
    ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count <= 0) throw std::runtime_error("read");
    got += static_cast<std::size_t>(count);
  }
}

void BareSocket(benchmark::State& state) {
  std::array<int, 2> pair{};
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) != 0) throw std::runtime_error("socketpair");
  UniqueFd near(pair[0]);
  std::thread echo([fd = pair[1]] {
    std::array<char, 4096> buffer;
    for (ssize_t count; (count = ::read(fd, buffer.data(), buffer.size())) > 0;) {
      if (::write(fd, buffer.data(), static_cast<std::size_t>(count)) < 0) break;
    }
    ::close(fd);
  });
  std::string request = sampleFrame();
  for (auto _ : state) exchange(near.get(), request, request.size());
  near.reset();
  echo.join();
}
BENCHMARK(BareSocket)->MeasureProcessCPUTime()->UseRealTime();

// A service that answers each request with the same entries, on its queue.
struct EchoService {
  EchoService() {
    std::string pattern = std::filesystem::temp_directory_path() / "round-trip-XXXXXX";
    folder = ::mkdtemp(pattern.data());
    root = std::make_shared<const DeviceRoot>(folder);
    messages = makeMessageService(RunningLoop(), root);
    DomainError error;
    listener = messages->listen("echo", queues->serial("zyp", WorkQueue::Order::Outer), &error);
    if (listener == nullptr) throw std::runtime_error(error.localizedDescription());
    listener->setConnectionHandler([this](const std::shared_ptr<PeerConnection>& peer) {
      peer->setEventHandler([this, weak = std::weak_ptr(peer)](Message event) {
        if (event.isError()) return;
        service->async([weak, event = std::move(event)] {
          Message reply = Message::createReply(event);
          for (const auto& [key, value] : *event.as<Message::Dictionary>()) reply.set(key, value);
          if (auto connection = weak.lock()) connection->send(reply);
        });
      });
      peer->resume();
    });
    if (auto refused = listener->resume()) throw std::runtime_error(refused->localizedDescription());
  }
  ~EchoService() {
    listener.reset();
    std::filesystem::remove_all(folder);
  }

  std::string folder;
  std::shared_ptr<const DeviceRoot> root;
  std::shared_ptr<WorkQueueFactory> queues = makeWorkQueues();
  std::shared_ptr<WorkQueue> service = queues->serial("service", WorkQueue::Order::Outer);
  std::shared_ptr<LinuxMessageService> messages;
  std::shared_ptr<MessageListener> listener;
};

void BlockingClient(benchmark::State& state) {
  EchoService service;
  UniqueFd client = connectToService(*service.root, "echo");
  std::string request = sampleFrame();
  for (auto _ : state) exchange(client.get(), request, request.size());
}
BENCHMARK(BlockingClient)->MeasureProcessCPUTime()->UseRealTime();

// The client library's way: each request is sent from the reply handler of the one before.
void LibraryClient(benchmark::State& state) {
  EchoService service;
  auto messages = makeMessageService(RunningLoop(), service.root);
  auto queue = service.queues->serial("client", WorkQueue::Order::Outer);
  auto connection = messages->connect("echo", queue);
  connection->setEventHandler([](Message) {});
  connection->resume();
  Message request = sampleRequest();
  constexpr int kRequestsPerRound = 100;
  std::promise<void> done;
  int left = 0;
  std::function<void(Message)> next = [&](Message) {
    if (left-- == 0) return done.set_value();
    connection->sendWithReply(request, queue, next);
  };
  for (auto _ : state) {
    done = {};
    left = kRequestsPerRound;
    next({});
    done.get_future().wait();
  }
  state.SetItemsProcessed(state.iterations() * kRequestsPerRound);
  state.counters["per_request"] = benchmark::Counter(static_cast<double>(state.iterations()) * kRequestsPerRound,
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(LibraryClient)->MeasureProcessCPUTime()->UseRealTime();

void EnterFreeQueue(benchmark::State& state) {
  auto queue = makeWorkQueues()->serial("free", WorkQueue::Order::Leaf);
  int value = 0;
  for (auto _ : state) benchmark::DoNotOptimize(queue->sync([&] { return ++value; }));
}
BENCHMARK(EnterFreeQueue);

}  // namespace
}  // namespace platform
