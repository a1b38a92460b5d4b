#include "platform/linux/jobs/ServiceRemover.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>
#include <utility>

#include "platform/Log.h"

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;

int remaining(Clock::time_point deadline) {
  auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

}  // namespace

// The instances that one batch ends: each by a descriptor that stands for the process, never by its number.
class ServiceRemover::Ending {
 public:
  explicit Ending(int stop) : stop_(stop) {}

  void ask(const RunningInstance& instance, int* result) {
    UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, instance.process.pid, 0)));
    // The descriptor was opened by number: that it is the right process shows in the start time.
    if (process && !instance.process.runs()) return;
    if (process && signal(process.get(), SIGTERM)) {
      processes_.push_back({std::move(process), result});
    } else if (errno != ESRCH) {
      *result = errno;
    }
  }

  void finish() {
    bool stopped = !waitUntil(Clock::now() + kInstanceGrace);
    if (!stopped) {
      for (const Process& process : processes_) signal(process.descriptor.get(), SIGKILL);
      stopped = !waitUntil(Clock::now() + kKillWait);
    }
    for (const Process& process : processes_) *process.result = stopped ? ECANCELED : ETIMEDOUT;
  }

 private:
  struct Process {
    UniqueFd descriptor;
    int* result;
  };

  static bool signal(int process, int number) {
    return ::syscall(SYS_pidfd_send_signal, process, number, nullptr, 0) == 0;
  }

  // Leaves the processes that have not ended by then; false when this service ends first.
  bool waitUntil(Clock::time_point deadline) {
    while (!processes_.empty()) {
      std::vector<pollfd> waiting{{stop_, POLLIN, 0}};
      for (const Process& process : processes_) waiting.push_back({process.descriptor.get(), POLLIN, 0});
      int ready = ::poll(waiting.data(), waiting.size(), remaining(deadline));
      if (waiting[0].revents != 0) return false;
      if (ready == 0 || (ready < 0 && errno != EINTR)) return true;
      std::size_t at = 0;
      std::erase_if(processes_, [&](const Process&) { return waiting[++at].revents != 0; });
    }
    return true;
  }

  const int stop_;
  std::vector<Process> processes_;
};

void ServiceRemover::Removal::complete() {
  queue->async([done = std::move(completion), value = result] { done(value); });
}

ServiceRemover::ServiceRemover(std::shared_ptr<const ExternalServices> services,
                               std::shared_ptr<RunningInstances> instances)
    : services_(std::move(services)), instances_(std::move(instances)), stop_(::eventfd(0, EFD_CLOEXEC)) {}

ServiceRemover::~ServiceRemover() {
  {
    std::lock_guard lock(mutex_);
    std::uint64_t one = 1;
    static_cast<void>(::write(stop_.get(), &one, sizeof one));  // cannot fill up: written once
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
  for (Removal& removal : waiting_) {
    removal.result = ECANCELED;
    removal.complete();
  }
}

bool ServiceRemover::stopRequested() const {
  pollfd stopping{stop_.get(), POLLIN, 0};
  return ::poll(&stopping, 1, 0) != 0;
}

bool ServiceRemover::startThread() {
  if (thread_.joinable()) return true;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error& error) {
    VK_LOG(defaultLog(), Error, "cannot start the thread of jobd: %{public}s", error.what());
  }
  return thread_.joinable();
}

void ServiceRemover::remove(std::string bundleIdentifier, std::string bundleVersion, std::shared_ptr<WorkQueue> queue,
                            Completion completion) {
  Removal removal{
      {std::move(bundleIdentifier), std::move(bundleVersion), machineNow()}, std::move(queue), std::move(completion)};
  {
    std::lock_guard lock(mutex_);
    if (startThread()) {
      waiting_.push_back(std::move(removal));
      changed_.notify_one();
      return;
    }
  }
  removal.result = EAGAIN;
  removal.complete();
}

void ServiceRemover::recordsExist() {
  std::lock_guard lock(mutex_);
  if (sweeping_ || !startThread()) return;
  sweeping_ = true;
  changed_.notify_one();
}

void ServiceRemover::run() {
  std::unique_lock lock(mutex_);
  Clock::time_point nextSweep = Clock::now();
  while (!stopRequested()) {
    if (!waiting_.empty()) {
      Removals removals = std::exchange(waiting_, {});
      lock.unlock();
      process(&removals);
      lock.lock();
    } else if (!sweeping_) {
      changed_.wait(lock);
    } else if (Clock::now() < nextSweep) {
      changed_.wait_until(lock, nextSweep);
    } else {
      sweeping_ = false;  // set again by a record that is made meanwhile
      lock.unlock();
      bool left = services_->sweep();
      instances_->sweep();
      lock.lock();
      sweeping_ = sweeping_ || left;
      nextSweep = Clock::now() + kServiceSweepInterval;
    }
  }
}

void ServiceRemover::process(Removals* removals) {
  std::vector<ExternalServices::Selection> selections;
  for (const Removal& removal : *removals) selections.push_back(removal.what);
  // First the records: what is started from now on finds none, what was started before is among the instances.
  std::vector<unsigned> forgotten = services_->forget(selections);
  Ending ending(stop_.get());
  for (std::size_t i = 0; i < removals->size(); ++i) {
    Removal& removal = (*removals)[i];
    std::vector<RunningInstance> instances = instances_->select([&](const RunningInstance& instance) {
      return removal.what.selects(instance.bundleIdentifier, instance.bundleVersion, instance.recorded);
    });
    if (forgotten[i] > 0 || !instances.empty()) removal.result = 0;
    for (const RunningInstance& instance : instances) ending.ask(instance, &removal.result);
  }
  ending.finish();
  for (Removal& removal : *removals) removal.complete();
}

}  // namespace platform
