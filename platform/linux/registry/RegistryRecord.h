// Records of Catalon: a plug-in's is an immutable view of its entry; an application's follows its manifest, since
// nothing says anew that an application is installed. What all of them share is the context.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Registry.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/registry/RegistryContainers.h"
#include "platform/linux/registry/RegistryEntry.h"
#include "platform/linux/registry/RegistryNames.h"

namespace platform {

class RegistryIndex;

// Outlives the registry as long as a record does.
struct RegistryContext {
  RegistryContext(std::shared_ptr<const DeviceRoot> deviceRoot, RegistryLanguages spoken)
      : root(std::move(deviceRoot)), languages(std::move(spoken)), containers(root) {}

  const std::shared_ptr<const DeviceRoot> root;
  RegistryLanguages languages;
  RegistryContainers containers;
};

class RegistryApp final : public RegistryAppRecord {
 public:
  RegistryApp(std::shared_ptr<RegistryContext> context, std::weak_ptr<const RegistryIndex> index, std::string path);

  FileURL bundleURL() const override { return FileURL{path_}; }
  std::optional<std::string> localizedName() const override;
  bool isPlaceholder() const override { return placeholder_.load(std::memory_order_relaxed); }
  RegistryPlugInRecords plugIns() const override;

  const std::string& path() const { return path_; }
  RegistryAppEntry entry() const;
  // What its manifest says now; an empty entry when it has none that can be read.
  void update(RegistryAppEntry entry, bool deep, bool localized);

 private:
  const std::shared_ptr<RegistryContext> context_;
  const std::weak_ptr<const RegistryIndex> index_;
  const std::string path_;
  std::atomic<bool> placeholder_{false};
  RegistryNames names_;
  mutable std::mutex mutex_;
  RegistryAppEntry entry_;
  bool deep_ = false;
};

class RegistryRecord final : public RegistryPlugInRecord {
 public:
  // `application` may be null.
  RegistryRecord(std::shared_ptr<RegistryContext> context, std::shared_ptr<RegistryApp> application, std::string path,
                 const RegistryEntry& entry);

  std::optional<FileURL> bundleURL() const override { return FileURL{path_}; }
  std::string plugInIdentifier() const override { return std::string(identifier()); }
  std::string originalIdentifier() const override;
  std::string bundleIdentifier() const override;
  std::string bundleVersion() const override;
  std::optional<UUID> plugInUUID() const override { return uuid_; }
  PlistValue plugInDictionary() const override { return section_; }
  PlistValue entitlements() const override { return entitlements_; }
  PlistValue infoDictionary() const override { return manifest_; }
  PlistValue objectForKey(std::string_view key, Scope scope) const override;
  double registrationDate() const override { return date_; }
  bool onSystemPartition() const override { return path_.starts_with("/System/"); }
  std::shared_ptr<RegistryBundleRecord> containingBundle() const override { return application_; }
  std::optional<std::string> localizedName() const override;
  std::optional<std::string> localizedShortName() const override;
  std::optional<FileURL> dataContainerURL() const override { return context_->containers.find(identifier()); }

  const std::string& path() const { return path_; }
  const UUID& uuid() const { return uuid_; }
  std::string_view identifier() const { return identifier_.stringValue(); }
  const RegistryApp* application() const { return application_.get(); }
  // Whether registering it makes a data container.
  bool wantsDataContainer() const;
  void setLocalized(bool localized) { names_.setLocalized(context_->languages, localized); }

 private:
  friend class RegistryIndex;

  const std::shared_ptr<RegistryContext> context_;
  const std::shared_ptr<RegistryApp> application_;
  const std::string path_;
  // All are parts of one encoded entry.
  const PlistValue manifest_;
  const PlistValue section_;
  const PlistValue attributes_;
  const PlistValue entitlements_;
  PlistValue identifier_;
  const UUID uuid_;
  const double date_;
  const bool deep_;
  RegistryNames names_;
  std::uint64_t order_ = 0;  // among the records of the index, which alone reads and sets it
};

}  // namespace platform
