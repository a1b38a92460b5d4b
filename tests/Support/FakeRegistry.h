// An application registry in memory: records are plain structures, and every question that is asked is counted.
#pragma once

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Vornik/VKKeys.h"
#include "platform/Registry.h"
#include "tests/Support/Asked.h"

namespace vkd::testing {

using namespace platform;

inline const FileURL kHostApp{"/Applications/Host.app"};

// What a record of this name has unless a test gives it something else.
inline std::string pathOf(std::string_view name) { return kHostApp.path + "/PlugIns/" + std::string(name) + ".appex"; }
inline UUID uuidOf(std::string_view name) {
  UUID uuid{};
  std::copy_n(name.begin(), std::min(name.size(), uuid.bytes.size()), uuid.bytes.begin());
  return uuid;
}

struct FakeBundleRecord : RegistryBundleRecord {
  FileURL url = kHostApp;
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
  std::optional<UUID> uuid;
  PlistValue manifest, rights;
  double date = 0;
  bool system = false;
  std::shared_ptr<FakeBundleRecord> containing;
  std::optional<std::string> name, shortName;
  std::optional<FileURL> container = FileURL{"/var/containers/it"};
  mutable std::atomic<int> urlReads = 0;

  // A good application extension inside /Applications/Host.app; `attributes` complete its own.
  static std::shared_ptr<FakeRecord> appex(const std::string& identifier, const PlistValue& attributes = {}) {
    auto record = std::make_shared<FakeRecord>();
    record->identifier = record->original = identifier;
    record->url = FileURL{pathOf(identifier)};
    record->uuid = uuidOf(identifier);
    PlistBuilder all(attributes);
    all.set(Vornik::kVKExtensionPointIdentifier, "test.point");
    if (!attributes[Vornik::kVKExtensionVersion]) all.set(Vornik::kVKExtensionVersion, "1.0");
    record->changeSection(Vornik::kVKExtensionAttributes, all.take());
    record->changeSection(Vornik::kVKExtensionPointIdentifier, "test.point");
    record->containing = std::make_shared<FakeBundleRecord>();
    return record;
  }
  void setSection(const PlistValue& section) { changeManifest(Vornik::kVKExtension, section); }
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
    if (scope == Scope::Manifest) return manifest[key];
    return (scope == Scope::PlugIn ? plugInDictionary() : plugInDictionary()[Vornik::kVKExtensionAttributes])[key];
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
  RegistryPlugInRecords list;

  FileURL bundleURL() const override { return url; }
  std::optional<std::string> localizedName() const override { return std::nullopt; }
  bool isPlaceholder() const override { return false; }
  RegistryPlugInRecords plugIns() const override { return list; }
};

// What it answers was so when it looked: the test's hook runs after that.
struct FakeRegistry : RegistryWorkspace {
  Asked asked;
  std::optional<RegistryPlugInRecords> installed = RegistryPlugInRecords();
  bool accepts = true;  // registrations
  std::vector<std::string> registered, unregistered;
  int cacheClears = 0, uuidLookups = 0;
  RegistryObserver* observer = nullptr;

  std::shared_ptr<FakeRecord> add(std::shared_ptr<FakeRecord> record) {
    installed->push_back(record);
    return record;
  }
  // As the real one: lookups see it at once, observers are told later.
  void uninstall(const std::shared_ptr<FakeRecord>& record) {
    std::erase(*installed, std::shared_ptr<RegistryPlugInRecord>(record));
    asked();
    if (observer != nullptr) observer->pluginsWillUninstall({record});
  }

  void addObserver(RegistryObserver* added) override { observer = added; }
  void removeObserver(RegistryObserver* removed) override {
    if (observer == removed) observer = nullptr;
  }
  std::optional<RegistryPlugInRecords> installedPlugIns() override { return asked.then(installed); }
  std::optional<RegistryPlugInRecords> plugInsMatching(const PlistValue&, const Filter& filter) override {
    auto now = installed;  // somebody may change it while the filter runs
    if (!now) return now;
    std::erase_if(*now, [&](const auto& it) { return !filter(it->plugInIdentifier(), it->entitlements()); });
    return asked.then(now);
  }
  bool registerPlugIn(const FileURL& url) override { return asked(), registered.push_back(url.path), accepts; }
  bool unregisterPlugIn(const FileURL& url) override { return unregistered.push_back(url.path), accepts; }
  void clearSchemaCaches() override { ++cacheClears; }
  std::shared_ptr<RegistryPlugInRecord> plugInRecord(const UUID& uuid) override {
    ++uuidLookups;
    return find([&](const RegistryPlugInRecord& record) { return record.plugInUUID() == uuid; });
  }
  std::shared_ptr<RegistryPlugInRecord> plugInRecord(const FileURL& bundleURL) override {
    return find([&](const RegistryPlugInRecord& record) { return record.bundleURL() == bundleURL; });
  }
  // Host.app is always there, others while they contain a plug-in.
  std::shared_ptr<RegistryAppRecord> appRecord(const FileURL& bundleURL) override {
    auto app = std::make_shared<FakeAppRecord>();
    app->url = bundleURL;
    for (const auto& record : *installed) {
      const auto bundle = record->containingBundle();
      if (bundle != nullptr && bundle->bundleURL() == bundleURL) app->list.push_back(record);
    }
    return asked.then(app->list.empty() && bundleURL != kHostApp ? nullptr : app);
  }

 private:
  template <class Test>
  std::shared_ptr<RegistryPlugInRecord> find(const Test& test) const {
    const auto found = std::ranges::find_if(*installed, [&](const auto& record) { return test(*record); });
    return asked.then(found == installed->end() ? nullptr : *found);
  }
};

}  // namespace vkd::testing
