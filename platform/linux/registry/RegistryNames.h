// The names of bundles in the language of the process: what `Localized/<language>.plist` in the support directory says
// in place of the manifest. With LANG=de_DE.UTF-8 that is de_DE.plist, else de.plist.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/values/PlistValue.h"

namespace platform {

inline constexpr const char* kLocalizedFolder = "Localized";

// The languages to try, best first; none for the plain one ("C", "POSIX", nothing, or what can name no file).
class RegistryLanguages {
 public:
  explicit RegistryLanguages(std::string_view lang);
  static RegistryLanguages fromEnvironment();
  const std::vector<std::string>& names() const { return names_; }
  // Names that were read before this are read again.
  void forget() { generation_.fetch_add(1, std::memory_order_relaxed); }
  std::uint32_t generation() const { return generation_.load(std::memory_order_relaxed); }
  // Guards what every bundle keeps of its names: a lock for each would be the larger part of it.
  std::mutex& mutex() const { return mutex_; }

  RegistryLanguages(RegistryLanguages&& other) noexcept : names_(std::move(other.names_)) {}

 private:
  std::vector<std::string> names_;
  std::atomic<std::uint32_t> generation_{1};
  mutable std::mutex mutex_;
};

// Those of one bundle, read when first asked for. From any thread.
class RegistryNames {
 public:
  // Whether the bundle has a folder of localized names: without one no file is looked for. What was read is forgotten.
  void setLocalized(const RegistryLanguages& languages, bool localized);
  std::optional<std::string> name(const DeviceRoot& root, const RegistryLanguages& languages,
                                  const std::string& supportPath, const PlistValue& manifest) const;
  std::optional<std::string> shortName(const DeviceRoot& root, const RegistryLanguages& languages,
                                       const std::string& supportPath, const PlistValue& manifest) const;

 private:
  PlistValue table(const DeviceRoot& root, const RegistryLanguages& languages, const std::string& supportPath) const;

  std::atomic<bool> localized_{false};
  mutable std::uint32_t generation_ = 0;  // of table_; 0 when it was not read
  mutable PlistValue table_;
};

}  // namespace platform
