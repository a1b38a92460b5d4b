// Work queues for tests on one thread: sync() runs its item at once, async() keeps it until the test drains the queue.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "platform/WorkQueue.h"

namespace support {

class InlineQueue : public platform::WorkQueue {
 public:
  explicit InlineQueue(std::string label) : label_(std::move(label)) {}

  void async(std::function<void()> item) override { waiting_.push_back(std::move(item)); }
  bool isCurrent() const override { return depth_ > 0; }
  std::string_view label() const override { return label_; }
  // Runs what waits, and what that hands in, in order.
  void drain() {
    while (!waiting_.empty()) {
      auto item = std::move(waiting_.front());
      waiting_.pop_front();
      sync(item);
    }
  }
  // How often it was entered.
  int entries() const { return entries_; }

 protected:
  void enter(void (*item)(void*), void* context) override {
    if (depth_ > 0) throw std::logic_error("entered from itself: " + label_);
    struct Scope {
      int& depth;
      ~Scope() { --depth; }
    } scope{depth_};
    ++depth_;
    ++entries_;
    item(context);
  }

 private:
  std::string label_;
  std::deque<std::function<void()>> waiting_;
  int depth_ = 0, entries_ = 0;
};

// Knows its queues by label.
class InlineQueues : public platform::WorkQueueFactory {
 public:
  std::shared_ptr<platform::WorkQueue> serial(std::string label, platform::WorkQueue::Order,
                                              platform::WorkQueue::QoS) override {
    return queues_[label] = std::make_shared<InlineQueue>(label);
  }
  InlineQueue& named(const std::string& label) const { return *queues_.at(label); }

 private:
  std::map<std::string, std::shared_ptr<InlineQueue>> queues_;
};

}  // namespace support
