// Where the parts of a bundle lie on this device.
//
//   deep bundle                              flat bundle
//     B/Contents/Info.plist                    B/Info.plist
//     B/Contents/Executables/<executable>      B/<executable>
//     B/Contents/PlugIns/, Localized/          B/PlugIns/, Localized/
//
// A bundle is a directory; one without a manifest is flat. Looks at the disk when made and when asked, keeps nothing
// else; an object is used by one thread at a time.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/values/DomainError.h"
#include "platform/values/PlistValue.h"

namespace platform {

inline constexpr std::string_view kManifestFileName = "Info.plist";
inline constexpr std::string_view kBundleExecutableKey = "KvBundleExecutable";

class BundleLayout {
 public:
  // The bundle at a device path; nothing when there is no directory.
  static std::optional<BundleLayout> at(const DeviceRoot& root, std::string_view devicePath);
  // The bundle in whose place for executables this file lies; nothing when it is no file of a bundle.
  static std::optional<BundleLayout> ofExecutable(const DeviceRoot& root, std::string_view devicePath);

  // Canonical device paths.
  const std::string& path() const { return path_; }
  const std::string& supportPath() const { return supportPath_; }
  std::string manifestPath() const;
  bool isDeep() const { return supportPath_.size() != path_.size(); }

  // A dictionary, or nothing and *error (may be null).
  PlistValue readManifest(const DeviceRoot& root, DomainError* error = nullptr) const;
  // The executable that this manifest names, when its file is there.
  std::optional<std::string> executablePath(const DeviceRoot& root, const PlistValue& manifest) const;

 private:
  BundleLayout(std::string path, bool deep);
  std::string path_;
  std::string supportPath_;
};

}  // namespace platform
