// The daemon's view of the installed plug-ins. The application registry Catalon is the only source of truth; VKDatabase
// makes VKDPlugIn objects of its records, keeps them in a bounded cache by UUID, and answers the daemon's lookups: by
// query, by UUID, by bundle path, by containing application. It registers and unregisters bundles, owns the annotation
// store, and follows installs and uninstalls. The server derives from it; there is one for the life of the daemon.
//
// Queues: "VKDatabase" (`_sync`, a leaf) owns the cache and serialises every use of the annotation store. Public
// operations may be called from any thread or queue but that one and enter it synchronously themselves. The registry's
// notifications come on its own thread.
//
// Lookups answer null or nothing for what is not there, with a line in the log.
//
//   VKDatabase.cpp         construction, cache, lookups, registration
//   VKDatabase+Events.cpp  installs, uninstalls, annotations
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Vornik/VKError.h"
#include "platform/Registry.h"
#include "platform/Services.h"
#include "platform/WorkQueue.h"
#include "vkd/annotations/VKDAnnotationStore.h"
#include "vkd/plugins/AnnotationSource.h"
#include "vkd/plugins/VKDPlugIn.h"

namespace vkd {

using namespace Vornik;

class VKDatabaseDelegate {
 public:
  virtual ~VKDatabaseDelegate() = default;
  // These plug-ins are being uninstalled. On the registry's notification thread, outside every queue.
  virtual void removedPlugIns(const RegistryPlugInRecords& records) = 0;
};

using VKDPlugIns = std::vector<std::shared_ptr<VKDPlugIn>>;

class VKDatabase : public AnnotationSource, protected RegistryObserver {
 public:
  // Needs queues, registry, files, users and containers; notifier, sandbox and the rest as the plug-ins get to use
  // them. Throws StartupFailure when the annotation store has no place.
  static std::shared_ptr<VKDatabase> initWithDatabase(const Services& services,
                                                      const std::optional<std::string>& path = std::nullopt);
  ~VKDatabase() override;
  VKDatabase(const VKDatabase&) = delete;
  VKDatabase& operator=(const VKDatabase&) = delete;

  const Services& services() const { return surroundings_.services; }

  // The cache holds at most one entry more. 0 until start-up sets it.
  std::uint32_t cacheLimit() const { return cacheLimit_.load(std::memory_order_relaxed); }
  void setCacheLimit(std::uint32_t limit) { cacheLimit_.store(limit, std::memory_order_relaxed); }
  void setDelegate(std::weak_ptr<VKDatabaseDelegate> delegate);

  // --- Lookups -------------------------------------------------------------------------------------------------------

  // The plug-ins that the registry selects for a query (nothing or empty: all installed ones), each UUID once, in no
  // defined order. A pre-selection: the full rules are tested afterwards. Nothing when the registry answers nothing.
  std::optional<VKDPlugIns> findPlugIns(const PlistValue& query);
  std::shared_ptr<VKDPlugIn> findPlugIn(const UUID& uuid);
  std::shared_ptr<VKDPlugIn> findPlugInAtPath(const FileURL& url);
  // In the registry's order. Nothing, not an empty list, for an application without plug-ins.
  std::optional<VKDPlugIns> plugInsWithinApplication(const FileURL& url);
  std::shared_ptr<VKDPlugIn> plugInForProxy(const std::shared_ptr<RegistryPlugInRecord>& record);
  // Whether the registry still has it.
  bool isInstalled(const VKDPlugIn& plugIn) { return workspace_->plugInRecord(plugIn.uuid()) != nullptr; }

  // --- Registration: nothing on success, else VKErrorRegistry
  // ---------------------------------------------------------

  std::optional<DomainError> addPlugIn(const FileURL& url);
  std::optional<DomainError> removePlugIn(const FileURL& url);

  // --- Annotations ---------------------------------------------------------------------------------------------------

  PlistValue annotationForPlugIn(const VKDPlugIn& plugIn) override;
  // All annotations at this moment, for who reads many: entered once, then read without the queue.
  AnnotationSnapshot annotationSnapshot();
  // Merges, or removes when given nothing, and saves. Answers nothing: a save that fails is logged only.
  std::optional<DomainError> setAnnotationForPlugIn(const PlistValue& annotation, const VKDPlugIn& plugIn);
  // Tells the whole system that annotations or holds changed.
  void notifyAnnotationChange();

 protected:
  // In two steps, so that a subclass can be complete when the registry starts to report: setUp opens the annotation
  // store (throwing StartupFailure) and then observes the registry.
  explicit VKDatabase(const Services& services);
  void setUp(const std::optional<std::string>& path);

  // --- Notifications of the registry ---------------------------------------------------------------------------------

  void pluginsDidInstall(const RegistryPlugInRecords& records) final;
  void pluginsWillUninstall(const RegistryPlugInRecords& records) final;

 private:
  // A plug-in object, and the number of the last batch that had it in its result.
  struct Cached {
    std::shared_ptr<VKDPlugIn> plugIn;
    std::uint64_t batch = 0;
  };
  // The records of one query on their way to plug-ins.
  struct Batch {
    const RegistryPlugInRecords& records;
    std::uint64_t uninstallsBefore = 0;
    std::size_t next = 0;
    std::uint64_t number = 0;
    bool mayRepeat = false;  // some of its plug-ins are not marked as being in the result
    VKDPlugIns result{};
  };
  class ElectionFilter;

  std::shared_ptr<VKDPlugIn> plugInForProxy(const std::shared_ptr<RegistryPlugInRecord>& record,
                                            std::uint64_t uninstallsBefore);
  std::optional<RegistryPlugInRecords> recordsMatching(const PlistValue& query);
  VKDPlugIns plugInsForRecords(const RegistryPlugInRecords& records, std::uint64_t uninstallsBefore);
  static bool isServable(const RegistryPlugInRecord& record, bool known);
  static void eraseRepeated(VKDPlugIns& plugIns);

  // --- On `_sync` only -----------------------------------------------------------------------------------------------

  // `uninstallsBefore` is how many there had been before the registry was asked for the record. When there were more
  // since and it is of a plug-in that has gone, the object is not cached: nobody would ever take it out again.
  std::shared_ptr<VKDPlugIn> createPlugInForProxy(const std::shared_ptr<RegistryPlugInRecord>& record,
                                                  std::uint64_t uninstallsBefore);
  void purgeCachesToLimit(std::int64_t limit);
  void advance(Batch& batch);
  void autoElect(const VKDPlugIn& plugIn);

  VKDPlugIn::Surroundings surroundings_;
  std::shared_ptr<RegistryWorkspace> workspace_;
  std::atomic<std::uint32_t> cacheLimit_{0};
  std::atomic<std::uint64_t> uninstalls_{0};  // the registry told us of; changed on `_sync`
  bool observing_ = false;
  std::shared_ptr<WorkQueue> _sync;

  // What only `_sync` touches.
  std::unique_ptr<VKDAnnotationStore> annotations_;
  std::unordered_map<UUID, Cached> cache_;
  std::uint64_t batches_ = 0;   // so far
  std::uint64_t removals_ = 0;  // how often entries were taken out of the cache
  std::weak_ptr<VKDatabaseDelegate> delegate_;
};

}  // namespace vkd
