#include "platform/linux/registry/RegistryWatcher.h"

#include <sys/inotify.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/files/Files.h"

namespace platform {
namespace {

constexpr std::uint32_t kNames =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Attributes count: they decide whether an entitlement file does.
constexpr std::uint32_t kContent = kNames | IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB;
// Room for a thousand events or so; more are read in the next turn.
constexpr std::size_t kBufferSize = std::size_t{64} << 10;

}  // namespace

RegistryWatcher::RegistryWatcher() : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!fd_) complain(errno);
}

void RegistryWatcher::complain(int errorNumber) {
  if (!std::exchange(complained_, true)) {
    VK_LOG(defaultLog(), Error, "some changes of bundles will not be noticed before the next start: %{public}@",
           fileError(errorNumber == ENOSPC ? "limit of watched directories" : "inotify", errorNumber));
  }
}

bool RegistryWatcher::hold(Hold& hold, const std::string& path, int directory, Changes changes) {
  if (!fd_) return false;
  // By the open descriptor: a path might lead elsewhere meanwhile.
  char link[32];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", directory);
  int watch = ::inotify_add_watch(fd_.get(), link, (changes == Changes::Content ? kContent : kNames) | IN_MASK_ADD);
  if (watch < 0) {
    if (errno != ENOENT && errno != ENOTDIR) complain(errno);
    release(hold);
    return false;
  }
  Watch& known = watches_[watch];
  if (known.path != path) known.path = path;
  if (hold == watch) return false;
  ++known.holds;
  release(hold);
  hold = watch;
  return true;
}

void RegistryWatcher::release(Hold& hold) {
  auto known = watches_.find(std::exchange(hold, kNone));
  if (known == watches_.end() || --known->second.holds != 0) return;
  static_cast<void>(::inotify_rm_watch(fd_.get(), known->first));
  watches_.erase(known);
}

bool RegistryWatcher::read(const Visitor& visit) {
  alignas(inotify_event) char buffer[kBufferSize];
  ssize_t length = fd_ ? ::read(fd_.get(), buffer, sizeof buffer) : 0;
  bool complete = true;
  for (ssize_t at = 0; at < length;) {
    inotify_event event;
    std::memcpy(&event, buffer + at, sizeof event);
    std::string_view name(buffer + at + sizeof event, ::strnlen(buffer + at + sizeof event, event.len));
    at += static_cast<ssize_t>(sizeof event + event.len);
    if ((event.mask & (IN_Q_OVERFLOW | IN_UNMOUNT)) != 0) complete = false;
    auto known = watches_.find(event.wd);
    if (known == watches_.end()) continue;
    std::string directory = known->second.path;
    // The kernel dropped the watch with its directory; holds that are left find nothing to let go.
    if ((event.mask & IN_IGNORED) != 0) watches_.erase(known);
    visit(directory, name);
  }
  return complete;
}

}  // namespace platform
