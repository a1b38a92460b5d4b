#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/linux/queues/EventLoop.h"
#include "platform/linux/queues/WorkQueue.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/ChildProgram.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using Order = WorkQueue::Order;

// Long enough on a machine that is busy with other things; nothing waits for it unless something is wrong.
constexpr auto kPatience = 20s;

struct WorkQueues : testing::Test {
  std::shared_ptr<WorkQueue> outer(const char* label) { return queues->serial(label, Order::Outer); }
  std::shared_ptr<WorkQueue> leaf(const char* label) { return queues->serial(label, Order::Leaf); }
  static bool isKept(std::promise<void>& promise) {
    return promise.get_future().wait_for(kPatience) == std::future_status::ready;
  }
  std::shared_ptr<WorkQueueFactory> queues = makeWorkQueues();
};

TEST_F(WorkQueues, RunOneItemAtATimeInTheOrderOfEachCaller) {
  auto queue = outer("busy");
  constexpr std::size_t kThreads = 4;
  constexpr int kItems = 2000;
  std::array<int, kThreads> next{};  // guarded by the queue
  int inside = 0;
  int wrong = 0;
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int number = 0; number < kItems; ++number) {
        auto item = [&, thread, number] {
          wrong += ++inside != 1 || next[thread]++ != number;
          --inside;
        };
        if ((static_cast<std::size_t>(number) * 7 + thread) % 3 == 0) {
          queue->sync(item);
        } else {
          queue->async(item);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(queue->sync([&] { return next; }), (std::array<int, kThreads>{kItems, kItems, kItems, kItems}));
  EXPECT_EQ(wrong, 0);
}

TEST_F(WorkQueues, SyncRunsOnTheCallerAfterWhatWaits) {
  auto queue = outer("turns");
  EXPECT_EQ(queue->sync([] { return std::this_thread::get_id(); }), std::this_thread::get_id());
  std::promise<void> gate;
  std::string order;
  queue->async([&] { isKept(gate); });
  queue->async([&] { order += 'b'; });
  std::thread other([&] { queue->sync([&] { order += 'c'; }); });
  std::this_thread::sleep_for(20ms);  // most likely enough for the other thread to be in line
  gate.set_value();
  other.join();
  queue->async([&] { order += 'd'; });
  EXPECT_EQ(queue->sync([&] { return order; }), "bcd");
}

TEST_F(WorkQueues, SurviveExceptions) {
  support::CapturedLog log;
  auto queue = outer("brave");
  EXPECT_THROW(queue->sync([] { throw std::runtime_error("mine"); }), std::runtime_error);
  queue->async([] { throw std::runtime_error("escaped"); });
  EXPECT_EQ(queue->sync([] { return 7; }), 7);
  EXPECT_TRUE(log.has(LogLevel::Fault, "default", "exception on queue \"brave\": escaped")) << log;
}

TEST_F(WorkQueues, StopTheProcessOnAWrongOrder) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto service = outer("service");
  auto holds = leaf("holds");
  service->sync([&] { holds->sync([&] { service->assertCurrent(); }); });  // both are held
  EXPECT_DEATH(service->sync([&] { service->sync([] {}); }), "queue \"service\" is entered from itself");
  EXPECT_DEATH(holds->sync([&] { service->sync([] {}); }),
               "entered from a leaf queue; the caller is on queue \"holds\"");
  EXPECT_DEATH(service->sync([&] { outer("zyp")->sync([] {}); }), "queue \"zyp\" is entered from another outer queue");
  EXPECT_DEATH(holds->sync([&] { service->assertCurrent(); }), "queue \"service\" is where this work belongs");
}

// Delivers one event for each signal().
class Signal : public EventSource {
 public:
  explicit Signal(std::function<void()> handler) : handler_(std::move(handler)) {}
  static std::shared_ptr<Signal> on(const RunningLoop& running, std::function<void()> handler) {
    auto signal = std::make_shared<Signal>(std::move(handler));
    signal->loop_ = running.loop();
    EXPECT_NE(signal->loop_->watch(signal->fd_.get(), EPOLLIN, signal), 0U);
    return signal;
  }
  void signal() { EXPECT_EQ(::eventfd_write(fd_.get(), 1), 0); }
  void ready(std::uint32_t) override {
    eventfd_t count = 0;
    if (::eventfd_read(fd_.get(), &count) == 0) handler_();
  }

 private:
  std::shared_ptr<EventLoop> loop_;
  std::function<void()> handler_;
  UniqueFd fd_{::eventfd(0, EFD_NONBLOCK | EFD_SEMAPHORE | EFD_CLOEXEC)};
};

struct Loop : WorkQueues {
  RunningLoop loop;
};

TEST_F(Loop, DoesTheWorkOfADeliveryOnItsOwnThreadAfterIt) {
  auto queue = outer("service");
  std::atomic<int> early = 0;
  std::atomic<int> mine = 0;
  std::atomic<int> done = 0;
  std::atomic<bool> returned = false;
  auto source = Signal::on(loop, [&] {
    returned = false;
    queue->async([&, delivering = std::this_thread::get_id()] {
      early += !returned;
      mine += std::this_thread::get_id() == delivering;
      ++done;
    });
    returned = true;
  });
  // On a busy machine a round may last so long that the lead is lost, but not each time.
  for (int i = 1; i <= 50; ++i) {
    source->signal();
    while (done < i) std::this_thread::sleep_for(100us);
  }
  EXPECT_LT(early, 5);
  EXPECT_GT(mine, 25);
}

// The work of the first event waits for that of the later ones: for another event, for a queue that was to be drained
// behind it, and for one that it enters itself while the thread that was to drain it is this one.
TEST_F(Loop, IsNotHeldUpByLongWork) {
  auto service = outer("service");
  auto other = outer("other");
  auto holds = leaf("holds");
  std::promise<void> delivered;
  std::promise<void> drained;
  std::promise<void> done;
  int entered = 0;
  auto later = Signal::on(loop, [&] { delivered.set_value(); });
  auto first = Signal::on(loop, [&] {
    service->async([&] {
      later->signal();
      EXPECT_TRUE(isKept(delivered) && isKept(drained));
      holds->sync([&] { ++entered; });
      done.set_value();
    });
    other->async([&] { drained.set_value(); });
    holds->async([&] { ++entered; });
    holds->sync([&] { ++entered; });
  });
  first->signal();
  ASSERT_TRUE(isKept(done));
  EXPECT_EQ(entered, 3);
}

TEST_F(Loop, KeepsServingWhileTheLeadChangesHands) {
  auto service = outer("service");
  std::atomic<int> handled = 0;
  std::vector<std::shared_ptr<Signal>> sources;
  for (int i = 0; i < 3; ++i) {
    sources.push_back(Signal::on(loop, [&] {
      service->async([&] {
        if (handled % 50 == 0) std::this_thread::sleep_for(3ms);  // loses the lead
        ++handled;
      });
    }));
  }
  for (int round = 0; round < 300; ++round) {
    for (auto& source : sources) source->signal();
    if (round % 100 == 0) std::this_thread::sleep_for(30ms);  // the standby falls asleep
  }
  EXPECT_TRUE(support::eventually([&] { return handled == 900; })) << handled;
}

TEST_F(Loop, EndsWhereverItsLastOwnerLetsGo) {
  std::promise<void> released;
  auto* owner = new RunningLoop(std::move(loop));
  auto source = Signal::on(*owner, [&] {
    delete owner;
    released.set_value();
  });
  source->signal();
  EXPECT_TRUE(isKept(released));
}

}  // namespace
}  // namespace platform
