#include "platform/linux/queues/WorkQueue.h"

#include <cstdlib>
#include <exception>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/queues/WorkQueuePool.h"

namespace platform {
namespace {

// The queues that a thread is on, innermost first.
struct Held {
  const SerialQueue* queue;
  Held* outer;
};
constinit thread_local Held* innermost = nullptr;
constinit thread_local QueueRunner* runnerHere = nullptr;

std::string heldText() {
  std::string text;
  for (const Held* held = innermost; held != nullptr; held = held->outer) {
    text += text.empty() ? "on queue \"" : ", inside queue \"";
    text.append(held->queue->label()) += '"';
  }
  return text.empty() ? "on no queue" : text;
}

[[noreturn]] void stopProcess(std::string_view label, const char* wrong) {
  VK_LOG(defaultLog(), Fault, "queue \"%{public}s\" %{public}s; the caller is %{public}s", label, wrong, heldText());
  std::abort();
}

void runLogged(std::string_view label, const std::function<void()>& item) {
  try {
    item();
  } catch (const std::exception& error) {
    VK_LOG(defaultLog(), Fault, "exception on queue \"%{public}s\": %{public}s", label, error.what());
  } catch (...) {
    VK_LOG(defaultLog(), Fault, "exception of unknown type on queue \"%{public}s\"", label);
  }
}

class LinuxWorkQueues final : public WorkQueueFactory {
 public:
  std::shared_ptr<WorkQueue> serial(std::string label, WorkQueue::Order order, WorkQueue::QoS qos) override {
    return std::make_shared<SerialQueue>(std::move(label), order, qos, pool_);
  }

 private:
  const std::shared_ptr<WorkQueuePool> pool_ = std::make_shared<WorkQueuePool>();
};

}  // namespace

void WorkQueue::assertCurrent() const {
  if (!isCurrent()) [[unlikely]]
    stopProcess(label(), "is where this work belongs");
}

QueueRunner::Scope::Scope(QueueRunner* runner) { runnerHere = runner; }
QueueRunner::Scope::~Scope() { runnerHere = nullptr; }

// Notes that this thread is on the queue, as long as it lives.
class SerialQueue::Turn {
 public:
  explicit Turn(const SerialQueue* queue) : held_{queue, innermost} { innermost = &held_; }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() { innermost = held_.outer; }

 private:
  Held held_;
};

SerialQueue::SerialQueue(std::string label, Order order, QoS qos, std::shared_ptr<WorkQueuePool> pool)
    : label_(std::move(label)), order_(order), qos_(qos), pool_(std::move(pool)) {}

bool SerialQueue::isCurrent() const {
  for (const Held* held = innermost; held != nullptr; held = held->outer) {
    if (held->queue == this) return true;
  }
  return false;
}

void SerialQueue::async(std::function<void()> item) {
  {
    std::lock_guard lock(mutex_);
    items_.push_back({std::move(item), nullptr});
    if (state_ != State::Idle) return;
    state_ = State::Scheduled;
  }
  schedule();
}

void SerialQueue::schedule() {
  if (runnerHere != nullptr) {
    runnerHere->runSoon(shared_from_this());
  } else {
    runElsewhere();
  }
}

void SerialQueue::runElsewhere() { pool_->run(shared_from_this(), qos_ == QoS::UserInitiated); }

void SerialQueue::checkOrder() const {
  if (innermost == nullptr) [[likely]]
    return;
  if (isCurrent()) stopProcess(label_, "is entered from itself");
  if (innermost->queue->order() == Order::Leaf) stopProcess(label_, "is entered from a leaf queue");
  if (order_ == Order::Outer) stopProcess(label_, "is entered from another outer queue");
}

void SerialQueue::enter(void (*item)(void*), void* context) {
  checkOrder();
  {
    std::unique_lock lock(mutex_);
    if (state_ == State::Idle) {
      state_ = State::Running;
    } else {
      waitForTurn(lock);
    }
  }
  struct PassOn {
    SerialQueue* queue;
    ~PassOn() { queue->passOn(); }
  } passOn{this};
  Turn turn(this);
  item(context);
}

void SerialQueue::waitForTurn(std::unique_lock<std::mutex>& lock) {
  Waiter waiter;
  items_.push_back({nullptr, &waiter});
  // The runner that knows of the queue may be this very thread, or one that waits for it.
  if (state_ == State::Scheduled) runElsewhere();
  waiter.turnCame.wait(lock, [&] { return waiter.hasTurn; });
}

// The end of a synchronous turn. Asynchronous work is not done here: the caller has no part in it.
void SerialQueue::passOn() {
  {
    std::lock_guard lock(mutex_);
    if (items_.empty()) {
      state_ = State::Idle;
      return;
    }
    if (Waiter* next = items_.front().waiter) {
      items_.pop_front();
      next->hasTurn = true;
      next->turnCame.notify_one();  // under the lock: the waiter is gone right after it
      return;
    }
    state_ = State::Scheduled;
  }
  schedule();
}

// Gives the next asynchronous item to a thread that found the queue in this state. False when the queue is not, or no
// longer, this thread's.
bool SerialQueue::takeNext(State found, std::function<void()>& item) {
  std::lock_guard lock(mutex_);
  if (state_ != found) return false;
  state_ = State::Running;
  if (items_.empty()) {
    state_ = State::Idle;
    return false;
  }
  Item next = std::move(items_.front());
  items_.pop_front();
  if (next.waiter != nullptr) {
    next.waiter->hasTurn = true;
    next.waiter->turnCame.notify_one();
    return false;
  }
  item = std::move(next.run);
  return true;
}

void SerialQueue::drain() {
  Turn turn(this);
  std::function<void()> item;
  for (State found = State::Scheduled; takeNext(found, item); found = State::Running) {
    runLogged(label_, item);
    item = nullptr;  // what it holds is let go on the queue, and before the next one runs
  }
}

std::shared_ptr<WorkQueueFactory> makeWorkQueues() { return std::make_shared<LinuxWorkQueues>(); }

}  // namespace platform
