// Who is told what was installed and uninstalled, and what they are still to be told. Notifications are posted by any
// thread that changes the registry, in order, and delivered by the registry's own.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/Registry.h"

namespace platform {

class RegistryObservers {
 public:
  enum class News { Uninstalled, Installed };

  void add(RegistryObserver* observer);
  // Waits for the end of a notification that this observer is just told, unless called from inside it.
  void remove(RegistryObserver* observer);
  // For those that observe now. Whether anybody does.
  bool post(News news, const RegistryPlugInRecords& records);
  // Until nothing is left to be told.
  void deliver();

 private:
  struct Notification {
    News news;
    RegistryPlugInRecords records;
    std::vector<RegistryObserver*> observers;
  };
  bool isObserving(RegistryObserver* observer) const;
  void tell(std::unique_lock<std::mutex>& lock, RegistryObserver* observer, const Notification& notification);

  std::mutex mutex_;
  std::condition_variable told_;
  std::vector<RegistryObserver*> observers_;
  std::deque<Notification> pending_;
  RegistryObserver* beingTold_ = nullptr;
  std::thread::id teller_;
};

}  // namespace platform
