// The serial queues of this machine.
//
// A queue has no thread of its own. Who runs its work:
//
//   sync, queue free          the caller, at once
//   sync, queue busy          the caller, when everything before it is done
//   async in a delivery       the thread that delivers, after the deliveries of this round (see EventLoop.h)
//   async from elsewhere      a thread of the pool
//   async, queue running      whoever runs it
//
// so that a short piece of work never has to wake a sleeping core, which costs many times what the work does.
//
// Checked in every build, at the cost of walking the few queues a thread holds: a queue is not entered from itself, an
// outer queue not from an outer one, and nothing from a leaf.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/WorkQueue.h"

namespace platform {

class SerialQueue;
class WorkQueuePool;

// A thread that runs the queues which get work while it is inside a Scope.
class QueueRunner {
 public:
  virtual ~QueueRunner() = default;
  // The queue has work and nobody who runs it: drain() it soon.
  virtual void runSoon(std::shared_ptr<SerialQueue> queue) = 0;

  // While one lives, the calling thread's queues go to `runner`. Scopes do not nest.
  class Scope {
   public:
    explicit Scope(QueueRunner* runner);
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope();
  };
};

class SerialQueue final : public WorkQueue, public std::enable_shared_from_this<SerialQueue> {
 public:
  SerialQueue(std::string label, Order order, QoS qos, std::shared_ptr<WorkQueuePool> pool);

  void async(std::function<void()> item) override;
  bool isCurrent() const override;
  std::string_view label() const override { return label_; }
  Order order() const { return order_; }

  // Runs everything that waits, unless somebody else does already; returns early when a synchronous caller's turn has
  // come, who then sees to the rest. An exception that an item lets escape is logged and ends only that item.
  void drain();
  // Has a thread of the pool drain().
  void runElsewhere();

 protected:
  void enter(void (*item)(void*), void* context) override;

 private:
  // Somebody who waits in enter(); lives on that thread's stack.
  struct Waiter {
    std::condition_variable turnCame;
    bool hasTurn = false;
  };
  struct Item {
    std::function<void()> run;  // or
    Waiter* waiter = nullptr;
  };
  // Idle: nothing waits, nobody runs. Scheduled: something waits, a runner knows. Running: somebody runs.
  enum class State { Idle, Scheduled, Running };
  class Turn;

  void checkOrder() const;
  void waitForTurn(std::unique_lock<std::mutex>& lock);
  void schedule();
  void passOn();
  bool takeNext(State found, std::function<void()>& item);

  const std::string label_;
  const Order order_;
  const QoS qos_;
  const std::shared_ptr<WorkQueuePool> pool_;
  std::mutex mutex_;
  // Guarded by mutex_.
  State state_ = State::Idle;
  std::deque<Item> items_;
};

// The factory of this machine.
std::shared_ptr<WorkQueueFactory> makeWorkQueues();

}  // namespace platform
