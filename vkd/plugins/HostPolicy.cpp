#include "vkd/plugins/HostPolicy.h"

#include "Vornik/VKKeys.h"
#include "platform/values/Format.h"
#include "vkd/plugins/VKDPlugIn.h"

namespace vkd {

HostPolicy::HostPolicy(const HostClient& client) : client_(client) {
  const PlistValue allowed = client.entitlementValueForKey(kVKEntitlementAllowedPlugIns);
  if (!allowed) return;
  restriction_ = allowed.isDictionary() ? Restriction::Rules : Restriction::Malformed;
  rules_ = MatchRules(allowed);
}

Verdict HostPolicy::allow(const VKDPlugIn& plugIn) const {
  if (restriction_ == Restriction::Malformed) return Verdict::refused(Verdict::Filter::BadHostRestriction);
  if (restriction_ == Restriction::Rules) {
    if (Verdict verdict = plugIn.match(rules_); !verdict) {
      verdict.filter = Verdict::Filter::HostRestriction;
      return verdict;
    }
  }
  const PlistValue& needed = plugIn.hostEntitlement();
  // What is no string names no entitlement that a host could hold.
  if (needed && !(needed.isString() && client_.hasEntitlement(needed.stringValue()))) {
    return Verdict::refused(Verdict::Filter::HostEntitlement, kVKExtensionHostEntitlement, needed);
  }
  return {};
}

std::optional<std::string> HostPolicy::refusal(const Verdict& verdict) {
  switch (verdict.filter) {
    case Verdict::Filter::BadHostRestriction:
      return "invalid host restriction entitlement";
    case Verdict::Filter::HostRestriction:
      return "the host's plug-in entitlement does not allow this plug-in";
    case Verdict::Filter::HostEntitlement:
      return formatText("the host does not have the \"%@\" entitlement", verdict.value);
    default:
      return std::nullopt;
  }
}

}  // namespace vkd
