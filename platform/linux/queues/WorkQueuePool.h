// The threads for work that no thread at hand can do: a queue that got work from outside an event delivery, or that
// must not wait for the thread it got it on. Threads start on demand and end when there was nothing to do for a while.
//
// Owned together by the queues that may need it. Safe from any thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

namespace platform {

class SerialQueue;

class WorkQueuePool : public std::enable_shared_from_this<WorkQueuePool> {
 public:
  // Drains the queue on a thread of the pool; an urgent one before those that wait already.
  void run(std::shared_ptr<SerialQueue> queue, bool urgent);

 private:
  void work();
  void startWorker();

  std::mutex mutex_;
  std::condition_variable arrived_;
  // Guarded by mutex_.
  std::deque<std::shared_ptr<SerialQueue>> waiting_;
  unsigned workers_ = 0;
  unsigned idle_ = 0;
};

}  // namespace platform
