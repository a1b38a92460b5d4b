// A bundle directory held open, so that what is compared and what is read lie in the same one however paths are changed
// meanwhile. Only at its canonical path: where a link stands on the way there is no bundle. Used by one thread.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/files/UniqueFd.h"
#include "platform/linux/registry/RegistryEntry.h"
#include "platform/values/DomainError.h"
#include "platform/values/PlistValue.h"

namespace platform {

// Whether an error says nothing of the file: descriptors or memory ran out, the disk did not answer. What is known of a
// bundle stays in force until it can be looked at.
bool isPassingError(int errorNumber);

class RegistryBundle {
 public:
  // `folder` is the open directory that it lies in, if that is at hand: it need not be looked for then.
  RegistryBundle(const DeviceRoot& root, std::string canonicalPath, int folder = -1);

  bool exists() const { return static_cast<bool>(directory_); }
  // It could not be looked at; exists() and the stamps say nothing then.
  bool failed() const { return failed_; }
  const std::string& path() const { return path_; }
  bool isDeep() const { return deep_; }
  std::string supportPath() const { return deep_ ? path_ + "/Contents" : path_; }
  const FileStamp& manifestStamp() const { return manifestStamp_; }
  bool hasLocalizedNames() const;
  // Of the bundle with a manifest that names this executable.
  BundleStamps stamps(std::string_view executable) const;

  // A dictionary, or nothing and a reason; stamps were taken before.
  PlistValue readManifest(DomainError* error);
  // With the entitlements of the executable that the manifest names; a file that does not count is logged.
  PlistValue readEntitlements(const PlistValue& manifest) const;

  // The directories in which a change may make it another bundle.
  struct Directory {
    std::string path;
    int fd;
  };
  std::vector<Directory> directories() const;

 private:
  UniqueFd openInside(int parent, const char* name, const std::string& path);
  FileStamp stampOf(int directory, const std::string& folder, const std::string& name) const;
  std::string executableFolder() const;
  void note(int errorNumber) const;

  const DeviceRoot* root_;
  std::string path_;
  UniqueFd directory_;
  UniqueFd contents_;
  UniqueFd executables_;
  FileStamp manifestStamp_;
  bool deep_ = false;
  mutable bool failed_ = false;
};

// The name of the executable in a manifest; empty when it names none that could be a file of the bundle.
std::string_view executableName(const PlistValue& manifest);

// What may be bundles in a directory: the names of directories and links that do not start with a dot, ascending.
struct DirectoryListing {
  UniqueFd directory;
  std::vector<std::string> names;
};
// Nothing and errno when it cannot be read to its end.
std::optional<DirectoryListing> listDirectories(const DeviceRoot& root, const std::string& path);

}  // namespace platform
