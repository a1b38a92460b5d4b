// The application registry of this machine: what lies in the folders of applications and plug-ins and what is
// registered by path, kept in /var/db/catalon.
//
//   file events ─► agenda ─► inventory ─► store        (under one lock, on the registry's thread;
//   requests ───────────────►    └──────► index         a request does the same on its caller's)
//                                            └─► observers (on the registry's thread, under no lock)
//   queries ◄──────────────────────────── index
//
// Queries never wait for files being read, and observers may ask anything.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/Registry.h"
#include "platform/linux/registry/RegistryAgenda.h"
#include "platform/linux/registry/RegistryIndex.h"
#include "platform/linux/registry/RegistryInventory.h"
#include "platform/linux/registry/RegistryObservers.h"
#include "platform/linux/registry/RegistryRecord.h"
#include "platform/linux/registry/RegistryStore.h"
#include "platform/linux/registry/RegistryWatcher.h"

namespace platform {

// Loads what is stored, finds what changed since and follows it from now on. A store that cannot be used is logged, and
// registrations then last as long as the process; null and *reason when there is no device root, or no thread for it.
std::shared_ptr<RegistryWorkspace> makeRegistry(std::shared_ptr<const DeviceRoot> root, std::string* reason,
                                                RegistryLanguages languages = RegistryLanguages::fromEnvironment());

class RegistryCatalon final : public RegistryWorkspace {
 public:
  RegistryCatalon(std::shared_ptr<const DeviceRoot> root, RegistryLanguages languages);
  ~RegistryCatalon() override;
  // Once, before anything is asked. Throws std::system_error when the machine refuses a thread.
  void start();

  void addObserver(RegistryObserver* observer) override { observers_.add(observer); }
  void removeObserver(RegistryObserver* observer) override { observers_.remove(observer); }
  std::optional<RegistryPlugInRecords> installedPlugIns() override { return index_->all(); }
  std::optional<RegistryPlugInRecords> plugInsMatching(const PlistValue& query, const Filter& filter) override;
  bool registerPlugIn(const FileURL& url) override;
  bool unregisterPlugIn(const FileURL& url) override;
  void clearSchemaCaches() override { context_->languages.forget(); }
  std::shared_ptr<RegistryPlugInRecord> plugInRecord(const UUID& uuid) override { return index_->plugIn(uuid); }
  std::shared_ptr<RegistryPlugInRecord> plugInRecord(const FileURL& bundleURL) override;
  std::shared_ptr<RegistryAppRecord> appRecord(const FileURL& bundleURL) override;

 private:
  void run();
  void waitForWork();
  void followEvents();
  void publish();
  void flush();
  void wake();

  const std::shared_ptr<RegistryContext> context_;
  const std::shared_ptr<RegistryIndex> index_;
  RegistryObservers observers_;

  std::mutex changes_;  // guards what follows
  RegistryStore store_;
  RegistryWatcher watcher_;
  RegistryAgenda agenda_;
  RegistryInventory inventory_;

  UniqueFd wake_;
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

}  // namespace platform
