#include "platform/linux/registry/RegistryBundle.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "platform/Log.h"
#include "platform/linux/files/Files.h"
#include "platform/linux/identity/BundleLayout.h"
#include "platform/linux/identity/Entitlements.h"
#include "platform/linux/registry/RegistryNames.h"
#include "platform/plists/PropertyList.h"

namespace platform {
namespace {

constexpr const char* kContents = "Contents";
constexpr const char* kExecutables = "Executables";
// What is kept of a manifest or of entitlements: parts of a binary property list that share each other come out much
// larger than the file.
constexpr std::uint64_t kMaxKeptBytes = std::uint64_t{8} << 20;

}  // namespace

bool isPassingError(int errorNumber) {
  return errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOMEM || errorNumber == EIO ||
         errorNumber == EINTR || errorNumber == EAGAIN;
}

std::string_view executableName(const PlistValue& manifest) {
  PlistValue name = manifest[kBundleExecutableKey];
  return isSafeComponent(name.stringValue()) ? name.stringValue() : std::string_view();
}

RegistryBundle::RegistryBundle(const DeviceRoot& root, std::string canonicalPath, int folder)
    : root_(&root), path_(std::move(canonicalPath)) {
  constexpr int kFlags = O_PATH | O_DIRECTORY;
  if (folder < 0) {
    directory_ = root.openWithoutLinks(path_, kFlags);
  } else {
    directory_ = UniqueFd(::openat(folder, path_.c_str() + path_.rfind('/') + 1, kFlags | O_NOFOLLOW | O_CLOEXEC));
  }
  if (!directory_) {
    note(errno);
    return;
  }
  const std::string contentsPath = path_ + "/" + kContents;
  contents_ = openInside(directory_.get(), kContents, contentsPath);
  if (contents_) {
    manifestStamp_ = stampOf(contents_.get(), contentsPath, std::string(kManifestFileName));
    deep_ = manifestStamp_ != FileStamp();
  }
  if (deep_) {
    executables_ = openInside(contents_.get(), kExecutables, contentsPath + "/" + kExecutables);
  } else {
    manifestStamp_ = stampOf(directory_.get(), path_, std::string(kManifestFileName));
  }
}

void RegistryBundle::note(int errorNumber) const { failed_ = failed_ || isPassingError(errorNumber); }

UniqueFd RegistryBundle::openInside(int parent, const char* name, const std::string& path) {
  UniqueFd opened(::openat(parent, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  // A link is refused as what is no directory; where it leads to, inside the device, there may be one.
  if (!opened && errno == ENOTDIR) opened = root_->open(path, O_PATH | O_DIRECTORY);
  if (!opened) note(errno);
  return opened;
}

FileStamp RegistryBundle::stampOf(int directory, const std::string& folder, const std::string& name) const {
  struct stat state {};
  bool found = ::fstatat(directory, name.c_str(), &state, AT_SYMLINK_NOFOLLOW) == 0;
  if (found && S_ISLNK(state.st_mode)) found = root_->stat(folder + "/" + name, &state);
  if (!found) note(errno);
  return found ? FileStamp::of(state) : FileStamp();
}

bool RegistryBundle::hasLocalizedNames() const {
  struct stat state {};
  return ::fstatat(deep_ ? contents_.get() : directory_.get(), kLocalizedFolder, &state, AT_SYMLINK_NOFOLLOW) == 0;
}

std::string RegistryBundle::executableFolder() const { return deep_ ? supportPath() + "/" + kExecutables : path_; }

BundleStamps RegistryBundle::stamps(std::string_view executable) const {
  BundleStamps stamps;
  stamps.manifest = manifestStamp_;
  int directory = deep_ ? executables_.get() : directory_.get();
  if (executable.empty() || directory < 0) return stamps;
  std::string name(executable);
  stamps.executable = stampOf(directory, executableFolder(), name);
  stamps.entitlements = stampOf(directory, executableFolder(), name.append(kEntitlementsSuffix));
  return stamps;
}

PlistValue RegistryBundle::readManifest(DomainError* error) {
  const std::string path = supportPath() + "/" + std::string(kManifestFileName);
  UniqueFd handle(::openat(deep_ ? contents_.get() : directory_.get(), std::string(kManifestFileName).c_str(),
                           O_PATH | O_NOFOLLOW | O_CLOEXEC));
  UniqueFd file = handle ? reopenRegularFile(handle.get()) : UniqueFd();
  // What is no regular file may be a link to one.
  if (handle && !file && errno == EINVAL) file = root_->openRegularFile(path);
  std::optional<std::string> bytes = file ? readAll(file.get(), kMaxPlistFileBytes) : std::nullopt;
  if (!bytes) {
    note(errno);
    *error = fileError(path, errno);
    return {};
  }
  PlistValue manifest = parsePropertyList(*bytes, error);
  if (manifest.isDictionary() && manifest.encodedSize() <= kMaxKeptBytes) return manifest;
  if (!manifest && error->isInDomain(FileErrorDomain)) note(static_cast<int>(error->code));
  if (manifest) *error = {PlistErrorDomain, 0, manifest.isDictionary() ? "too large" : "not a dictionary"};
  error->description = path + ": " + error->localizedDescription();
  return {};
}

PlistValue RegistryBundle::readEntitlements(const PlistValue& manifest) const {
  std::string_view executable = executableName(manifest);
  if (executable.empty()) return {};
  // Most have none, which is seen at once.
  int directory = deep_ ? executables_.get() : directory_.get();
  std::string name = std::string(executable).append(kEntitlementsSuffix);
  struct stat beside {};
  if (::fstatat(directory, name.c_str(), &beside, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) return {};
  const std::string path = executableFolder() + "/" + std::string(executable);
  struct stat state {};
  if (!root_->stat(path, &state)) note(errno);
  if (!S_ISREG(state.st_mode)) return {};
  std::optional<DomainError> error;
  PlistValue entitlements = platform::readEntitlements(*root_, path, &error);
  if (error) VK_LOG(defaultLog(), Error, "ignoring entitlements: %{public}@", *error);
  if (error && error->isInDomain(FileErrorDomain)) note(static_cast<int>(error->code));
  if (entitlements.encodedSize() <= kMaxKeptBytes) return entitlements;
  VK_LOG(defaultLog(), Error, "ignoring entitlements: %{public}@: too large", path);
  return {};
}

std::vector<RegistryBundle::Directory> RegistryBundle::directories() const {
  std::vector<Directory> result;
  if (!directory_) return result;
  result.push_back({path_, directory_.get()});
  const std::string contents = path_ + "/" + kContents;
  if (contents_) result.push_back({contents, contents_.get()});
  if (executables_) result.push_back({contents + "/" + kExecutables, executables_.get()});
  return result;
}

std::optional<DirectoryListing> listDirectories(const DeviceRoot& root, const std::string& path) {
  DirectoryListing listing{root.openWithoutLinks(path, O_RDONLY | O_DIRECTORY), {}};
  UniqueFd read(listing.directory ? ::fcntl(listing.directory.get(), F_DUPFD_CLOEXEC, 0) : -1);
  if (!read) return std::nullopt;
  std::unique_ptr<DIR, int (*)(DIR*)> directory(::fdopendir(read.get()), ::closedir);
  if (!directory) return std::nullopt;
  static_cast<void>(read.release());  // the stream closes it now
  errno = 0;
  while (const dirent* item = ::readdir(directory.get())) {
    bool candidate = item->d_type == DT_DIR || item->d_type == DT_LNK || item->d_type == DT_UNKNOWN;
    if (candidate && item->d_name[0] != '.') listing.names.emplace_back(item->d_name);
    errno = 0;
  }
  if (errno != 0) return std::nullopt;
  std::sort(listing.names.begin(), listing.names.end());
  return listing;
}

}  // namespace platform
