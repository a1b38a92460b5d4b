#include "vkd/server/VKDPlugInHold.h"

#include "vkd/server/Quietly.h"

namespace vkd {

std::shared_ptr<VKDPlugInHold> VKDPlugInHold::initWithPlugInsForClient(std::shared_ptr<MessageService> messages,
                                                                       const VKDPlugIns& plugIns,
                                                                       const std::shared_ptr<VKDZypClient>& client) {
  return std::shared_ptr<VKDPlugInHold>(
      new VKDPlugInHold(std::move(messages), PlugIns(plugIns.begin(), plugIns.end()), client));
}

VKDPlugInHold::VKDPlugInHold(std::shared_ptr<MessageService> messages, PlugIns blocked,
                             const std::shared_ptr<VKDZypClient>& client)
    : messages_(std::move(messages)),
      uuid_(UUID::random()),
      blocked_(std::move(blocked)),
      client_(client),
      created_(std::chrono::system_clock::now()) {
  messages_->beginKeepAlive();
}

VKDPlugInHold::~VKDPlugInHold() {
  quietly([&] { messages_->endKeepAlive(); });
}

}  // namespace vkd
