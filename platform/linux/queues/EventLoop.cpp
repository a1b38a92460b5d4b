#include "platform/linux/queues/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

#include "platform/Log.h"

namespace platform {
namespace {

// A round that was there at one tick and still is at the next loses the lead: after one to two of these. Shorter would
// wake a core for requests that are nearly done, longer would let a slow request be felt by other clients.
constexpr std::chrono::milliseconds kStandbyTick{1};
// So many ticks without a new round end a busy period; the next one costs the leader a wake-up of the standby.
constexpr int kQuietTicks = 16;
// Events taken at once: enough for a busy round, few enough to be fair to what comes meanwhile.
constexpr int kEventsPerRound = 64;
// One read takes so much of a socket. Larger messages are read into a buffer of their own.
constexpr std::size_t kScratchBytes = std::size_t{64} << 10;

constexpr EventLoop::Watch kStopWatch = 0;

}  // namespace

// A thread of the loop: which turn it has, or had when it last led.
struct EventLoop::Seat {
  const EventLoop* loop;
  std::uint64_t turn;
  std::span<char> scratch;

  static constinit thread_local Seat* here;
};

constinit thread_local EventLoop::Seat* EventLoop::Seat::here = nullptr;

void RunningLoop::stop() {
  if (auto loop = std::exchange(loop_, nullptr)) loop->stop();
}

EventLoop::EventLoop() : epoll_(::epoll_create1(EPOLL_CLOEXEC)), stopEvent_(::eventfd(0, EFD_CLOEXEC)) {
  epoll_event event{EPOLLIN, {.u64 = kStopWatch}};
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, stopEvent_.get(), &event);
}

// Caller holds mutex_.
bool EventLoop::start() {
  if (threads_.size() == 2) return true;
  if (!epoll_ || !stopEvent_ || stopping_) {
    errno = EMFILE;
    return false;
  }
  try {
    while (threads_.size() < 2) {
      auto turn = threads_.empty() ? std::optional<std::uint64_t>(0) : std::nullopt;
      threads_.emplace_back([self = shared_from_this(), turn] { self->threadMain(turn); });
    }
  } catch (const std::system_error&) {
    errno = EAGAIN;
    return false;
  }
  return true;
}

void EventLoop::stop() {
  stopping_ = true;
  std::uint64_t one = 1;
  while (::write(stopEvent_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  {
    std::lock_guard lock(standbyMutex_);
    standbyWakes_.notify_all();
  }
  std::vector<std::thread> threads;
  std::unordered_map<Watch, std::shared_ptr<EventSource>> sources;
  {
    std::lock_guard lock(mutex_);
    threads.swap(threads_);
  }
  for (std::thread& thread : threads) {
    // The last owner may have been let go by a delivery; that thread ends by itself.
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();
    } else {
      thread.join();
    }
  }
  {
    std::lock_guard lock(mutex_);
    sources.swap(sources_);
  }
  takeLead();  // queues that still wait are run by the pool
  for (auto& [watch, source] : sources) source->loopEnded();
}

EventLoop::Watch EventLoop::watch(int fd, std::uint32_t events, std::shared_ptr<EventSource> source) {
  Watch watch;
  {
    std::lock_guard lock(mutex_);
    if (!start()) return 0;
    watch = ++lastWatch_;
    sources_.emplace(watch, std::move(source));
  }
  epoll_event event{events, {.u64 = watch}};
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0) return watch;
  int error = errno;
  std::lock_guard lock(mutex_);
  sources_.erase(watch);
  errno = error;
  return 0;
}

void EventLoop::change(Watch watch, int fd, std::uint32_t events) {
  epoll_event event{events, {.u64 = watch}};
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

void EventLoop::suspend(int fd) { ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr); }

void EventLoop::resume(Watch watch, int fd, std::uint32_t events) {
  epoll_event event{events, {.u64 = watch}};
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
}

void EventLoop::unwatch(Watch watch, int fd) {
  suspend(fd);
  std::shared_ptr<EventSource> last;  // let go without the lock
  std::lock_guard lock(mutex_);
  auto at = sources_.find(watch);
  if (at == sources_.end()) return;
  last = std::move(at->second);
  sources_.erase(at);
}

bool EventLoop::leading() const {
  const Seat* seat = Seat::here;
  return seat != nullptr && seat->loop == this && turn_.load() == seat->turn;
}

std::span<char> EventLoop::scratch() { return Seat::here->scratch; }

