// The application registry Catalon: which plug-ins and applications are installed. Records are immutable snapshots and
// may be read from any thread; each getter answers an empty or absent value when the record has none.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/FileURL.h"
#include "platform/values/PlistValue.h"
#include "platform/values/UUID.h"

namespace platform {

class RegistryPlugInRecord;
using RegistryPlugInRecords = std::vector<std::shared_ptr<RegistryPlugInRecord>>;

// A bundle that contains a plug-in.
class RegistryBundleRecord {
 public:
  virtual ~RegistryBundleRecord() = default;
  virtual FileURL bundleURL() const = 0;
  // In the language of the daemon's environment.
  virtual std::optional<std::string> localizedName() const = 0;
  virtual bool isApplication() const = 0;
  // Only a placeholder of an application that is not yet really installed.
  virtual bool isPlaceholder() const = 0;
};

class RegistryAppRecord : public RegistryBundleRecord {
 public:
  bool isApplication() const override { return true; }
  virtual RegistryPlugInRecords plugIns() const = 0;
};

class RegistryPlugInRecord {
 public:
  enum class Scope { Attributes = 0, PlugIn = 1, Manifest = 2 };

  virtual ~RegistryPlugInRecord() = default;
  virtual std::optional<FileURL> bundleURL() const = 0;
  virtual std::string plugInIdentifier() const = 0;  // empty when it has none
  virtual std::string originalIdentifier() const = 0;
  virtual std::string bundleIdentifier() const = 0;
  virtual std::string bundleVersion() const = 0;
  virtual std::optional<UUID> plugInUUID() const = 0;
  virtual PlistValue plugInDictionary() const = 0;  // the plug-in section, attributes completed
  virtual PlistValue entitlements() const = 0;      // dictionary or nothing
  virtual PlistValue infoDictionary() const = 0;    // the whole manifest
  virtual PlistValue objectForKey(std::string_view key, Scope scope) const = 0;
  virtual double registrationDate() const = 0;  // seconds since 1970
  virtual bool onSystemPartition() const = 0;
  virtual std::shared_ptr<RegistryBundleRecord> containingBundle() const = 0;
  virtual std::optional<std::string> localizedName() const = 0;
  virtual std::optional<std::string> localizedShortName() const = 0;
  virtual std::optional<FileURL> dataContainerURL() const = 0;  // when its folder exists
};

class RegistryObserver {
 public:
  virtual ~RegistryObserver() = default;
  // Both are called on the registry's own thread, never from inside a query.
  virtual void pluginsDidInstall(const RegistryPlugInRecords& records) = 0;
  virtual void pluginsWillUninstall(const RegistryPlugInRecords& records) = 0;
};

class RegistryWorkspace {
 public:
  // Told a candidate's plug-in identifier and entitlements; answers whether to keep it.
  using Filter = std::function<bool(std::string_view identifier, const PlistValue& entitlements)>;

  virtual ~RegistryWorkspace() = default;
  // The observer must outlive the workspace's last notification, or be removed first.
  virtual void addObserver(RegistryObserver* observer) = 0;
  // Returns after a running notification has ended.
  virtual void removeObserver(RegistryObserver* observer) = 0;

  virtual std::optional<RegistryPlugInRecords> installedPlugIns() = 0;
  // Candidates by the keys of the query that the registry has an index for: a superset of what the full rules would
  // keep. `filter` is called for each, synchronously, on the caller's thread.
  virtual std::optional<RegistryPlugInRecords> plugInsMatching(const PlistValue& query, const Filter& filter) = 0;
  // Notifications of a registration follow on the registry's thread; lookups see it at once.
  virtual bool registerPlugIn(const FileURL& url) = 0;
  virtual bool unregisterPlugIn(const FileURL& url) = 0;
  virtual void clearSchemaCaches() = 0;
  virtual std::shared_ptr<RegistryPlugInRecord> plugInRecord(const UUID& uuid) = 0;
  virtual std::shared_ptr<RegistryPlugInRecord> plugInRecord(const FileURL& bundleURL) = 0;
  // A record possibly without plug-ins; null when there is no application at the URL.
  virtual std::shared_ptr<RegistryAppRecord> appRecord(const FileURL& bundleURL) = 0;
};

}  // namespace platform
