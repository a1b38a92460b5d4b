#include "platform/linux/sandbox/LinuxSandboxService.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "platform/linux/identity/Entitlements.h"
#include "platform/linux/messages/PeerIdentity.h"

namespace platform {
namespace {

constexpr std::string_view kSandboxEntitlement = "com.vantrel.security.sandbox";

}  // namespace

LinuxSandboxService::LinuxSandboxService(std::shared_ptr<const DeviceRoot> root,
                                         std::shared_ptr<RunningInstances> instances)
    : root_(std::move(root)), instances_(std::move(instances)), issuer_(root_), table_(root_) {}

bool LinuxSandboxService::isSandboxed(std::int32_t pid) {
  std::optional<ProcessName> process = ProcessName::of(pid);
  if (!process || instances_->mayBeInstance(*process)) return true;
  std::optional<DomainError> error;
  PlistValue value = readEntitlementsOfProcess(*root_, *PeerIdentity::ofProcess(pid), &error)[kSandboxEntitlement];
  return error || (value && !value.equals(false));
}

std::optional<std::string> LinuxSandboxService::issueReadExtension(std::string_view path, int* errorNumber) {
  std::optional<std::string> token = issuer_.issue(path);
  if (!token && errorNumber != nullptr) *errorNumber = errno;
  return token;
}

std::int64_t LinuxSandboxService::consume(std::string_view token) {
  std::optional<std::string> path = table_.pathOf(token);
  UniqueFd held = path ? root_->open(*path, O_PATH) : UniqueFd();
  if (!held) return -1;
  std::lock_guard lock(mutex_);
  consumed_.emplace(++lastHandle_, std::move(held));
  return lastHandle_;
}

void LinuxSandboxService::release(std::int64_t handle) {
  std::lock_guard lock(mutex_);
  consumed_.erase(handle);
}

}  // namespace platform
