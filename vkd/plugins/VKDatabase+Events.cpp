// Installs and uninstalls that the registry reports, and the annotations of plug-ins.
#include "Vornik/SmallDictionaryChanges.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "Vornik/VKProtocol.h"
#include "vkd/plugins/VKDatabase.h"

namespace vkd {

namespace {

constexpr int kAutomaticElection = 1;

std::optional<std::string> bundlePath(const RegistryPlugInRecord& record) {
  const auto url = record.bundleURL();
  return url ? std::optional(url->path) : std::nullopt;
}

}  // namespace

// A new plug-in is made when a lookup first needs it.
void VKDatabase::pluginsDidInstall(const RegistryPlugInRecords& records) {
  for (const auto& record : records) {
    VK_LOG(vk_ops(), Default, "plug-in INSTALLED:%@ %@(%@) %{public}@ %@", record->bundleIdentifier(),
           record->plugInIdentifier(), record->bundleVersion(), record->plugInUUID(), bundlePath(*record));
  }
}

void VKDatabase::pluginsWillUninstall(const RegistryPlugInRecords& records) {
  std::shared_ptr<VKDatabaseDelegate> delegate;
  _sync->sync([&] {
    for (const auto& record : records) {
      const auto uuid = record->plugInUUID();
      VK_LOG(vk_ops(), Default, "plug-in UNINSTALLED:%@ %@(%@) %{public}@ %@", record->bundleIdentifier(),
             record->plugInIdentifier(), record->bundleVersion(), uuid, bundlePath(*record));
      if (uuid) cache_.erase(*uuid);
    }
    ++removals_;
    ++uninstalls_;
    delegate = delegate_.lock();
  });
  // Outside the queue, so that the delegate may look plug-ins up.
  if (delegate != nullptr) delegate->removedPlugIns(records);
}

void VKDatabase::autoElect(const VKDPlugIn& plugIn) {
  _sync->assertCurrent();
  const PlistValue annotation = annotations_->annotationForPlugIn(plugIn);
  if (annotation[kVKAnnotationElection].intValue() != 0) return;
  annotations_->setAnnotationForPlugIn(dictionaryChangingTo(annotation, kVKAnnotationElection, kAutomaticElection),
                                       plugIn);
}

PlistValue VKDatabase::annotationForPlugIn(const VKDPlugIn& plugIn) {
  return _sync->sync([&] { return annotations_->annotationForPlugIn(plugIn); });
}

AnnotationSnapshot VKDatabase::annotationSnapshot() {
  return _sync->sync([&] { return annotations_->snapshot(); });
}

std::optional<DomainError> VKDatabase::setAnnotationForPlugIn(const PlistValue& annotation, const VKDPlugIn& plugIn) {
  _sync->sync([&] { annotations_->setAnnotationForPlugIn(annotation, plugIn); });
  return std::nullopt;
}

void VKDatabase::notifyAnnotationChange() { surroundings_.services.notifier->post(kVKAnnotationChangeNotification); }

}  // namespace vkd
