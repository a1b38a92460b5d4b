// jobd and assurd on this machine: the external services of hosts as records, and the running instances from the
// processes that really run. ServiceLauncher.h has what a host does with a record. Safe from any thread.
#pragma once

#include <memory>

#include "platform/ServiceManager.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/jobs/ExternalServices.h"
#include "platform/linux/jobs/RunningInstances.h"
#include "platform/linux/jobs/ServiceRemover.h"

namespace platform {

class LinuxServiceManager final : public ServiceManager {
 public:
  LinuxServiceManager(std::shared_ptr<const DeviceRoot> root, std::shared_ptr<RunningInstances> instances);

  // ESRCH: no such process. ENOENT: no such executable. EACCES: not executable. Or what kept the record from being
  // made.
  int addExternalService(std::int32_t hostPid, std::string_view executablePath, const Message& overlay) override;
  void removeExternalService(std::string_view bundleIdentifier, std::string_view bundleVersion,
                             std::shared_ptr<WorkQueue> queue, std::function<void(int)> completion) override;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
  const std::shared_ptr<const ExternalServices> services_;
  ServiceRemover remover_;
};

class LinuxAssertionService final : public AssertionService {
 public:
  explicit LinuxAssertionService(std::shared_ptr<RunningInstances> instances) : instances_(std::move(instances)) {}
  // Each with its bundle identifier and "ProcessIdentifier".
  std::vector<Message> busyExtensionInstances(const std::set<std::string>& bundleIdentifiers) override;

 private:
  const std::shared_ptr<RunningInstances> instances_;
};

}  // namespace platform
