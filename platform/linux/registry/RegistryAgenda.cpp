#include "platform/linux/registry/RegistryAgenda.h"

#include <algorithm>

namespace platform {

void RegistryAgenda::changed(const RegistryUnit& unit, Clock::time_point now) {
  Times& times = items_.try_emplace(unit, Times{now + kLongest, now}).first->second;
  times.due = std::min(now + kQuiet, times.latest);
}

void RegistryAgenda::retry(const RegistryUnit& unit, Clock::time_point now) {
  items_.try_emplace(unit, Times{now + kRetry, now + kRetry});
}

std::optional<RegistryAgenda::Clock::time_point> RegistryAgenda::nextDue() const {
  std::optional<Clock::time_point> next;
  for (const auto& [unit, times] : items_) {
    if (!next || times.due < *next) next = times.due;
  }
  return next;
}

std::vector<RegistryUnit> RegistryAgenda::takeDue(Clock::time_point now) {
  std::vector<RegistryUnit> due;
  for (auto item = items_.begin(); item != items_.end();) {
    if (item->second.due > now) {
      ++item;
      continue;
    }
    due.push_back(item->first);
    item = items_.erase(item);
    if (due.back().kind != RegistryUnit::Kind::Everything) continue;
    items_.clear();
    return due;
  }
  return due;
}

}  // namespace platform
