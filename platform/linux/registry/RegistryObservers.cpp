#include "platform/linux/registry/RegistryObservers.h"

#include <algorithm>
#include <utility>

namespace platform {

void RegistryObservers::add(RegistryObserver* observer) {
  std::lock_guard lock(mutex_);
  if (!isObserving(observer)) observers_.push_back(observer);
}

void RegistryObservers::remove(RegistryObserver* observer) {
  std::unique_lock lock(mutex_);
  std::erase(observers_, observer);
  if (teller_ == std::this_thread::get_id()) return;
  told_.wait(lock, [&] { return beingTold_ != observer; });
}

bool RegistryObservers::isObserving(RegistryObserver* observer) const {
  return std::find(observers_.begin(), observers_.end(), observer) != observers_.end();
}

bool RegistryObservers::post(News news, const RegistryPlugInRecords& records) {
  std::lock_guard lock(mutex_);
  if (records.empty() || observers_.empty()) return false;
  pending_.push_back({news, records, observers_});
  return true;
}

void RegistryObservers::deliver() {
  std::unique_lock lock(mutex_);
  teller_ = std::this_thread::get_id();
  while (!pending_.empty()) {
    Notification notification = std::move(pending_.front());
    pending_.pop_front();
    for (RegistryObserver* observer : notification.observers) {
      if (isObserving(observer)) tell(lock, observer, notification);
    }
  }
}

void RegistryObservers::tell(std::unique_lock<std::mutex>& lock, RegistryObserver* observer,
                             const Notification& notification) {
  beingTold_ = observer;
  lock.unlock();
  if (notification.news == News::Installed) {
    observer->pluginsDidInstall(notification.records);
  } else {
    observer->pluginsWillUninstall(notification.records);
  }
  lock.lock();
  beingTold_ = nullptr;
  told_.notify_all();
}

}  // namespace platform
