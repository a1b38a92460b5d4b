// A hold that an installer placed on plug-ins: while it is in force, they are neither discovered nor made ready. While
// the object exists the daemon counts as busy, so that it is not reclaimed and the hold forgotten.
//
// Immutable, so safe from any thread. The server keeps the holds that are in force.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <unordered_set>

#include "platform/MessageConnection.h"
#include "platform/values/UUID.h"
#include "vkd/plugins/VKDPlugIn.h"
#include "vkd/plugins/VKDatabase.h"
#include "vkd/server/VKDZypClient.h"

namespace vkd {

class VKDPlugInHold {
 public:
  using PlugIns = std::unordered_set<std::shared_ptr<VKDPlugIn>, VKPlugInHash, VKPlugInEqual>;

  // A hold with a token of its own. It is in force once the server was told to add it.
  static std::shared_ptr<VKDPlugInHold> initWithPlugInsForClient(std::shared_ptr<MessageService> messages,
                                                                 const VKDPlugIns& plugIns,
                                                                 const std::shared_ptr<VKDZypClient>& client);
  ~VKDPlugInHold();
  VKDPlugInHold(const VKDPlugInHold&) = delete;
  VKDPlugInHold& operator=(const VKDPlugInHold&) = delete;

  // The token.
  const UUID& uuid() const { return uuid_; }
  const PlugIns& blocked() const { return blocked_; }
  // Null when the client is gone.
  std::shared_ptr<VKDZypClient> client() const { return client_.lock(); }
  std::chrono::system_clock::time_point created() const { return created_; }

  bool isEqual(const VKDPlugInHold& other) const { return uuid_ == other.uuid_; }
  std::size_t hash() const { return std::hash<UUID>()(uuid_); }

 private:
  VKDPlugInHold(std::shared_ptr<MessageService> messages, PlugIns blocked, const std::shared_ptr<VKDZypClient>& client);

  const std::shared_ptr<MessageService> messages_;
  const UUID uuid_;
  const PlugIns blocked_;
  const std::weak_ptr<VKDZypClient> client_;
  const std::chrono::system_clock::time_point created_;
};

}  // namespace vkd
