// Bundles on a scratch device, and a registry on it that tells what it tells its observers.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/registry/RegistryCatalon.h"
#include "platform/plists/PropertyList.h"
#include "tests/Support/Eventually.h"
#include "tests/Support/ScratchRoot.h"

namespace support {

using platform::FileURL;
using platform::PlistBuilder;
using platform::PlistValue;
using platform::RegistryPlugInRecords;

// The manifest of a plug-in with attributes.
inline PlistValue plugInManifest(std::string_view identifier, std::string_view point = "com.example.point") {
  PlistValue section = PlistBuilder()
                           .set("ZoExtensionPointIdentifier", point)
                           .set("ZoExtensionAttributes", PlistBuilder().set("Colour", "red").take())
                           .take();
  return PlistBuilder().set("KvBundleIdentifier", identifier).set("ZoExtension", section).take();
}

class RegistryDevice : public ScratchRoot {
 public:
  // A flat bundle, or one around its own folder Contents.
  void writeBundle(const std::string& path, const PlistValue& manifest) const {
    write(path + "/Info.plist", platform::serializePropertyListXML(manifest));
  }
  void writeApp(const std::string& path, PlistBuilder manifest = {}) const {
    writeBundle(path, manifest.set("KvBundleIdentifier", "com.example.app").take());
  }
  // Moves within the device.
  void move(const std::string& from, const std::string& to) const {
    std::filesystem::create_directories(host(to).parent_path());
    std::filesystem::rename(host(from), host(to));
  }
  void remove(const std::string& path) const { std::filesystem::remove_all(host(path)); }

  std::shared_ptr<platform::RegistryWorkspace> open(std::string_view lang = "") const {
    std::string reason;
    auto registry = platform::makeRegistry(root(), &reason, platform::RegistryLanguages(lang));
    EXPECT_NE(registry, nullptr) << reason;
    return registry;
  }
};

// Paths and UUIDs in the order in which they were told, "+path" and "-path".
class ToldNews final : public platform::RegistryObserver {
 public:
  void pluginsDidInstall(const RegistryPlugInRecords& records) override { add('+', records); }
  void pluginsWillUninstall(const RegistryPlugInRecords& records) override { add('-', records); }
  std::vector<std::string> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(news_, {});
  }
  bool has(const std::string& line) const { return count(line) != 0; }
  std::size_t count(const std::string& line) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count(news_.begin(), news_.end(), line));
  }

 private:
  void add(char sign, const RegistryPlugInRecords& records) {
    std::lock_guard lock(mutex_);
    for (const auto& record : records) news_.push_back(sign + record->bundleURL()->path);
  }
  mutable std::mutex mutex_;
  std::vector<std::string> news_;
};

inline std::vector<std::string> paths(const RegistryPlugInRecords& records) {
  std::vector<std::string> result;
  for (const auto& record : records) result.push_back(record->bundleURL()->path);
  std::sort(result.begin(), result.end());
  return result;
}
inline std::vector<std::string> installed(platform::RegistryWorkspace& registry) {
  return paths(*registry.installedPlugIns());
}

}  // namespace support
