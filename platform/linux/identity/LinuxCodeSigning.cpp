#include "platform/linux/identity/LinuxCodeSigning.h"

#include <cerrno>
#include <mutex>
#include <string>
#include <utility>

#include "platform/linux/files/Files.h"
#include "platform/linux/identity/Entitlements.h"
#include "platform/linux/messages/PeerIdentity.h"

namespace platform {
namespace {

// A buffer of 2048 bytes with its terminator: what a caller of the service may rely on.
constexpr std::size_t kMaxExecutablePath = 2047;

class PeerTask final : public CodeSigningTask {
 public:
  PeerTask(std::shared_ptr<const DeviceRoot> root, std::shared_ptr<AuditToken> token)
      : root_(std::move(root)), peer_(std::dynamic_pointer_cast<PeerIdentity>(std::move(token))) {}

  PlistValue entitlement(std::string_view name, std::optional<DomainError>* error) override {
    return entitlements(error)[name];
  }

  PlistValue entitlements(std::optional<DomainError>* error) override {
    std::optional<DomainError> readError;
    PlistValue found = peer_ == nullptr ? PlistValue() : read(&readError);
    // Reading comes first: the check covers it.
    if (peer_ == nullptr || !peer_->stillSame()) {
      if (error != nullptr) *error = fileError("peer process", ESRCH);
      return {};
    }
    if (error != nullptr) *error = std::move(readError);
    return found;
  }

 private:
  PlistValue read(std::optional<DomainError>* error) {
    std::lock_guard lock(mutex_);
    if (!known_) {
      entitlements_ = readEntitlementsOfProcess(*root_, *peer_, &readError_);
      known_ = !readError_ || !mayPass(*readError_);
    }
    *error = readError_;
    return entitlements_;
  }

  // What this process lacks for a moment says nothing about the file.
  static bool mayPass(const DomainError& error) {
    return error.isInDomain(FileErrorDomain) && (error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM);
  }

  const std::shared_ptr<const DeviceRoot> root_;
  const std::shared_ptr<PeerIdentity> peer_;
  std::mutex mutex_;  // guards what follows
  bool known_ = false;
  PlistValue entitlements_;
  std::optional<DomainError> readError_;
};

}  // namespace

std::unique_ptr<CodeSigningTask> LinuxCodeSigning::task(std::shared_ptr<AuditToken> token) {
  return std::make_unique<PeerTask>(root_, std::move(token));
}

std::string hostExecutablePath(std::int32_t pid) { return PeerIdentity::ofProcess(pid)->executablePath(); }

std::optional<std::string> LinuxCodeSigning::executablePath(std::int32_t pid) {
  return devicePath(hostExecutablePath(pid));
}

std::optional<std::string> LinuxCodeSigning::executablePathOfPeer(const AuditToken& peer) {
  auto* identity = dynamic_cast<const PeerIdentity*>(&peer);
  if (identity == nullptr || !identity->stillSame()) return std::nullopt;
  return devicePath(identity->executablePath());
}

std::optional<std::string> LinuxCodeSigning::devicePath(const std::string& hostPath) const {
  if (hostPath.empty()) return std::nullopt;
  std::string path = root_->devicePath(hostPath).value_or(hostPath);
  if (path.size() > kMaxExecutablePath) return std::nullopt;
  return path;
}

PlistValue LinuxCodeSigning::entitlementsOfExecutable(std::string_view path, std::optional<DomainError>* error) {
  return readEntitlements(*root_, path, error);
}

}  // namespace platform
