#include "platform/linux/identity/Entitlements.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>

#include "platform/linux/files/Files.h"
#include "platform/plists/PropertyList.h"

namespace platform {
namespace {

bool onlyTrustedWrite(const struct stat& state) {
  return (state.st_uid == 0 || state.st_uid == ::geteuid()) && (state.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool counts(int directory, const struct stat& file) {
  if (!S_ISREG(file.st_mode) || !onlyTrustedWrite(file)) return false;
  struct stat folder {};
  return file.st_nlink == 1 || (::fstat(directory, &folder) == 0 && onlyTrustedWrite(folder));
}

DomainError doesNotCount(const std::string& path) {
  return {FileErrorDomain, EPERM,
          path + ": not a regular file that only its owner, root or the daemon's user, can write"};
}

PlistValue failed(std::optional<DomainError>* error, DomainError reason) {
  if (error != nullptr) *error = std::move(reason);
  return {};
}

// The entitlements beside the executable `name` of an open directory.
PlistValue readBeside(int directory, std::string_view name, const std::string& path,
                      std::optional<DomainError>* error) {
  if (error != nullptr) error->reset();
  std::string fileName = std::string(name).append(kEntitlementsSuffix);
  UniqueFd handle(::openat(directory, fileName.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!handle) return errno == ENOENT ? PlistValue() : failed(error, fileError(path, errno));
  struct stat state {};
  if (::fstat(handle.get(), &state) != 0) return failed(error, fileError(path, errno));
  if (!counts(directory, state)) return failed(error, doesNotCount(path));
  UniqueFd file = reopenRegularFile(handle.get());
  std::optional<std::string> bytes = file ? readAll(file.get(), kMaxEntitlementsBytes) : std::nullopt;
  if (!bytes) return failed(error, fileError(path, errno));
  DomainError reason;
  PlistValue value = parsePropertyList(*bytes, &reason);
  if (value.isDictionary()) return value;
  if (value) reason = {PlistErrorDomain, 0, "not a dictionary"};
  reason.description = path + ": " + reason.localizedDescription();
  return failed(error, std::move(reason));
}

struct SplitPath {
  std::string folder;  // with its trailing slash
  std::string_view name;
};

SplitPath split(std::string_view path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {"", path};
  return {std::string(path.substr(0, slash + 1)), path.substr(slash + 1)};
}

}  // namespace

PlistValue readEntitlements(const DeviceRoot& root, std::string_view devicePathOfExecutable,
                            std::optional<DomainError>* error) {
  SplitPath place = split(devicePathOfExecutable);
  std::string path = std::string(devicePathOfExecutable).append(kEntitlementsSuffix);
  if (!isSafeComponent(place.name)) return failed(error, fileError(path, EINVAL));
  UniqueFd directory = root.openWithoutLinks(place.folder, O_PATH | O_DIRECTORY);
  if (!directory && errno != ENOENT) return failed(error, fileError(path, errno));
  if (!directory && error != nullptr) error->reset();
  if (!directory) return {};
  return readBeside(directory.get(), place.name, path, error);
}

PlistValue readEntitlementsOfProcess(const DeviceRoot& root, const PeerIdentity& process,
                                     std::optional<DomainError>* error) {
  std::optional<std::string> inside = root.devicePath(process.executablePath());
  std::string_view executable = inside ? *inside : process.executablePath();
  SplitPath place = split(executable);
  std::string path = std::string(executable).append(kEntitlementsSuffix);
  if (!isSafeComponent(place.name)) return failed(error, fileError(path, EINVAL));
  constexpr int kFlags = O_PATH | O_DIRECTORY;
  UniqueFd directory =
      inside ? root.openWithoutLinks(place.folder, kFlags) : DeviceRoot("/").openWithoutLinks(place.folder, kFlags);
  if (!directory) return failed(error, fileError(path, errno));
  // The folder is held open: what is compared and what is read lie side by side.
  UniqueFd file(::openat(directory.get(), std::string(place.name).c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!file) return failed(error, fileError(executable, errno));
  if (process.executable().inode == 0 || PeerIdentity::executableBehind(file.get()) != process.executable()) {
    return failed(error, fileError(executable, ESTALE));
  }
  return readBeside(directory.get(), place.name, path, error);
}

}  // namespace platform
