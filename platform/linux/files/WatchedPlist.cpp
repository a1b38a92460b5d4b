#include "platform/linux/files/WatchedPlist.h"

#include <cerrno>

#include "platform/Log.h"
#include "platform/linux/files/Files.h"
#include "platform/linux/files/LinuxFileSystem.h"

namespace platform {

void WatchedPlist::refresh(const DeviceRoot& root) {
  std::optional<FileSystem::Stamp> stamp = stampOf(root, path_);
  if (!stamp) {
    // Whatever else keeps it from being seen says nothing about what the user wants.
    good_ = errno == ENOENT || errno == ENOTDIR;
    if (good_) *this = WatchedPlist(path_);
    return;
  }
  if (stamp == stamp_ && settled_) return;
  bool knownBad = !good_ && stamp == stamp_;
  settled_ = isSettled(*stamp);
  stamp_ = stamp;
  DomainError error;
  PlistValue value = readPlistFile(root, path_, &error);
  good_ = static_cast<bool>(value);
  if (good_) {
    value_ = std::move(value);
  } else if (!knownBad) {
    VK_LOG(defaultLog(), Error, "unable to read %{public}@ error:%{public}@", path_, error);
  }
}

}  // namespace platform
