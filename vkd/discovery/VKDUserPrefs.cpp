#include "vkd/discovery/VKDUserPrefs.h"

#include "Vornik/VKKeys.h"

namespace vkd {

using namespace Vornik;

std::shared_ptr<VKDUserPrefs> VKDUserPrefs::init(std::shared_ptr<platform::Preferences> preferences) {
  return std::shared_ptr<VKDUserPrefs>(new VKDUserPrefs(std::move(preferences)));
}

platform::PlistValue VKDUserPrefs::exclusions() const {
  preferences_->synchronize(kVKUserPrefsDomain);
  return preferences_->value(kVKPrefsExclusions, kVKUserPrefsDomain);
}

const std::vector<MatchRules>& VKDUserPrefs::exclusionRules() {
  platform::PlistValue now = exclusions();
  if (now == compiled_) return rules_;
  rules_.clear();
  for (const platform::PlistValue& rules : now.elements()) {
    if (rules.isDictionary()) rules_.emplace_back(rules);
  }
  compiled_ = std::move(now);
  return rules_;
}

}  // namespace vkd
