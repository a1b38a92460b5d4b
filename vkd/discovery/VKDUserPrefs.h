// The user's preferences that matter to the daemon: which plug-ins are excluded everywhere. Another process writes
// them; every question reads them anew. Owned by the server, asked once per discovery request on the service queue.
#pragma once

#include <memory>
#include <vector>

#include "platform/UserServices.h"
#include "platform/values/PlistValue.h"
#include "vkd/plugins/MatchRules.h"

namespace vkd {

class VKDUserPrefs {
 public:
  static std::shared_ptr<VKDUserPrefs> init(std::shared_ptr<platform::Preferences> preferences);

  // The value as it stands now, whatever its type, or nothing.
  platform::PlistValue exclusions() const;
  // The same as rules to test: a plug-in that matches any of them is excluded. Entries that are no dictionary are left
  // out. Compiled again only when the value changed; valid until the next call.
  const std::vector<MatchRules>& exclusionRules();

 private:
  explicit VKDUserPrefs(std::shared_ptr<platform::Preferences> preferences) : preferences_(std::move(preferences)) {}

  const std::shared_ptr<platform::Preferences> preferences_;
  platform::PlistValue compiled_;  // what rules_ were made of
  std::vector<MatchRules> rules_;
};

}  // namespace vkd