void EventLoop::threadMain(std::optional<std::uint64_t> turn) {
  auto buffer = std::make_unique<char[]>(kScratchBytes);
  Seat seat{this, 0, {buffer.get(), kScratchBytes}};
  Seat::here = &seat;
  if (!turn) turn = standBy();
  while (turn) {
    lead(*turn);
    turn = standBy();
  }
  Seat::here = nullptr;
}

// Returns when the lead was taken over, or the loop ends.
void EventLoop::lead(std::uint64_t turn) {
  std::array<epoll_event, kEventsPerRound> events;
  while (!stopping_) {
    int count = ::epoll_wait(epoll_.get(), events.data(), kEventsPerRound, -1);
    if (count <= 0) continue;
    turn_.store(turn + 1);
    Seat::here->turn = turn + 1;
    if (standbyAsleep_.load()) wakeStandby();
    {
      Scope scope(this);
      for (int i = 0; i < count && leading(); ++i)
        deliver(events[static_cast<std::size_t>(i)].data.u64, events[static_cast<std::size_t>(i)].events);
    }
    drainReady();
    std::uint64_t round = turn + 1;
    if (!turn_.compare_exchange_strong(round, turn + 2)) return;
    turn += 2;
  }
}

void EventLoop::deliver(Watch watch, std::uint32_t events) {
  std::shared_ptr<EventSource> source;
  {
    std::lock_guard lock(mutex_);
    auto at = sources_.find(watch);
    if (at == sources_.end()) return;
    source = at->second;
  }
  try {
    source->ready(events);
  } catch (const std::exception& error) {
    VK_LOG(defaultLog(), Fault, "exception in an event delivery: %{public}s", error.what());
  } catch (...) {
    VK_LOG(defaultLog(), Fault, "exception of unknown type in an event delivery");
  }
}

void EventLoop::runSoon(std::shared_ptr<SerialQueue> queue) {
  if (standbyPresent_) {
    // The lead is taken before what is ready is handed to the pool, so nothing is put here that nobody would find.
    std::lock_guard lock(readyMutex_);
    if (leading()) {
      ready_.push_back(std::move(queue));
      return;
    }
  }
  queue->runElsewhere();
}

void EventLoop::drainReady() {
  for (;;) {
    std::shared_ptr<SerialQueue> queue;
    {
      std::lock_guard lock(readyMutex_);
      if (ready_.empty() || !leading()) return;
      queue = std::move(ready_.front());
      ready_.pop_front();
    }
    queue->drain();
  }
}

// Waits for its time to lead and answers the turn it took; nothing when the loop ends.
std::optional<std::uint64_t> EventLoop::standBy() {
  std::unique_lock lock(standbyMutex_);
  standbyPresent_ = true;
  while (!stopping_) {
    // Said before the last look at the turn, as the leader looks after its last change: one of them sees the other.
    standbyAsleep_ = true;
    if (turn_.load() % 2 == 0) standbyWakes_.wait(lock, [this] { return !standbyAsleep_ || stopping_; });
    standbyAsleep_ = false;
    if (auto turn = watchRounds(lock)) {
      standbyPresent_ = false;
      lock.unlock();
      takeLead();
      return turn;
    }
  }
  return std::nullopt;
}

// Ticks while there are rounds. Answers the turn when one took too long and the lead is this thread's now.
std::optional<std::uint64_t> EventLoop::watchRounds(std::unique_lock<std::mutex>& lock) {
  std::uint64_t seen = turn_;
  for (int quiet = 0; quiet < kQuietTicks && !stopping_;) {
    standbyWakes_.wait_for(lock, kStandbyTick);
    std::uint64_t now = turn_;
    quiet = now == seen ? quiet + 1 : 0;
    if (now == seen && now % 2 == 1 && turn_.compare_exchange_strong(now, now + 1)) return now + 1;
    seen = now;
  }
  return std::nullopt;
}

// What the former leader had still to drain might wait for what it is doing now.
void EventLoop::takeLead() {
  std::deque<std::shared_ptr<SerialQueue>> left;
  {
    std::lock_guard lock(readyMutex_);
    left.swap(ready_);
  }
  for (auto& queue : left) queue->runElsewhere();
}

void EventLoop::wakeStandby() {
  std::lock_guard lock(standbyMutex_);
  standbyAsleep_ = false;
  standbyWakes_.notify_one();
}

}  // namespace platform
