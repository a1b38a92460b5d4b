// "add", "remove" and "bulk": installers register and unregister plug-in bundles at paths.
#include "Vornik/VKError.h"
#include "Vornik/VKErrorTexts.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "platform/Trace.h"
#include "vkd/server/Transaction.h"

namespace vkd {

void Transaction::addPlugIns() {
  processPaths([this](const std::string& path, bool resolved) {
    if (!resolved) {
      failMessage(VKErrorPath, formatText("invalid plugin path: %@", path));
      return false;
    }
    trace::pluginAdd(path.c_str());
    // Why the registry refused stays in its own log.
    if (server().addPlugIn(FileURL{path})) {
      VK_LOG(vk_ops(), Default, "failed to register plug-in at %@", path);
      failMessage(VKErrorRegistry, formatText("unable to register plug-in at %@", path));
      return false;
    }
    return true;
  });
}

void Transaction::removePlugIns() {
  processPaths([this](const std::string& path, bool resolved) {
    trace::pluginRemove(path.c_str(), resolved);
    if (!client_->hasEntitlement(kVKEntitlementManager)) {
      VK_LOG(systemLog(), Default,
             "refused request from pid=%d to remove plug-in at %@ - client lacks required entitlement", client_->pid(),
             path);
      failMessage(VKErrorNotPermitted, kVKCallerLacksEntitlement);
      return false;
    }
    if (server().removePlugIn(FileURL{path})) {
      failMessage(VKErrorPath, formatText("no plugin at %@", path));
      return false;
    }
    return true;
  });
}

void Transaction::bulkPlugIns() {
  VK_LOG(vk_ops(), Info, "bulk options 0x%lx not supported", request_.getUnsigned(kVKMessageFlags));
  done();
}

}  // namespace vkd
