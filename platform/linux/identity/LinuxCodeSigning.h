// Code identity on this machine: entitlements of the process that connected, executable paths of processes.
//
// The entitlements of a connection are read at the first question and kept. Every question asks the kernel again
// whether the process is still the one that connected (PeerIdentity): a process that ended, or executes something else
// now, has none and an error. From any thread.
#pragma once

#include <memory>

#include "platform/CodeSigningTask.h"
#include "platform/linux/files/DeviceRoot.h"

namespace platform {

class LinuxCodeSigning final : public CodeSigning {
 public:
  explicit LinuxCodeSigning(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}

  // Never null; a token that is not of this machine belongs to nobody.
  std::unique_ptr<CodeSigningTask> task(std::shared_ptr<AuditToken> token) override;
  std::optional<std::string> executablePath(std::int32_t pid) override;
  std::optional<std::string> executablePathOfPeer(const AuditToken& peer) override;
  PlistValue entitlementsOfExecutable(std::string_view path, std::optional<DomainError>* error) override;

 private:
  std::optional<std::string> devicePath(const std::string& hostPath) const;

  const std::shared_ptr<const DeviceRoot> root_;
};

// Host path of what a process executes, empty when it is gone, deleted or replaced on disk.
std::string hostExecutablePath(std::int32_t pid);

}  // namespace platform
