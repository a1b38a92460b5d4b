#include "platform/linux/jobs/LinuxServiceManager.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "platform/ManifestKeys.h"
#include "platform/linux/files/SharedFolders.h"
#include "platform/linux/identity/BundleLayout.h"

namespace platform {
namespace {

// 0, or why this cannot be run.
int checkExecutable(const DeviceRoot& root, std::string_view path) {
  struct stat state {};
  if (!root.stat(path, &state)) return errno == ENOTDIR ? ENOENT : errno;
  return S_ISREG(state.st_mode) && (state.st_mode & 0111) != 0 ? 0 : EACCES;
}

}  // namespace

LinuxServiceManager::LinuxServiceManager(std::shared_ptr<const DeviceRoot> root,
                                         std::shared_ptr<RunningInstances> instances)
    : root_(std::move(root)),
      services_(std::make_shared<ExternalServices>(root_)),
      remover_(services_, std::move(instances)) {}

int LinuxServiceManager::addExternalService(std::int32_t hostPid, std::string_view executablePath,
                                            const Message& overlay) {
  std::optional<ProcessName> host = ProcessName::of(hostPid);
  if (!host) return ESRCH;
  if (int error = checkExecutable(*root_, executablePath); error != 0) return error;
  std::optional<std::string> executable = root_->canonicalPath(executablePath);
  if (!executable) return errno;
  ExternalService service{*host, std::move(*executable), {}, {}, overlay.toPlist(), machineNow()};
  if (std::optional<BundleLayout> bundle = BundleLayout::ofExecutable(*root_, executablePath)) {
    PlistValue manifest = bundle->readManifest(*root_);
    service.bundleIdentifier = manifest[manifest_key::BundleIdentifier].stringValue();
    service.bundleVersion = manifest[manifest_key::BundleVersion].stringValue();
  }
  // The host may be another user, who could not make the folder in which he will record what he starts.
  if (!openSharedFolder(*root_, kInstancesFolder)) return errno;
  int error = services_->record(service);
  if (error == 0) remover_.recordsExist();
  return error;
}

void LinuxServiceManager::removeExternalService(std::string_view bundleIdentifier, std::string_view bundleVersion,
                                                std::shared_ptr<WorkQueue> queue, std::function<void(int)> completion) {
  remover_.remove(std::string(bundleIdentifier), std::string(bundleVersion), std::move(queue), std::move(completion));
}

std::vector<Message> LinuxAssertionService::busyExtensionInstances(const std::set<std::string>& bundleIdentifiers) {
  std::vector<Message> busy;
  for (const RunningInstance& instance : instances_->select(
           [&](const RunningInstance& candidate) { return bundleIdentifiers.contains(candidate.bundleIdentifier); })) {
    Message entry = Message::dictionary();
    if (!instance.bundleIdentifier.empty()) entry.set(kAssurdBundleIdentifierKey, instance.bundleIdentifier);
    entry.set("ProcessIdentifier", instance.process.pid);
    busy.push_back(std::move(entry));
  }
  return busy;
}

}  // namespace platform
