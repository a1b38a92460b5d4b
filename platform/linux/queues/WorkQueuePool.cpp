#include "platform/linux/queues/WorkQueuePool.h"

#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/queues/WorkQueue.h"

namespace platform {
namespace {

// Queues that have long work at the same moment are few; more threads would only take turns on the same cores.
constexpr unsigned kMaxWorkers = 4;
// Long enough that a periodic task does not start a thread each time.
constexpr std::chrono::seconds kIdleWorkerEnds{5};

}  // namespace

void WorkQueuePool::run(std::shared_ptr<SerialQueue> queue, bool urgent) {
  std::lock_guard lock(mutex_);
  if (urgent) {
    waiting_.push_front(std::move(queue));
  } else {
    waiting_.push_back(std::move(queue));
  }
  if (idle_ >= waiting_.size()) {
    arrived_.notify_one();
  } else if (workers_ < kMaxWorkers) {
    startWorker();
  }
}

void WorkQueuePool::startWorker() {
  try {
    std::thread([self = shared_from_this()] { self->work(); }).detach();
    ++workers_;
  } catch (const std::system_error& error) {
    // Whoever works already goes on to what waits. With no worker at all it waits for the next one that can start.
    VK_LOG(defaultLog(), Fault, "cannot start a worker thread: %{public}s", error.what());
  }
}

void WorkQueuePool::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    bool found = arrived_.wait_for(lock, kIdleWorkerEnds, [this] { return !waiting_.empty(); });
    --idle_;
    if (!found) break;
    std::shared_ptr<SerialQueue> queue = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    queue->drain();
    queue.reset();
    lock.lock();
  }
  --workers_;
}

}  // namespace platform
