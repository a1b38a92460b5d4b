// Waits for what happens on descriptors and delivers it, on one thread at a time, the leader. Work that deliveries put
// on queues is done by the leader too, when the deliveries of the round have returned: most of it is so short that
// handing it to a sleeping thread would cost twenty times the work itself.
//
// When a round takes longer than the tick of the standby thread, that one takes the lead, and the former leader becomes
// the standby when its round ends:
//
//   leader    wait --events--> deliver, deliver, ... --> drain queues --> wait ...
//                              `----------- a round -----------------'
//   standby   sleep ~~ woken by a round ~~ tick tick tick -- same round as at the last tick: takes the lead
//                                                         `- nothing happened for a while: sleep
//
// One atomic number carries all of it: even while the leader waits, odd during its round, growing by one each time. The
// lead is taken and given back by exchanging that number, so exactly one thread leads.
//
// Deliveries of one source may come from both threads at once, when one is so slow that the lead is taken meanwhile:
// sources keep their own order. Safe from any thread except where stated.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/linux/files/UniqueFd.h"
#include "platform/linux/queues/WorkQueue.h"

namespace platform {

// What is told of events. Kept alive by the loop while it is watched.
class EventSource {
 public:
  virtual ~EventSource() = default;
  // `events` as in epoll(7); level-triggered, so what is left undone is reported again. On the leader.
  virtual void ready(std::uint32_t events) = 0;
  // The loop has ended; nothing more will be delivered.
  virtual void loopEnded() {}
};

// Runs as long as its RunningLoop. Sources, and what they refer to, share the object: that keeps it alive, but not
// running.
class EventLoop final : public QueueRunner, public std::enable_shared_from_this<EventLoop> {
 public:
  using Watch = std::uint64_t;

  // 0 and errno when it cannot be watched. The descriptor must stay open until unwatch().
  Watch watch(int fd, std::uint32_t events, std::shared_ptr<EventSource> source);
  void change(Watch watch, int fd, std::uint32_t events);
  // Not even a hang-up is reported between these two.
  void suspend(int fd);
  void resume(Watch watch, int fd, std::uint32_t events);
  void unwatch(Watch watch, int fd);

  // Whether the calling thread leads: else it must not read from sockets any more.
  bool leading() const;
  // The calling thread's buffer to read into, for the length of one ready() call. Within ready() only.
  static std::span<char> scratch();

  void runSoon(std::shared_ptr<SerialQueue> queue) override;

 private:
  friend class RunningLoop;
  struct Seat;

  EventLoop();
  bool start();
  void stop();
  void threadMain(std::optional<std::uint64_t> turn);
  void lead(std::uint64_t turn);
  void deliver(Watch watch, std::uint32_t events);
  void drainReady();
  std::optional<std::uint64_t> standBy();
  std::optional<std::uint64_t> watchRounds(std::unique_lock<std::mutex>& lock);
  void takeLead();
  void wakeStandby();

  const UniqueFd epoll_;
  const UniqueFd stopEvent_;
  std::atomic<std::uint64_t> turn_{0};
  std::atomic<bool> stopping_{false};
  std::atomic<bool> standbyAsleep_{false};
  // False while the former leader still is in its round: then nobody would take the lead from a slow one.
  std::atomic<bool> standbyPresent_{true};

  std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<std::thread> threads_;
  std::unordered_map<Watch, std::shared_ptr<EventSource>> sources_;
  Watch lastWatch_ = 0;

  std::mutex readyMutex_;
  std::deque<std::shared_ptr<SerialQueue>> ready_;  // guarded by readyMutex_

  std::mutex standbyMutex_;
  std::condition_variable standbyWakes_;
};

// A loop that runs until this is let go, wherever that happens. Its threads start with the first watch.
class RunningLoop {
 public:
  RunningLoop() : loop_(new EventLoop) {}
  RunningLoop(RunningLoop&&) = default;
  RunningLoop& operator=(RunningLoop&&) = delete;
  ~RunningLoop() { stop(); }

  const std::shared_ptr<EventLoop>& loop() const { return loop_; }
  // Waits for the deliveries that are under way, unless called by one of them.
  void stop();

 private:
  std::shared_ptr<EventLoop> loop_;  // null: moved away, or stopped
};

}  // namespace platform
