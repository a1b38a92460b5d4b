// Whether a host may use a plug-in at all, whatever its rules ask for. Two restrictions: the host's allowed-plug-ins
// entitlement may confine it to the plug-ins that match a rules dictionary, and a plug-in may name an entitlement that
// its hosts must hold.
//
//   HostPolicy policy(client);                      // once per request: reads and compiles the host's entitlement
//   if (Verdict verdict = policy.allow(*plugIn); !verdict) log(*HostPolicy::refusal(verdict));
//
// Used by the request that made it; the client must outlive it.
#pragma once

#include <optional>
#include <string>

#include "vkd/plugins/HostClient.h"
#include "vkd/plugins/MatchRules.h"
#include "vkd/plugins/Verdict.h"

namespace vkd {

class VKDPlugIn;

class HostPolicy {
 public:
  explicit HostPolicy(const HostClient& client);

  // The host's own restriction is asked first. A restriction that is no dictionary refuses every plug-in.
  Verdict allow(const VKDPlugIn& plugIn) const;
  // The reason as it is logged and told to hosts; nothing when the verdict is not one of this policy's refusals.
  static std::optional<std::string> refusal(const Verdict& verdict);

 private:
  enum class Restriction { None, Rules, Malformed };

  const HostClient& client_;
  Restriction restriction_ = Restriction::None;
  MatchRules rules_;
};

}  // namespace vkd
