// Queues and threads under one scheduler: of all that could go on at a moment one goes on, and a seed decides which.
// The same seed takes the same way again.
//
//   SeededQueues queues(seed);                        // also the WorkQueueFactory of what is tested
//   queues.thread("delivery", [&] { … });             // each may be overtaken wherever it enters or leaves a queue,
//   queues.thread("registry", [&] { … });             // hands something in, or calls pause()
//   EXPECT_TRUE(queues.run());                        // false: somebody waits for what nobody does
//
// Threads are real ones, so that sanitizers know them, but only one runs at a time. Code outside of run() is never
// overtaken. Items and callers of a queue take their turns in the order in which they came, as on the machine's queues.
#pragma once

#include <sched.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <semaphore>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/WorkQueue.h"

namespace support {

class SeededQueues : public platform::WorkQueueFactory {
 public:
  explicit SeededQueues(std::uint64_t seed) : seed_(seed), random_(seed) { stayOnOneCore(); }
  SeededQueues(const SeededQueues&) = delete;
  SeededQueues& operator=(const SeededQueues&) = delete;
  ~SeededQueues() {
    for (const auto& actor : actors_) {
      if (!actor->ended && !actor->serves) stop(actor->name + " still waits");
    }
    ending_ = true;
    switchTo(pick());
    for (const auto& actor : actors_) actor->thread.join();
  }

  std::shared_ptr<platform::WorkQueue> serial(std::string label, platform::WorkQueue::Order order,
                                              platform::WorkQueue::QoS) override {
    return std::make_shared<Queue>(*this, std::move(label), order);
  }
  void thread(std::string name, std::function<void()> body) { start(std::move(name), false, std::move(body)); }
  // Until nobody can go on. Whether every thread has ended.
  bool run() {
    switchTo(pick());
    return std::ranges::all_of(actors_, [](const auto& actor) { return actor->ended || actor->serves; });
  }
  // Here somebody else may go first.
  void pause() {
    waitUntil([] { return true; });
  }
  // The same for as long as the seed says: what comes next shall meet the others early and late.
  void linger() {
    constexpr unsigned kMost = 48;
    for (auto left = random_() % kMost; left != 0; --left) pause();
  }
  void waitUntil(std::function<bool()> ready) {
    if (current_ == &main_) {
      if (!ready()) stop("the test itself would wait");
      return;
    }
    current_->ready = std::move(ready);
    switchTo(pick());
  }

 private:
  class Queue;
  struct Actor {
    std::string name;
    bool serves = false;  // runs what a queue is handed, for as long as the scheduler lives
    std::function<bool()> ready = [] { return true; };
    bool ended = false;
    std::vector<const Queue*> held{};
    std::binary_semaphore go{0};
    std::thread thread{};
  };

  class Queue : public platform::WorkQueue {
   public:
    Queue(SeededQueues& scheduler, std::string label, Order order)
        : scheduler_(scheduler), label_(std::move(label)), order_(order) {}
    ~Queue() override { *gone_ = true; }

    void async(std::function<void()> item) override {
      items_.push_back({std::move(item), nullptr});
      if (!std::exchange(served_, true)) {
        scheduler_.start(label_, true, [this, &all = scheduler_, gone = gone_] { serve(all, *gone); });
      }
      scheduler_.pause();
    }
    bool isCurrent() const override { return std::ranges::count(scheduler_.current_->held, this) != 0; }
    std::string_view label() const override { return label_; }

   protected:
    void enter(void (*item)(void*), void* context) override {
      const auto& held = scheduler_.current_->held;
      if (isCurrent() || (!held.empty() && (held.back()->order_ == Order::Leaf || order_ == Order::Outer))) {
        scheduler_.stop("queue " + label_ + " is entered inside queue " + held.back()->label_);
      }
      scheduler_.pause();
      if (busy_ || !items_.empty()) {
        bool turn = false;
        items_.push_back({nullptr, &turn});
        scheduler_.waitUntil([&turn] { return turn; });
      }
      {
        Turn turn(*this);
        item(context);
      }
      scheduler_.pause();
    }

   private:
    struct Item {
      std::function<void()> run;
      bool* turn;  // of somebody who waits
    };
    struct Turn {
      Queue& queue;
      Actor& actor;
      explicit Turn(Queue& it) : queue(it), actor(*it.scheduler_.current_) {
        queue.busy_ = true;
        actor.held.push_back(&queue);
      }
      ~Turn() {
        actor.held.pop_back();
        queue.busy_ = !queue.items_.empty() && queue.items_.front().turn != nullptr;
        if (!queue.busy_) return;
        *queue.items_.front().turn = true;
        queue.items_.pop_front();
      }
    };

    // The scheduler may outlive the queue.
    void serve(SeededQueues& all, const bool& gone) {
      while (true) {
        all.waitUntil([this, &all, &gone] { return all.ending_ || (!gone && !busy_ && !items_.empty()); });
        if (all.ending_) return;
        auto item = std::move(items_.front().run);
        items_.pop_front();
        Turn turn(*this);
        item();
        item = nullptr;
      }
    }

    SeededQueues& scheduler_;
    const std::string label_;
    const Order order_;
    const std::shared_ptr<bool> gone_ = std::make_shared<bool>(false);
    bool busy_ = false, served_ = false;
    std::deque<Item> items_;
  };

  // Handing over to a thread on another core would have to wake that core, each time.
  static void stayOnOneCore() {
    static const int core = [] {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(static_cast<std::size_t>(::sched_getcpu()), &one);
      return ::sched_setaffinity(0, sizeof one, &one);
    }();
    static_cast<void>(core);
  }
  void start(std::string name, bool serves, std::function<void()> body) {
    Actor* actor = actors_.emplace_back(new Actor{std::move(name), serves}).get();
    actor->thread = std::thread([this, actor, body = std::move(body)] {
      actor->go.acquire();
      body();
      actor->ended = true;
      current_ = pick();
      current_->go.release();
    });
  }
  // The test itself goes on when nobody else can.
  Actor* pick() {
    std::vector<Actor*> able;
    for (const auto& actor : actors_) {
      if (!actor->ended && actor->ready()) able.push_back(actor.get());
    }
    return able.empty() ? &main_ : able[random_() % able.size()];
  }
  void switchTo(Actor* next) {
    Actor* self = std::exchange(current_, next);
    if (self == next) return;
    next->go.release();
    self->go.acquire();
  }
  [[noreturn]] void stop(const std::string& why) const {
    std::cerr << "seed " << seed_ << ": " << why << std::endl;
    std::abort();
  }

  const std::uint64_t seed_;
  std::mt19937_64 random_;
  Actor main_{"test"};
  Actor* current_ = &main_;
  std::vector<std::unique_ptr<Actor>> actors_;
  bool ending_ = false;
};

}  // namespace support
