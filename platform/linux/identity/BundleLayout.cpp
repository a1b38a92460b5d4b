#include "platform/linux/identity/BundleLayout.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "platform/linux/files/Files.h"

namespace platform {
namespace {

constexpr std::string_view kContents = "/Contents";
constexpr std::string_view kExecutables = "/Executables";

std::string joined(std::string_view folder, std::string_view name) {
  std::string path(folder);
  if (!path.ends_with('/')) path += '/';
  return path.append(name);
}

bool isRegularFile(const DeviceRoot& root, const std::string& path) {
  struct stat state {};
  return root.stat(path, &state) && S_ISREG(state.st_mode);
}

bool isDirectory(const DeviceRoot& root, std::string_view path) {
  struct stat state {};
  return root.stat(path, &state) && S_ISDIR(state.st_mode);
}

bool hasDeepManifest(const DeviceRoot& root, std::string_view path) {
  return isRegularFile(root, joined(std::string(path).append(kContents), kManifestFileName));
}

}  // namespace

BundleLayout::BundleLayout(std::string path, bool deep) : path_(std::move(path)), supportPath_(path_) {
  if (deep) supportPath_.append(kContents);
}

std::optional<BundleLayout> BundleLayout::at(const DeviceRoot& root, std::string_view devicePath) {
  std::optional<std::string> path = root.canonicalPath(devicePath);
  if (!path || !isDirectory(root, *path)) return std::nullopt;
  bool deep = hasDeepManifest(root, *path);
  return BundleLayout(std::move(*path), deep);
}

std::optional<BundleLayout> BundleLayout::ofExecutable(const DeviceRoot& root, std::string_view devicePath) {
  std::size_t slash = devicePath.rfind('/');
  if (slash == std::string_view::npos || !isRegularFile(root, std::string(devicePath))) return std::nullopt;
  // The place counts, not what a link there leads to: the program in a bundle may be shared with others.
  std::optional<std::string> folder = root.canonicalPath(devicePath.substr(0, slash + 1));
  if (!folder || *folder == "/") return std::nullopt;
  const std::string deepPlace = std::string(kContents).append(kExecutables);
  if (folder->ends_with(deepPlace)) {
    std::string bundle = folder->substr(0, folder->size() - deepPlace.size());
    if (!bundle.empty() && hasDeepManifest(root, bundle)) return BundleLayout(std::move(bundle), true);
  }
  if (!isRegularFile(root, joined(*folder, kManifestFileName)) || hasDeepManifest(root, *folder)) return std::nullopt;
  return BundleLayout(std::move(*folder), false);
}

std::string BundleLayout::manifestPath() const { return joined(supportPath_, kManifestFileName); }

PlistValue BundleLayout::readManifest(const DeviceRoot& root, DomainError* error) const {
  PlistValue manifest = readPlistFile(root, manifestPath(), error);
  if (!manifest || manifest.isDictionary()) return manifest;
  if (error != nullptr) *error = {PlistErrorDomain, 0, manifestPath() + ": not a dictionary"};
  return {};
}

std::optional<std::string> BundleLayout::executablePath(const DeviceRoot& root, const PlistValue& manifest) const {
  PlistValue name = manifest[kBundleExecutableKey];
  if (!isSafeComponent(name.stringValue())) return std::nullopt;
  std::string folder = isDeep() ? supportPath_ + std::string(kExecutables) : path_;
  std::string path = joined(folder, name.stringValue());
  if (!isRegularFile(root, path)) return std::nullopt;
  return path;
}

}  // namespace platform
