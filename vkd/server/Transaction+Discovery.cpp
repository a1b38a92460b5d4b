// "match": a host finds the plug-ins it may use.
#include "Vornik/VKError.h"
#include "Vornik/VKErrorTexts.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "Vornik/VKProtocol.h"
#include "platform/Trace.h"
#include "vkd/discovery/Discovery.h"
#include "vkd/server/Transaction.h"

namespace vkd {

void Transaction::matchPlugIns() {
  const Message* rulesMessage = request_.get(kVKMessageRules);
  if (rulesMessage != nullptr && !rulesMessage->isDictionary()) {
    return failMessage(VKErrorInvalidRequest, "invalid request format (bad rules dictionary)");
  }
  const PlistValue rules = rulesMessage != nullptr ? rulesMessage->toPlist() : PlistValue();
  const std::uint64_t flags = request_.getUnsigned(kVKMessageFlags);
  if ((flags & VKDiscoverAll) != 0 && !mayDiscoverAll()) {
    return failMessage(VKErrorNotPermitted, kVKUnauthorizedDiscovery);
  }
  const VKDPlugIns candidates = server().findPlugIns(rules).value_or(VKDPlugIns());
  trace::discoverRaw(static_cast<unsigned>(candidates.size()));
  Discovery discovery({server(), server(), server().userPrefs()}, *client_, rules, flags, candidates.size());
  for (const auto& candidate : candidates) discovery.consider(candidate);
  discovery.applyOverrides();
  VK_LOG(vk_ops(), Info, "match returned %u plug-ins", discovery.size());
  // The other accepted version cannot carry property lists.
  if (version_ == kVKProtocolVersion) {
    std::optional<Rope> forms = discovery.encodedForms();
    if (!forms) {
      VK_LOG(vk_ops(), Error, "client %d asked for %u plug-ins at once, more than a message can hold", client_->pid(),
             discovery.size());
      return failMessage(VKErrorInvalidRequest, "the matching plug-ins exceed the size of a message");
    }
    reply_.set(kVKMessageMatches, std::move(*forms));
  }
  VK_LOG(vk_ops(), Debug, "reply marshalled");
  done();
}

// The entitlement is asked first, the sandbox only of an entitled client.
bool Transaction::mayDiscoverAll() const {
  return client_->hasEntitlement(kVKEntitlementManager) && !server().services().sandbox->isSandboxed(client_->pid());
}

}  // namespace vkd
