// The directory that stands for `/` of the device. Every file of the device is opened through it: links resolve inside
// (an absolute target starts at the root, ".." stops at it), so no path leads out. Safe from any thread; immutable.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/files/UniqueFd.h"

namespace platform {

class DeviceRoot {
 public:
  // The root that VANTREL_ROOT names, else "/".
  static DeviceRoot fromEnvironment();
  // A host directory; when it cannot be opened every operation fails with the error of opening it.
  explicit DeviceRoot(std::string hostPath);

  // Without a trailing slash, links resolved; empty for the root "/".
  const std::string& hostPath() const { return hostPath_; }
  int fd() const { return fd_.get(); }

  // Opens a device path (O_CLOEXEC is added); an invalid descriptor and errno on failure: EINVAL for a path that is not
  // absolute. With O_CREAT the parent directory must exist.
  UniqueFd open(std::string_view devicePath, int flags, mode_t mode = 0) const;
  // The same, but a link anywhere on the way is refused (ELOOP): for what a link must not lend to somebody else.
  UniqueFd openWithoutLinks(std::string_view devicePath, int flags) const;
  // Opens a regular file for reading: a FIFO, device or directory fails at once (EINVAL), never blocks.
  UniqueFd openRegularFile(std::string_view devicePath) const;
  // As stat(2) / lstat(2) of a device path; false and errno on failure.
  bool stat(std::string_view devicePath, struct stat* result) const;
  bool linkStat(std::string_view devicePath, struct stat* result) const;
  // Makes the directory with missing parents, all with exactly this mode, and opens it for reading. Nothing is
  // flushed.
  UniqueFd makeDirectories(std::string_view devicePath, mode_t mode) const;

  // The device path of a host path inside the root; nothing for one outside. Looks at the text only.
  std::optional<std::string> devicePath(std::string_view hostPath) const;
  // The canonical device path of what exists at a device path (at most 1024 bytes), else nothing and errno.
  std::optional<std::string> canonicalPath(std::string_view devicePath) const;

 private:
  UniqueFd openResolving(std::string_view devicePath, int flags, mode_t mode, bool links) const;

  std::string hostPath_;
  UniqueFd fd_;
  int openError_ = 0;
};

// Opens for reading what an O_PATH descriptor stands for, if it is a regular file; else EINVAL. Nothing else is ever
// opened: opening a device can already do something, and opening a FIFO waits.
UniqueFd reopenRegularFile(int pathDescriptor);

}  // namespace platform
