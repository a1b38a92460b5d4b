#include "platform/linux/files/Files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <new>
#include <system_error>
#include <utility>

#include "platform/plists/PropertyList.h"
#include "platform/values/UUID.h"

namespace platform {
namespace {

// Removes what was not moved into place.
class Aside {
 public:
  Aside(int directory, std::string name) : directory_(directory), name_(std::move(name)) {}
  Aside(const Aside&) = delete;
  Aside& operator=(const Aside&) = delete;
  ~Aside() {
    int error = errno;
    if (!name_.empty()) ::unlinkat(directory_, name_.c_str(), 0);
    errno = error;
  }
  const char* name() const { return name_.c_str(); }
  void keep() { name_.clear(); }

 private:
  int directory_;
  std::string name_;
};

bool fill(int fd, std::string_view bytes, mode_t mode, bool durable) {
  return ::fchmod(fd, mode) == 0 && writeAll(fd, bytes) && (!durable || ::fsync(fd) == 0);
}

// Where names are short enough the file aside carries the name of the file, for whoever finds one after a crash.
std::string asideName(const std::string& name, std::string_view mark) {
  std::string result = "." + name.substr(0, NAME_MAX - 64);
  return result.append(".").append(mark);
}

// The file is complete before it has a name, and its name aside is always the same: a crash leaves at most one behind,
// and the next writer takes that away. Another writer at the same moment may take this one's away: false and ENOENT.
bool moveUnnamed(int directory, int fd, const std::string& name) {
  char link[32];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  Aside aside(directory, asideName(name, "new"));
  while (::linkat(AT_FDCWD, link, directory, aside.name(), AT_SYMLINK_FOLLOW) != 0) {
    if (errno != EEXIST) return false;
    if (::unlinkat(directory, aside.name(), 0) != 0 && errno != ENOENT) return false;
  }
  if (::renameat(directory, aside.name(), directory, name.c_str()) != 0) return false;
  aside.keep();
  return true;
}

// For file systems without unnamed files, and for writers in each other's way.
bool moveNamed(int directory, const std::string& name, std::string_view bytes, mode_t mode, bool durable) {
  std::string unique = asideName(name, UUID::random().text());
  UniqueFd file(::openat(directory, unique.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) return false;
  Aside aside(directory, unique);
  if (!fill(file.get(), bytes, mode, durable)) return false;
  if (::renameat(directory, aside.name(), directory, name.c_str()) != 0) return false;
  aside.keep();
  return true;
}

}  // namespace

DomainError fileError(std::string_view path, int errorNumber) {
  std::string text(path);
  text.append(": ").append(std::generic_category().message(errorNumber));
  return {FileErrorDomain, errorNumber == ENOENT ? FileErrorNoSuchFile : errorNumber, std::move(text)};
}

bool isSafeComponent(std::string_view name) {
  return !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

std::optional<std::string> readAll(int fd, std::uint64_t limit) try {
  struct stat state {};
  if (::fstat(fd, &state) != 0) return std::nullopt;
  std::uint64_t expected = state.st_size > 0 ? static_cast<std::uint64_t>(state.st_size) : 0;
  std::string bytes;
  std::size_t length = 0;
  // One byte more than expected, so that the end of the file shows without a second buffer.
  for (std::size_t room = std::min(expected, limit) + 1;;
       room = std::min<std::uint64_t>(length * 2 + 4096, limit + 1)) {
    bytes.resize(room);
    while (length < bytes.size()) {
      ssize_t got = ::read(fd, bytes.data() + length, bytes.size() - length);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return std::nullopt;
      if (got == 0) {
        bytes.resize(length);
        return bytes;
      }
      length += static_cast<std::size_t>(got);
    }
    if (length > limit) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return std::nullopt;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

PlistValue readPlistFile(const DeviceRoot& root, std::string_view devicePath, DomainError* error, std::uint64_t limit) {
  UniqueFd file = root.openRegularFile(devicePath);
  std::optional<std::string> bytes = file ? readAll(file.get(), limit) : std::nullopt;
  if (!bytes) {
    if (error != nullptr) *error = fileError(devicePath, errno);
    return {};
  }
  return parsePropertyList(*bytes, error);
}

bool flushFoldersAbove(const DeviceRoot& root, std::string_view folder) {
  std::size_t end = folder.find_last_not_of('/');
  while (end != std::string_view::npos) {
    std::size_t slash = folder.rfind('/', end);
    if (slash == std::string_view::npos) break;
    UniqueFd above = root.open(folder.substr(0, slash + 1), O_RDONLY | O_DIRECTORY);
    bool done = above && ::fsync(above.get()) == 0;
    if (!done && errno != EACCES && errno != EINVAL && errno != EROFS) return false;
    end = folder.substr(0, slash).find_last_not_of('/');
  }
  return true;
}

bool replaceFile(int directory, const std::string& name, std::string_view bytes, mode_t mode, bool durable) {
  UniqueFd unnamed(::openat(directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  bool moved = unnamed && fill(unnamed.get(), bytes, mode, durable) && moveUnnamed(directory, unnamed.get(), name);
  if (!moved) {
    bool otherWay = errno == ENOENT || (!unnamed && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL));
    moved = otherWay && moveNamed(directory, name, bytes, mode, durable);
  }
  return moved && (!durable || ::fsync(directory) == 0);
}

}  // namespace platform
