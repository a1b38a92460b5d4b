// A work queue for tests, without threads: sync() runs its item at once, async() keeps it until the test drains the
// queue. For one thread.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "platform/WorkQueue.h"

namespace support {

class InlineQueue : public platform::WorkQueue {
 public:
  explicit InlineQueue(std::string label, Order rank = Order::Outer, QoS quality = QoS::Default)
      : order(rank), qos(quality), label_(std::move(label)) {}

  void async(std::function<void()> item) override { pending_.push_back(std::move(item)); }
  bool isCurrent() const override { return depth_ > 0; }
  std::string_view label() const override { return label_; }

  std::size_t pendingCount() const { return pending_.size(); }
  // Runs what waits, and what that hands in, in order; answers how many items ran.
  std::size_t drain() {
    std::size_t count = 0;
    for (; !pending_.empty(); ++count) {
      auto item = std::move(pending_.front());
      pending_.pop_front();
      Inside inside(depth_);
      item();
    }
    return count;
  }

  const Order order;
  const QoS qos;

 protected:
  void enter(void (*item)(void*), void* context) override {
    EXPECT_EQ(depth_, 0) << "queue " << label_ << " is entered from itself";
    Inside inside(depth_);
    item(context);
  }

 private:
  struct Inside {
    explicit Inside(int& value) : depth(value) { ++depth; }
    ~Inside() { --depth; }
    int& depth;
  };
  std::string label_;
  std::deque<std::function<void()>> pending_;
  int depth_ = 0;
};

// Makes inline queues and knows them by label.
class InlineQueues : public platform::WorkQueueFactory {
 public:
  std::shared_ptr<platform::WorkQueue> serial(std::string label, platform::WorkQueue::Order order,
                                              platform::WorkQueue::QoS qos) override {
    auto queue = std::make_shared<InlineQueue>(label, order, qos);
    queues_[std::move(label)] = queue;
    return queue;
  }

  // The latest queue of that label, null when there is none.
  std::shared_ptr<InlineQueue> named(const std::string& label) const {
    auto at = queues_.find(label);
    return at != queues_.end() ? at->second : nullptr;
  }
  // Until no queue has anything left.
  void drainAll() {
    for (bool again = true; again;) {
      again = false;
      for (const auto& [label, queue] : std::map(queues_)) again = queue->drain() > 0 || again;
    }
  }

 private:
  std::map<std::string, std::shared_ptr<InlineQueue>> queues_;
};

}  // namespace support
