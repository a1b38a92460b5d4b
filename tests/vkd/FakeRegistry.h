// An application registry in memory: records are plain structures, and every question that is asked is counted.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Vornik/VKKeys.h"
#include "platform/Registry.h"

namespace vkd::testing {

using namespace platform;

struct FakeBundleRecord : RegistryBundleRecord {
  FileURL url;
  std::optional<std::string> name;
  bool application = true, placeholder = false;

  FileURL bundleURL() const override { return url; }
  std::optional<std::string> localizedName() const override { return name; }
  bool isApplication() const override { return application; }
  bool isPlaceholder() const override { return placeholder; }
};

struct FakeRecord : RegistryPlugInRecord {
  std::optional<FileURL> url;
  std::string identifier, original, bundleId = "bundle", bundleVersionText = "1";
  std::optional<UUID> uuid = UUID::random();
  PlistValue manifest, rights;
  double date = 0;
  bool system = false;
  std::shared_ptr<FakeBundleRecord> containing;
  std::optional<std::string> name, shortName;
  std::optional<FileURL> container = FileURL{"/var/containers/it"};
  mutable std::atomic<int> urlReads = 0;

  // A good application extension inside /Applications/Host.app; `attributes` complete its own.
  static std::shared_ptr<FakeRecord> appex(std::string identifier, const PlistValue& attributes = {}) {
    auto record = std::make_shared<FakeRecord>();
    record->identifier = identifier;
    record->original = identifier;
    record->url = FileURL{"/Applications/Host.app/PlugIns/" + identifier + ".appex"};
    PlistValue all = PlistBuilder(attributes).set(Vornik::kVKExtensionPointIdentifier, "test.point").take();
    if (!all.contains(Vornik::kVKExtensionVersion)) {
      all = PlistBuilder(all).set(Vornik::kVKExtensionVersion, "1.0").take();
    }
    record->setSection(PlistBuilder()
                           .set(Vornik::kVKExtensionAttributes, all)
                           .set(Vornik::kVKExtensionPointIdentifier, "test.point")
                           .take());
    record->containing = std::make_shared<FakeBundleRecord>();
    record->containing->url = FileURL{"/Applications/Host.app"};
    return record;
  }
  void setSection(const PlistValue& section, std::string_view under = Vornik::kVKExtension) {
    manifest = compactPlist(PlistBuilder(manifest).set(under, section).take());
  }
  void changeSection(std::string_view key, const PlistValue& value) {
    setSection(PlistBuilder(plugInDictionary()).set(key, value).take());
  }
  void changeManifest(std::string_view key, const PlistValue& value) {
    manifest = compactPlist(PlistBuilder(manifest).set(key, value).take());
  }

  std::optional<FileURL> bundleURL() const override { return ++urlReads, url; }
  std::string plugInIdentifier() const override { return identifier; }
  std::string originalIdentifier() const override { return original; }
  std::string bundleIdentifier() const override { return bundleId; }
  std::string bundleVersion() const override { return bundleVersionText; }
  std::optional<UUID> plugInUUID() const override { return uuid; }
  PlistValue plugInDictionary() const override {
    PlistValue section = manifest[Vornik::kVKExtension];
    return section ? section : manifest[Vornik::kVKLegacySection];
  }
  PlistValue entitlements() const override { return rights; }
  PlistValue infoDictionary() const override { return manifest; }
  PlistValue objectForKey(std::string_view key, Scope scope) const override {
    switch (scope) {
      case Scope::Attributes:
        return plugInDictionary()[Vornik::kVKExtensionAttributes][key];
      case Scope::PlugIn:
        return plugInDictionary()[key];
      case Scope::Manifest:
        return manifest[key];
    }
    return {};
  }
  double registrationDate() const override { return date; }
  bool onSystemPartition() const override { return system; }
  std::shared_ptr<RegistryBundleRecord> containingBundle() const override { return containing; }
  std::optional<std::string> localizedName() const override { return name; }
  std::optional<std::string> localizedShortName() const override { return shortName; }
  std::optional<FileURL> dataContainerURL() const override { return container; }
};

struct FakeAppRecord : RegistryAppRecord {
  FileURL url;
  bool placeholder = false;
  RegistryPlugInRecords list;

  FileURL bundleURL() const override { return url; }
  std::optional<std::string> localizedName() const override { return std::nullopt; }
  bool isPlaceholder() const override { return placeholder; }
  RegistryPlugInRecords plugIns() const override { return list; }
};

struct FakeRegistry : RegistryWorkspace {
  std::optional<RegistryPlugInRecords> installed = RegistryPlugInRecords();
  std::map<std::string, std::shared_ptr<FakeAppRecord>> apps;
  bool accepts = true;  // registrations
  std::vector<std::string> registered, unregistered;
  int cacheClears = 0, uuidLookups = 0;
  RegistryObserver* observer = nullptr;

  std::shared_ptr<FakeRecord> add(std::shared_ptr<FakeRecord> record) {
    installed->push_back(record);
    return record;
  }
  void uninstall(const std::shared_ptr<FakeRecord>& record) {
    std::erase(*installed, std::shared_ptr<RegistryPlugInRecord>(record));
    if (observer != nullptr) observer->pluginsWillUninstall({record});
  }

  void addObserver(RegistryObserver* added) override { observer = added; }
  void removeObserver(RegistryObserver* removed) override {
    if (observer == removed) observer = nullptr;
  }
  std::optional<RegistryPlugInRecords> installedPlugIns() override { return installed; }
  std::optional<RegistryPlugInRecords> plugInsMatching(const PlistValue&, const Filter& filter) override {
    if (!installed) return std::nullopt;
    RegistryPlugInRecords kept;
    for (const auto& record : *installed) {
      if (filter(record->plugInIdentifier(), record->entitlements())) kept.push_back(record);
    }
    return kept;
  }
  bool registerPlugIn(const FileURL& url) override { return registered.push_back(url.path), accepts; }
  bool unregisterPlugIn(const FileURL& url) override { return unregistered.push_back(url.path), accepts; }
  void clearSchemaCaches() override { ++cacheClears; }
  std::shared_ptr<RegistryPlugInRecord> plugInRecord(const UUID& uuid) override {
    ++uuidLookups;
    return find([&](const RegistryPlugInRecord& record) { return record.plugInUUID() == uuid; });
  }
  std::shared_ptr<RegistryPlugInRecord> plugInRecord(const FileURL& bundleURL) override {
    return find([&](const RegistryPlugInRecord& record) { return record.bundleURL() == bundleURL; });
  }
  std::shared_ptr<RegistryAppRecord> appRecord(const FileURL& bundleURL) override {
    auto found = apps.find(bundleURL.path);
    return found == apps.end() ? nullptr : found->second;
  }

 private:
  template <class Test>
  std::shared_ptr<RegistryPlugInRecord> find(const Test& test) const {
    for (const auto& record : *installed) {
      if (test(*record)) return record;
    }
    return nullptr;
  }
};

}  // namespace vkd::testing
