// The worker of the service manager: ends running instances and forgets records, on one thread of its own.
//
// Removals that arrive while it works are taken together: an application with many plug-ins is uninstalled in one pass
// over the records and one grace period. The thread starts with the first work and sweeps records of hosts that have
// ended for as long as there are any.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/WorkQueue.h"
#include "platform/linux/jobs/ExternalServices.h"
#include "platform/linux/jobs/RunningInstances.h"

namespace platform {

// An instance that was asked to end may save what it has; one that does not end by then is killed.
inline constexpr std::chrono::milliseconds kInstanceGrace{2000};
// A killed process is gone at once unless the kernel itself waits for something (a dead disk, say).
inline constexpr std::chrono::milliseconds kKillWait{2000};
inline constexpr std::chrono::seconds kServiceSweepInterval{30};

class ServiceRemover {
 public:
  // 0 done, 3 nothing on record, else an error number: EPERM for an instance that may not be signalled, ETIMEDOUT for
  // one that did not end, ECANCELED when this object went away first.
  using Completion = std::function<void(int result)>;
  static constexpr int kNothingOnRecord = 3;

  ServiceRemover(std::shared_ptr<const ExternalServices> services, std::shared_ptr<RunningInstances> instances);
  // Waits for the step under way, at most kKillWait.
  ~ServiceRemover();
  ServiceRemover(const ServiceRemover&) = delete;
  ServiceRemover& operator=(const ServiceRemover&) = delete;

  // Everything of the bundle in this version that was recorded until now. The completion runs on `queue`.
  void remove(std::string bundleIdentifier, std::string bundleVersion, std::shared_ptr<WorkQueue> queue,
              Completion completion);
  // A record was made: sweep from now on.
  void recordsExist();

 private:
  struct Removal {
    ExternalServices::Selection what;
    std::shared_ptr<WorkQueue> queue;
    Completion completion;
    int result = kNothingOnRecord;
    void complete();
  };
  using Removals = std::vector<Removal>;
  class Ending;

  bool startThread();
  void run();
  void process(Removals* removals);
  bool stopRequested() const;

  const std::shared_ptr<const ExternalServices> services_;
  const std::shared_ptr<RunningInstances> instances_;
  const UniqueFd stop_;  // readable when this object ends

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  Removals waiting_;
  bool sweeping_ = false;
  std::thread thread_;
};

}  // namespace platform
