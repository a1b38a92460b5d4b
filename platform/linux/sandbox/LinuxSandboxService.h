// Sandboxed processes and read extensions. Safe from any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "platform/SandboxService.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/jobs/RunningInstances.h"
#include "platform/linux/sandbox/ReadExtensions.h"

namespace platform {

class LinuxSandboxService final : public SandboxService {
 public:
  LinuxSandboxService(std::shared_ptr<const DeviceRoot> root, std::shared_ptr<RunningInstances> instances);

  // Whether the process is a running instance, or its executable's entitlement com.vantrel.security.sandbox is there
  // and not false. A process that is gone, or of which this cannot be told, counts as sandboxed.
  bool isSandboxed(std::int32_t pid) override;
  std::optional<std::string> issueReadExtension(std::string_view path, int* errorNumber) override;
  // Holds what the path leads to now until release().
  std::int64_t consume(std::string_view token) override;
  void release(std::int64_t handle) override;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
  const std::shared_ptr<RunningInstances> instances_;
  ReadExtensionIssuer issuer_;
  ReadExtensionTable table_;
  std::mutex mutex_;  // guards what follows
  std::map<std::int64_t, UniqueFd> consumed_;
  std::int64_t lastHandle_ = 0;
};

}  // namespace platform
