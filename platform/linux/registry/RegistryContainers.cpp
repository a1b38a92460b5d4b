#include "platform/linux/registry/RegistryContainers.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/files/Files.h"

namespace platform {
namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kContainerMode = 0700;  // what a plug-in keeps is nobody else's business

}  // namespace

std::shared_ptr<const UniqueFd> RegistryContainers::folder() const {
  std::lock_guard lock(mutex_);
  struct stat state {};
  // One that was deleted since then holds nothing any more, whatever lies at its path now.
  if (folder_ && (::fstat(folder_->get(), &state) != 0 || state.st_nlink == 0)) folder_.reset();
  if (!folder_) {
    UniqueFd opened = root_->open(kDirectory, O_PATH | O_DIRECTORY);
    if (opened) folder_ = std::make_shared<const UniqueFd>(std::move(opened));
  }
  return folder_;
}

std::shared_ptr<const UniqueFd> RegistryContainers::keptFolder() const {
  std::lock_guard lock(mutex_);
  return folder_;
}

void RegistryContainers::forgetFolder() {
  std::lock_guard lock(mutex_);
  folder_.reset();
}

bool RegistryContainers::make(std::string_view identifier) {
  if (!isSafeComponent(identifier)) {
    VK_LOG(defaultLog(), Info, "no data container can be named \"%@\"", identifier);
    return false;
  }
  std::string name(identifier);
  std::shared_ptr<const UniqueFd> parent = folder();
  if (!parent && root_->makeDirectories(kDirectory, kFolderMode)) parent = folder();
  if (parent && ::mkdirat(parent->get(), name.c_str(), kContainerMode) == 0) return flushDue_ = true;
  if (parent && errno == EEXIST) return true;
  VK_LOG(defaultLog(), Error, "cannot make a data container: %{public}@",
         fileError(FileURL{std::string(kDirectory)}.appending(identifier).path, errno));
  return false;
}

void RegistryContainers::flush() {
  if (!std::exchange(flushDue_, false)) return;
  UniqueFd directory = root_->open(kDirectory, O_RDONLY | O_DIRECTORY);
  aboveFlushDue_ = aboveFlushDue_ && !flushFoldersAbove(*root_, kDirectory);
  if (!aboveFlushDue_ && directory && ::fsync(directory.get()) == 0) return;
  VK_LOG(defaultLog(), Error, "cannot flush data containers: %{public}@", fileError(kDirectory, errno));
}

std::optional<FileURL> RegistryContainers::find(std::string_view identifier) const {
  if (!isSafeComponent(identifier)) return std::nullopt;
  const std::string name(identifier);
  struct stat state {};
  auto isIn = [&](const std::shared_ptr<const UniqueFd>& parent) {
    return parent && ::fstatat(parent->get(), name.c_str(), &state, AT_SYMLINK_NOFOLLOW) == 0;
  };
  // What is found lies in a folder that was not deleted: only when nothing is, that has to be asked.
  if (!isIn(keptFolder()) && !isIn(folder())) return std::nullopt;
  FileURL url = FileURL{std::string(kDirectory)}.appending(identifier);
  if (S_ISLNK(state.st_mode) && !root_->stat(url.path, &state)) return std::nullopt;
  return S_ISDIR(state.st_mode) ? std::optional(std::move(url)) : std::nullopt;
}

}  // namespace platform
