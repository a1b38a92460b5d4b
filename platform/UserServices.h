// What depends on the user and the device: containers, user mode, preferences, SDK definitions, notifications.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/values/FileURL.h"
#include "platform/values/Message.h"
#include "platform/values/PlistValue.h"

namespace platform {

class UserManager {
 public:
  virtual ~UserManager() = default;
  virtual bool isMultiUser() = 0;
};

class ContainerService {
 public:
  virtual ~ContainerService() = default;
  // The current user's data container, made when it does not exist yet. Nothing and *errorCode on failure.
  virtual std::optional<FileURL> userDataContainer(std::uint32_t containerClass, std::string_view identifier,
                                                   std::uint64_t* errorCode) = 0;
};

class Preferences {
 public:
  virtual ~Preferences() = default;
  // Makes values visible that other processes wrote; costs one look at the file when it did not change.
  virtual void synchronize(std::string_view domain) = 0;
  // The value of a key for the current user on this host, nothing when there is none.
  virtual PlistValue value(std::string_view key, std::string_view domain) = 0;
};

class ExtensionSdkRegistry {
 public:
  virtual ~ExtensionSdkRegistry() = default;
  // The definition of an extension point, nothing (Kind::Nothing) when none is registered.
  virtual Message sdk(std::string_view extensionPoint) = 0;
};

class SystemNotifier {
 public:
  // Unsubscribes when destroyed; its handler does not run afterwards.
  class Subscription {
   public:
    virtual ~Subscription() = default;
  };
  virtual ~SystemNotifier() = default;
  // Reaches every subscriber on the machine and waits for none.
  virtual void post(std::string_view name) = 0;
  // Null when subscribing failed. The handler runs on a thread of the notifier.
  virtual std::unique_ptr<Subscription> subscribe(std::string_view name, std::function<void()> handler) = 0;
};

}  // namespace platform
