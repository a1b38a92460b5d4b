// Bundles on disk, for the service manager's view and the privacy service's. From any thread.
#pragma once

#include <memory>

#include "platform/ServiceBundle.h"
#include "platform/linux/files/DeviceRoot.h"

namespace platform {

class LinuxServiceBundles final : public ServiceBundles {
 public:
  explicit LinuxServiceBundles(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
  std::shared_ptr<ServiceBundle> bundleAtPath(std::string_view path) override;
  std::shared_ptr<ServiceBundle> bundleOfExecutable(std::string_view path) override;
  // Without properties for a program outside the device root.
  std::shared_ptr<ServiceBundle> mainBundle() override;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
};

class LinuxCoreBundles final : public CoreBundles {
 public:
  explicit LinuxCoreBundles(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
  // Null when there is no directory.
  std::shared_ptr<CoreBundle> bundleAtPath(std::string_view path) override;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
};

}  // namespace platform
