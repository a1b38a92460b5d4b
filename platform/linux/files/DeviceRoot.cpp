#include "platform/linux/files/DeviceRoot.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/linux/files/PathWalk.h"

namespace platform {
namespace {

// Longer canonical paths are refused: what a message, a record and a log line can be expected to carry.
constexpr std::size_t kMaxCanonicalPath = 1024;
// How often the kernel may say that a directory moved during a resolution before the walk takes over.
constexpr int kMaxResolutions = 16;

std::string withoutTrailingSlashes(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

// The path under which /proc shows an open file; empty and errno when it has none any more.
std::string pathOfDescriptor(int fd) {
  char link[32];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[PATH_MAX];
  ssize_t length = ::readlink(link, target, sizeof target);
  if (length < 0) return {};
  std::string path(target, static_cast<std::size_t>(length));
  struct stat state {};
  // The mark of a deleted file may as well be the end of its name.
  if (path.ends_with(" (deleted)") && (::fstat(fd, &state) != 0 || state.st_nlink == 0)) {
    errno = ENOENT;
    return {};
  }
  return path;
}

// Whether a path could be the canonical one of something.
bool isNormal(std::string_view path) {
  if (!path.starts_with('/')) return false;
  for (std::size_t at = 0; at != std::string_view::npos && path.size() > 1;) {
    std::size_t end = path.find('/', at + 1);
    std::string_view name = path.substr(at + 1, end == std::string_view::npos ? end : end - at - 1);
    if (name.empty() || name == "." || name == "..") return false;
    at = end;
  }
  return true;
}

// Makes one directory of a path; true when it was not there before. umask is not to narrow the mode, and nobody else's
// directory is to be changed that was moved here meanwhile.
bool makeDirectory(int parent, const char* name, mode_t mode) {
  if (::mkdirat(parent, name, mode) != 0) return false;
  UniqueFd made(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat state {};
  if (made && ::fstat(made.get(), &state) == 0 && state.st_uid == ::geteuid() && (state.st_mode & 07777) != mode) {
    static_cast<void>(::fchmod(made.get(), mode));  // a narrower directory still serves its owner
  }
  return true;
}

}  // namespace

DeviceRoot DeviceRoot::fromEnvironment() {
  const char* root = std::getenv("VANTREL_ROOT");
  return DeviceRoot(root == nullptr || *root == '\0' ? "/" : root);
}

DeviceRoot::DeviceRoot(std::string hostPath)
    : hostPath_(std::move(hostPath)), fd_(::open(hostPath_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
  openError_ = fd_ ? 0 : errno;
  std::string resolved = fd_ ? pathOfDescriptor(fd_.get()) : std::string();
  hostPath_ = withoutTrailingSlashes(resolved.empty() ? std::move(hostPath_) : std::move(resolved));
}

UniqueFd DeviceRoot::openResolving(std::string_view devicePath, int flags, mode_t mode, bool links) const {
  static std::atomic<bool> kernelResolves{true};
  char path[PATH_MAX];
  int refusal = openError_                                        ? openError_
                : !devicePath.starts_with('/')                    ? EINVAL
                : devicePath.size() >= PATH_MAX                   ? ENAMETOOLONG
                : devicePath.find('\0') != std::string_view::npos ? EINVAL
                                                                  : 0;
  if (refusal != 0) {
    errno = refusal;
    return {};
  }
  path[devicePath.copy(path, sizeof path - 1)] = '\0';
  open_how how{};
  how.flags = static_cast<std::uint64_t>(static_cast<unsigned>(flags | O_CLOEXEC));
  how.mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? mode : 0;
  how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS | (links ? 0 : RESOLVE_NO_SYMLINKS);
  for (int i = 0; i < kMaxResolutions && kernelResolves.load(std::memory_order_relaxed); ++i) {
    UniqueFd opened(static_cast<int>(::syscall(SYS_openat2, fd_.get(), path, &how, sizeof how)));
    if (opened || (errno != EAGAIN && errno != ENOSYS && errno != EPERM)) return opened;
    if (errno == ENOSYS) kernelResolves.store(false, std::memory_order_relaxed);
    // EPERM may be a filter of system calls that does not know this one: the walk has the last word.
    if (errno == EPERM) break;
  }
  return openInRoot(fd_.get(), devicePath, flags, mode, links);
}

UniqueFd DeviceRoot::open(std::string_view devicePath, int flags, mode_t mode) const {
  return openResolving(devicePath, flags, mode, true);
}

UniqueFd DeviceRoot::openWithoutLinks(std::string_view devicePath, int flags) const {
  return openResolving(devicePath, flags | O_NOFOLLOW, 0, false);
}

UniqueFd reopenRegularFile(int pathDescriptor) {
  struct stat state {};
  if (::fstat(pathDescriptor, &state) != 0) return {};
  if (!S_ISREG(state.st_mode)) {
    errno = EINVAL;
    return {};
  }
  char link[32];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", pathDescriptor);
  return UniqueFd(::open(link, O_RDONLY | O_CLOEXEC | O_NOCTTY));
}

UniqueFd DeviceRoot::openRegularFile(std::string_view devicePath) const {
  UniqueFd path = open(devicePath, O_PATH);
  return path ? reopenRegularFile(path.get()) : UniqueFd();
}

bool DeviceRoot::stat(std::string_view devicePath, struct stat* result) const {
  UniqueFd path = open(devicePath, O_PATH);
  return path && ::fstat(path.get(), result) == 0;
}

bool DeviceRoot::linkStat(std::string_view devicePath, struct stat* result) const {
  UniqueFd path = open(devicePath, O_PATH | O_NOFOLLOW);
  return path && ::fstat(path.get(), result) == 0;
}

UniqueFd DeviceRoot::makeDirectories(std::string_view devicePath, mode_t mode) const {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY;
  UniqueFd directory = open(devicePath, kFlags);
  if (directory || errno != ENOENT) return directory;
  for (std::size_t at = 0; at < devicePath.size();) {
    std::size_t start = devicePath.find_first_not_of('/', at);
    if (start == std::string_view::npos) break;
    std::size_t end = std::min(devicePath.find('/', start), devicePath.size());
    UniqueFd parent = open(devicePath.substr(0, std::max<std::size_t>(start, 1)), kFlags);
    if (!parent) return parent;
    bool made = makeDirectory(parent.get(), std::string(devicePath.substr(start, end - start)).c_str(), mode);
    if (!made && errno != EEXIST) return {};
    at = end;
  }
  return open(devicePath, kFlags);
}

std::optional<std::string> DeviceRoot::devicePath(std::string_view hostPath) const {
  if (!hostPath.starts_with('/') || !hostPath.starts_with(hostPath_)) return std::nullopt;
  std::string_view rest = hostPath.substr(hostPath_.size());
  if (rest.empty()) return "/";
  if (!rest.starts_with('/')) return std::nullopt;
  return std::string(rest);
}

std::optional<std::string> DeviceRoot::canonicalPath(std::string_view devicePathText) const {
  // Mostly it is canonical already, and to be told so by the kernel costs more than to open it.
  if (isNormal(devicePathText) && devicePathText.size() <= kMaxCanonicalPath) {
    if (openResolving(devicePathText, O_PATH, 0, false)) return std::string(devicePathText);
    if (errno != ELOOP) return std::nullopt;
  }
  UniqueFd path = open(devicePathText, O_PATH);
  if (!path) return std::nullopt;
  std::string found = pathOfDescriptor(path.get());
  if (found.empty()) return std::nullopt;
  std::optional<std::string> result = devicePath(found);
  if (!result || result->size() > kMaxCanonicalPath) {
    errno = result ? ENAMETOOLONG : ENOENT;
    return std::nullopt;
  }
  return result;
}

}  // namespace platform
