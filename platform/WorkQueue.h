// A serial queue: work items run one at a time, in the order in which they were handed in.
//
// async() runs its item later; sync() runs it on the caller's thread, at once when the queue is free, else when its
// turn has come. A queue that is only entered synchronously costs no thread. Entering a queue from itself, entering
// another one from a leaf, and assertCurrent() elsewhere are programming errors: they say which queue and stop the
// process.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace platform {

class WorkQueue {
 public:
  enum class QoS { Default, UserInitiated };
  // What may be entered synchronously from work on the queue: an outer queue may enter leaves, a leaf nothing.
  enum class Order { Outer, Leaf };

  virtual ~WorkQueue() = default;

  virtual void async(std::function<void()> item) = 0;

  // Runs `item` and answers what it answers. Its exceptions reach the caller.
  template <class Item>
  auto sync(Item&& item) -> std::invoke_result_t<Item&> {
    using Result = std::invoke_result_t<Item&>;
    if constexpr (std::is_void_v<Result>) {
      enter([](void* context) { (*static_cast<std::remove_reference_t<Item>*>(context))(); }, &item);
    } else {
      struct Frame {
        std::remove_reference_t<Item>* item;
        std::optional<Result> result;
      } frame{&item, std::nullopt};
      enter(
          [](void* context) {
            auto* f = static_cast<Frame*>(context);
            f->result.emplace((*f->item)());
          },
          &frame);
      return std::move(*frame.result);
    }
  }

  virtual bool isCurrent() const = 0;
  // Stops the process with the queue's label unless the caller runs on this queue.
  void assertCurrent() const;
  virtual std::string_view label() const = 0;

 protected:
  virtual void enter(void (*item)(void*), void* context) = 0;
};

// Where queues come from: the machine's, or a test's.
class WorkQueueFactory {
 public:
  virtual ~WorkQueueFactory() = default;
  virtual std::shared_ptr<WorkQueue> serial(std::string label, WorkQueue::Order order,
                                            WorkQueue::QoS qos = WorkQueue::QoS::Default) = 0;
};

}  // namespace platform
