// "ready" and "access": a host prepares the plug-ins it is about to launch, and gets to read their bundles.
#include <unordered_set>

#include "Vornik/VKError.h"
#include "Vornik/VKErrorTexts.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "Vornik/VKSandboxExtension.h"
#include "platform/Trace.h"
#include "vkd/plugins/HostPolicy.h"
#include "vkd/server/Transaction.h"

namespace vkd {

// All checks come before any enabling: a request that names one refused plug-in enables none.
void Transaction::readyPlugIns() {
  VKDPlugIns accepted;
  std::unordered_set<UUID> seen;
  std::optional<HostPolicy> policy;
  bool complete = processUuidList([&](const std::shared_ptr<VKDPlugIn>& plugIn) {
    if (trace::pluginReadyEnabled()) trace::pluginReady(plugIn->uuid().text().c_str());
    if (server().holdOnPlugIn(*plugIn)) return denyAccess(*plugIn, kVKPlugInOnHold);
    if (plugIn->isData()) return true;
    if (!policy) policy.emplace(*client_);
    if (auto refusal = HostPolicy::refusal(policy->allow(*plugIn))) return denyAccess(*plugIn, *refusal);
    if (seen.insert(plugIn->uuid()).second) accepted.push_back(plugIn);
    return true;
  });
  if (!complete) return;
  for (const auto& plugIn : accepted) {
    if (auto error = plugIn->enableForClient(*client_)) return failError(error->code, *error);
    // Uninstalled meanwhile: its services may have been ended before this one was there.
    if (!server().isInstalled(*plugIn)) server().removedPlugIns({plugIn->alproxy()});
  }
  done();
}

bool Transaction::denyAccess(const VKDPlugIn& plugIn, std::string_view reason) {
  VK_LOG(vk_ops(), Default, "denied access to %d for plugin %@(%{public}@): %{public}@", client_->pid(),
         plugIn.identifier(), plugIn.uuid(), reason);
  failMessage(VKErrorNotPermitted, formatText("access to plugin %@ denied: %@", plugIn.identifier(), reason));
  return false;
}

void Transaction::accessPlugIns() {
  Message tokens = Message::array();
  bool complete = processUuidList([&](const std::shared_ptr<VKDPlugIn>& plugIn) {
    int errorNumber = 0;
    auto token = vk_issue_read_extension(*server().services().sandbox, plugIn->url(), &errorNumber);
    if (!token) {
      failMessage(VKErrorInvalidRequest, formatText("cannot create extension to %@: %d", plugIn->path(), errorNumber));
      return false;
    }
    tokens.append(std::move(*token));
    return true;
  });
  if (!complete) return;
  reply_.set(kVKMessageExtensions, std::move(tokens));
  done();
}

}  // namespace vkd
