#include "platform/linux/files/LinuxFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "platform/linux/files/Files.h"

namespace platform {
namespace {

constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kNewFolderMode = 0755;
// Time stamps of files advance in ticks of a few milliseconds.
constexpr std::int64_t kSettlingNanoseconds = 50'000'000;
constexpr int kDirectory = O_RDONLY | O_DIRECTORY;

// A file by the open directory that holds it, so that both are the same from one step to the next.
struct Place {
  UniqueFd directory;
  std::string_view path;  // of the directory
  std::string name;
};

std::optional<Place> placeOf(const DeviceRoot& root, std::string_view path, bool make) {
  std::size_t slash = path.rfind('/');
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (slash == std::string_view::npos || !isSafeComponent(name)) {
    errno = EINVAL;
    return std::nullopt;
  }
  std::string_view folder = path.substr(0, slash + 1);
  Place place{make ? root.makeDirectories(folder, kNewFolderMode) : root.open(folder, kDirectory), folder,
              std::string(name)};
  if (!place.directory) return std::nullopt;
  return place;
}

bool failed(DomainError* error, const FileURL& url) {
  int number = errno;
  if (error != nullptr) *error = fileError(url.path, number);
  return false;
}

mode_t modeFor(const Place& place) {
  struct stat old {};
  int found = ::fstatat(place.directory.get(), place.name.c_str(), &old, AT_SYMLINK_NOFOLLOW);
  return found == 0 && S_ISREG(old.st_mode) ? old.st_mode & 0777 : kNewFileMode;
}

bool linkOrMove(const Place& from, const Place& to) {
  if (::linkat(from.directory.get(), from.name.c_str(), to.directory.get(), to.name.c_str(), 0) == 0) return true;
  // A directory, a file system without second names, or a file that this user may not give one.
  bool otherWay = errno == EPERM || errno == EOPNOTSUPP || errno == EMLINK;
  return otherWay && ::renameat2(from.directory.get(), from.name.c_str(), to.directory.get(), to.name.c_str(),
                                 RENAME_NOREPLACE) == 0;
}

std::int64_t nanoseconds(const timespec& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; }

}  // namespace

std::optional<std::string> LinuxFileSystem::readFile(const FileURL& url, DomainError* error, std::uint64_t limit) {
  UniqueFd file = root_->openRegularFile(url.path);
  std::optional<std::string> bytes = file ? readAll(file.get(), limit) : std::nullopt;
  if (!bytes) failed(error, url);
  return bytes;
}

bool LinuxFileSystem::writeFileAtomically(const FileURL& url, std::string_view bytes, DomainError* error) {
  std::optional<Place> place = placeOf(*root_, url.path, true);
  if (!place || !flushAbove(place->directory.get(), place->path)) return failed(error, url);
  return replaceFile(place->directory.get(), place->name, bytes, modeFor(*place), true) || failed(error, url);
}

// Whoever made the folders may not have flushed their names. Once for a folder: a name that is there stays there.
bool LinuxFileSystem::flushAbove(int folder, std::string_view path) {
  struct stat state {};
  if (::fstat(folder, &state) != 0) return false;
  const std::pair<std::uint64_t, std::uint64_t> identity{state.st_dev, state.st_ino};
  std::lock_guard lock(mutex_);
  if (flushed_ == identity) return true;
  if (!flushFoldersAbove(*root_, path)) return false;
  flushed_ = identity;
  return true;
}

bool LinuxFileSystem::keepFile(const FileURL& file, const FileURL& secondName, DomainError* error) {
  std::optional<Place> source = placeOf(*root_, file.path, false);
  if (!source) return failed(error, file);
  std::optional<Place> target = placeOf(*root_, secondName.path, false);
  if (!target || !linkOrMove(*source, *target)) return failed(error, secondName);
  // The new name first: a power cut in between leaves the file under both names rather than under none.
  if (::fsync(target->directory.get()) != 0 || ::fsync(source->directory.get()) != 0) return failed(error, secondName);
  return true;
}

bool LinuxFileSystem::createDirectory(const FileURL& url, unsigned permissions, DomainError* error) {
  return root_->makeDirectories(url.path, permissions) || failed(error, url);
}

std::optional<FileSystem::Stamp> stampOf(const DeviceRoot& root, std::string_view devicePath) {
  struct stat state {};
  if (!root.stat(devicePath, &state)) return std::nullopt;
  if (!S_ISREG(state.st_mode)) {
    errno = EINVAL;
    return std::nullopt;
  }
  return stampOf(state);
}

FileSystem::Stamp stampOf(const struct stat& state) {
  return {state.st_dev, state.st_ino, static_cast<std::uint64_t>(state.st_size), nanoseconds(state.st_mtim),
          nanoseconds(state.st_ctim)};
}

bool isSettled(const FileSystem::Stamp& stamp) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return nanoseconds(now) - stamp.changedNanoseconds > kSettlingNanoseconds;
}

std::optional<FileSystem::Stamp> LinuxFileSystem::stampOfFile(const FileURL& url) { return stampOf(*root_, url.path); }

bool LinuxFileSystem::exists(const FileURL& url) { return static_cast<bool>(root_->open(url.path, O_PATH)); }

std::optional<std::string> LinuxFileSystem::canonicalPath(std::string_view path) { return root_->canonicalPath(path); }

}  // namespace platform
