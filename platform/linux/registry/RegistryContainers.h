// The data containers of plug-ins: a folder each, named by the plug-in identifier. An identifier that is no safe name
// of a folder has none. Made and flushed by one thread at a time, found from any.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/files/UniqueFd.h"
#include "platform/values/FileURL.h"

namespace platform {

class RegistryContainers {
 public:
  static constexpr std::string_view kDirectory = "/var/containers";

  explicit RegistryContainers(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
  // An existing one is success; a failure is logged.
  bool make(std::string_view identifier);
  std::optional<FileURL> find(std::string_view identifier) const;
  // What was made survives a power cut from now on.
  void flush();
  // The folder of all containers may be another one from now on.
  void forgetFolder();

 private:
  // Kept open between questions: one is asked for every plug-in.
  std::shared_ptr<const UniqueFd> folder() const;
  std::shared_ptr<const UniqueFd> keptFolder() const;  // perhaps deleted since, or null

  const std::shared_ptr<const DeviceRoot> root_;
  mutable std::mutex mutex_;
  mutable std::shared_ptr<const UniqueFd> folder_;
  bool flushDue_ = false;
  bool aboveFlushDue_ = true;  // whoever made the folder may not have flushed its name
};

}  // namespace platform
