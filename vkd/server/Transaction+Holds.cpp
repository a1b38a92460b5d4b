// "lock": an installer holds plug-ins while it replaces them, and releases them again.
#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "Vornik/VKProtocol.h"
#include "vkd/server/Quietly.h"
#include "vkd/server/Transaction.h"
#include "vkd/server/VKDPlugInHold.h"

namespace vkd {

void Transaction::lockDownPlugIns() {
  if (const Message* tokens = zyp_dictionary_get_array(request_, kVKMessageUUIDs)) return releaseHolds(*tokens);
  std::uint64_t flags = request_.getUnsigned(kVKMessageFlags);
  VKDPlugIns plugIns;
  bool complete = marshalPaths([&](const std::string& path, bool resolved) {
    if (!resolved) {
      failMessage(VKErrorPath, formatText("invalid path: %@", path));
      return false;
    }
    return collectHeld(FileURL{path}, flags, plugIns);
  });
  if (!complete) return;
  // Who names single plug-ins holds them whether busy or not.
  if (flags != VKHoldPlugIns && refuseBusy(plugIns)) return;
  grantHold(plugIns);
}

void Transaction::releaseHolds(const Message& tokens) {
  for (const Message& element : *tokens.as<Message::Array>()) {
    if (const UUID* token = element.as<UUID>()) server().unholdToken(*token);
  }
  done();
}

bool Transaction::collectHeld(const FileURL& url, std::uint64_t flags, VKDPlugIns& plugIns) {
  switch (flags) {
    case VKHoldPlugIns:
      if (auto plugIn = server().findPlugInAtPath(url)) {
        plugIns.push_back(std::move(plugIn));
        return true;
      }
      failMessage(VKErrorPath, formatText("no plug-in at path:%@", url));
      return false;
    case VKHoldApplications:
      if (auto within = server().plugInsWithinApplication(url)) {
        plugIns.insert(plugIns.end(), within->begin(), within->end());
      }
      return true;
    default:
      failMessage(VKErrorInvalidRequest, "invalid request format (unsupported hold flags)");
      return false;
  }
}

// Whether the request was refused because plug-ins are running.
bool Transaction::refuseBusy(const VKDPlugIns& plugIns) {
  VKDPlugIns busy;
  Message conflicts = Message::array();
  for (const auto& plugIn : plugIns) {
    Message conflict = plugIn->checkBusy();
    if (!conflict) continue;
    conflicts.append(std::move(conflict));
    busy.push_back(plugIn);
  }
  if (busy.empty()) return false;
  VK_LOG(vk_ops(), Debug, "hold rejected. Busy plug-ins:%@", busy);
  reply_.set(kVKMessageConflicts, std::move(conflicts));
  failMessage(VKErrorBusy, "plug-ins are busy");
  return true;
}

void Transaction::grantHold(const VKDPlugIns& plugIns) {
  auto hold = VKDPlugInHold::initWithPlugInsForClient(server().services().messages, plugIns, client_);
  // Nothing may fail between the hold and its reply: a hold whose token nobody knows stays as long as its client.
  reply_.set(kVKMessageUUIDs, hold->uuid());
  switch (server().addHold(hold)) {
    case VKDServer::HoldAdded::TooMany:
      reply_.set(kVKMessageUUIDs, Message());
      VK_LOG(vk_ops(), Error, "client %d is refused a hold: it has %u", client_->pid(), VKDServer::kMaxHoldsPerClient);
      return failMessage(VKErrorInvalidRequest, "too many holds");
    case VKDServer::HoldAdded::ClientIsGone:
      return done();  // to nobody
    case VKDServer::HoldAdded::Yes:
      break;
  }
  quietly([&] { VK_LOG(vk_ops(), Debug, "hold request granted uuid:%{public}@", hold->uuid()); });
  done();
}

}  // namespace vkd
