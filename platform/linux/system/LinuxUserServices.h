// What depends on the user and the device, from plain files: user mode, containers, preferences, SDK definitions,
// consent. The current user is the user of this process. Safe from any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/ConsentService.h"
#include "platform/UserServices.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/files/WatchedPlist.h"

namespace platform {

class LinuxUserManager final : public UserManager {
 public:
  explicit LinuxUserManager(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
  // Whether /var/db/multi-user exists.
  bool isMultiUser() override;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
};

class LinuxContainerService final : public ContainerService {
 public:
  explicit LinuxContainerService(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
  // /var/users/<uid>/Containers/<class>/<identifier>, for its user alone. The error code is the system's error number.
  std::optional<FileURL> userDataContainer(std::uint32_t containerClass, std::string_view identifier,
                                           std::uint64_t* errorCode) override;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
};

class LinuxPreferences final : public Preferences {
 public:
  explicit LinuxPreferences(std::shared_ptr<const DeviceRoot> root);
  void synchronize(std::string_view domain) override;
  PlistValue value(std::string_view key, std::string_view domain) override;

 private:
  using Domains = std::map<std::string, WatchedPlist, std::less<>>;
  // The domain's file, read at first sight; null for a name that cannot be one.
  WatchedPlist* domainNamed(std::string_view name, bool refresh);

  const std::shared_ptr<const DeviceRoot> root_;
  const std::string folder_;
  std::mutex mutex_;  // guards domains_
  Domains domains_;
};

class LinuxExtensionSdkRegistry final : public ExtensionSdkRegistry {
 public:
  explicit LinuxExtensionSdkRegistry(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
  Message sdk(std::string_view extensionPoint) override;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
};

class LinuxConsentService final : public ConsentService {
 public:
  explicit LinuxConsentService(std::shared_ptr<const DeviceRoot> root)
      : root_(std::move(root)), consent_("/var/db/consent.plist") {}
  // No file: nothing was asked or granted so far. A file that cannot be read: no answer.
  std::optional<std::vector<Record>> informationForBundle(const CoreBundle& bundle) override;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
  std::mutex mutex_;  // guards consent_
  WatchedPlist consent_;
};

}  // namespace platform
