#include <algorithm>

#include "Vornik/VKLog.h"
#include "vkd/server/Quietly.h"
#include "vkd/server/VKDPlugInHold.h"
#include "vkd/server/VKDServer.h"
#include "vkd/server/VKDZypClient.h"

namespace vkd {

VKDServer::HoldAdded VKDServer::addHold(std::shared_ptr<VKDPlugInHold> hold) {
  HoldAdded result = syncQueue_->sync([&] {
    std::shared_ptr<VKDZypClient> client = hold->client();
    if (client == nullptr || client->holds().ended) return HoldAdded::ClientIsGone;
    if (client->holds().count >= kMaxHoldsPerClient) return HoldAdded::TooMany;
    // What may run out of memory comes first: a count of 0 holds nothing.
    for (const auto& plugIn : hold->blocked()) heldPlugIns_.try_emplace(plugIn->uuid(), 0);
    holds_.push_back(hold);
    for (const auto& plugIn : hold->blocked()) ++heldPlugIns_.find(plugIn->uuid())->second;
    ++client->holds().count;
    anythingHeld_.store(!heldPlugIns_.empty());
    return HoldAdded::Yes;
  });
  if (result == HoldAdded::Yes) quietly([&] { notifyAnnotationChange(); });
  return result;
}

void VKDServer::unholdToken(const UUID& token) {
  syncQueue_->sync([&] {
    auto found = std::find_if(holds_.begin(), holds_.end(), [&](const auto& hold) { return hold->uuid() == token; });
    if (found == holds_.end()) return;
    VK_LOG(vk_ops(), Debug, "releasing plug-in hold %{public}@ at client's request", token);
    release(found);
  });
}

void VKDServer::unholdClient(VKDZypClient& client) {
  syncQueue_->sync([&] {
    client.holds().ended = true;
    for (auto hold = holds_.begin(); client.holds().count != 0 && hold != holds_.end();) {
      if ((*hold)->client().get() != &client) {
        ++hold;
        continue;
      }
      quietly([&] {
        VK_LOG(vk_ops(), Debug, "releasing plug-in hold %{public}@ for dead client pid %d", (*hold)->uuid(),
               client.pid());
      });
      hold = release(hold);
    }
  });
}

VKDServer::Holds::iterator VKDServer::release(Holds::iterator hold) {
  std::shared_ptr<VKDPlugInHold> released = *hold;
  auto next = holds_.erase(hold);
  if (auto client = released->client()) --client->holds().count;
  for (const auto& plugIn : released->blocked()) {
    auto held = heldPlugIns_.find(plugIn->uuid());
    if (--held->second == 0) heldPlugIns_.erase(held);
  }
  anythingHeld_.store(!heldPlugIns_.empty());
  quietly([&] { notifyAnnotationChange(); });
  return next;
}

bool VKDServer::holdOnPlugIn(const VKDPlugIn& plugIn) {
  if (!anythingHeld_.load()) return false;
  return syncQueue_->sync([&] {
    auto held = heldPlugIns_.find(plugIn.uuid());
    return held != heldPlugIns_.end() && held->second != 0;
  });
}

std::vector<std::shared_ptr<VKDPlugInHold>> VKDServer::holds() {
  return syncQueue_->sync([&] { return holds_; });
}

}  // namespace vkd
