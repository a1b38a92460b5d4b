// Bundles: comparing what is registered with what is there, and requests.
#include <algorithm>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/registry/RegistryInventory.h"
#include "platform/linux/registry/RegistryPaths.h"

namespace platform {
namespace {

// So many bundles that were registered by path and then went away are waited for, in case they come back: an installer
// may remove the old one before it writes the new one.
constexpr std::size_t kMaxVanished = 256;

}  // namespace

RegistryInventory::Bundle* RegistryInventory::findBundle(const std::string& path) {
  Folder* folder = findFolder(parentOf(path));
  if (folder == nullptr) return nullptr;
  auto bundle = folder->bundles.find(nameOf(path));
  return bundle == folder->bundles.end() ? nullptr : &bundle->second;
}

void RegistryInventory::lookAtBundle(const std::string& path) {
  std::string parent = parentOf(path);
  if (Folder* folder = findFolder(parent)) lookAtBundle(*folder, std::string(nameOf(path)));
  dropIfUnused(parent);
}

void RegistryInventory::lookAtBundle(Folder& folder, const std::string& name, int directory) {
  const std::string path = joinPath(folder.path, name);
  RegistryBundle found(*context_->root, path, directory);
  if (found.exists()) {
    dropLink(path);
  } else if (folder.listed && !found.failed()) {
    lookAtLink(path, RegistryUnit::Kind::Bundle);
  }
  auto known = folder.bundles.find(name);
  bool wanted =
      folder.listed || (known != folder.bundles.end() && (known->second.requested || known->second.links != 0));
  if (found.failed() || (found.exists() && !wanted && incomplete_)) {
    retry(RegistryUnit::Kind::Bundle, path);
    if (known != folder.bundles.end()) leaveForLater(folder, path, known->second);
    return;
  }
  if (!found.exists() || !wanted) {
    if (known != folder.bundles.end()) removeBundle(folder, name, wanted);
    return;
  }
  Bundle& bundle = known != folder.bundles.end() ? known->second : folder.bundles[name];
  bundle.visit = visit_;
  if (watchesBundles_) watch(bundle.holds, bundle.holds.size(), found, directory);
  compare(folder, path, bundle, found);
}

bool RegistryInventory::isUnchanged(const Folder& folder, const Bundle& bundle, const RegistryBundle& found) const {
  std::string_view application = folder.application ? std::string_view(folder.application->path()) : std::string_view();
  return bundle.entry.isRegistration() && bundle.entry.isDeep() == found.isDeep() &&
         bundle.entry.applicationPath() == application &&
         (!bundle.record || bundle.record->application() == folder.application.get()) &&
         bundle.entry.stamps() == found.stamps(executableName(bundle.entry.manifest()));
}

void RegistryInventory::compare(const Folder& folder, const std::string& path, Bundle& bundle, RegistryBundle& found) {
  if (isUnchanged(folder, bundle, found)) {
    if (bundle.record) {
      bundle.record->setLocalized(hasLocalizedNames(found));
    } else if (!bundle.entry.isWithdrawn()) {
      install(folder, path, bundle, hasLocalizedNames(found));
    }
    return;
  }
  RegistryEntry fresh;
  if (found.manifestStamp() != FileStamp()) {
    DomainError error;
    PlistValue manifest = found.readManifest(&error);
    if (!manifest) VK_LOG(defaultLog(), Info, "cannot read the manifest of a bundle: %{public}@", error);
    // Stamps first: what changes while it is read is another file.
    BundleStamps stamps = found.stamps(executableName(manifest));
    PlistValue entitlements = found.readEntitlements(manifest);
    fresh = RegistryEntry::registration(manifest, entitlements, stamps, found.isDeep(),
                                        folder.application ? folder.application->path() : std::string());
  }
  if (found.failed()) {
    retry(RegistryUnit::Kind::Bundle, path);
    return leaveForLater(folder, path, bundle);
  }
  uninstall(bundle);
  bundle.entry = fresh ? fresh.marked(bundle.requested, false) : bundle.requested ? RegistryEntry::wish() : fresh;
  if (fresh) install(folder, path, bundle, hasLocalizedNames(found));
  if (fresh && bundle.record->wantsDataContainer()) context_->containers.make(bundle.record->identifier());
  persist(path, bundle);
}

// It could not be looked at: what was stored of it is believed.
void RegistryInventory::leaveForLater(const Folder& folder, const std::string& path, Bundle& bundle) {
  bundle.visit = visit_;
  if (!bundle.record && bundle.entry.isRegistration() && !bundle.entry.isWithdrawn()) {
    install(folder, path, bundle, false);
  }
}

void RegistryInventory::install(const Folder& folder, const std::string& path, Bundle& bundle, bool localized) {
  std::shared_ptr<RegistryApp> application = folder.application;
  if (!application && !bundle.entry.applicationPath().empty()) {
    application = makeApplication(std::string(bundle.entry.applicationPath())).record;
  }
  bundle.record = std::make_shared<RegistryRecord>(context_, std::move(application), path, bundle.entry);
  bundle.record->setLocalized(localized);
  changes_.installed.push_back(bundle.record);
}

void RegistryInventory::uninstall(Bundle& bundle) {
  if (!bundle.record) return;
  // What was installed just now and is not yet told to anybody need not be taken back.
  auto fresh = std::find(changes_.installed.rbegin(), changes_.installed.rend(), bundle.record);
  if (fresh != changes_.installed.rend()) {
    changes_.installed.erase(std::next(fresh).base());
  } else {
    changes_.removed.push_back(bundle.record);
  }
  bundle.record = nullptr;
}

void RegistryInventory::removeBundle(Folder& folder, const std::string& name, bool wanted) {
  const std::string path = joinPath(folder.path, name);
  Bundle& bundle = folder.bundles.find(name)->second;
  uninstall(bundle);
  releaseAll(bundle.holds);
  bundle.visit = visit_;
  bool waits = wanted && (bundle.requested || bundle.links != 0);
  bundle.entry = waits && bundle.requested ? RegistryEntry::wish() : RegistryEntry();
  persist(path, bundle);
  if (!waits) {
    folder.bundles.erase(name);
  } else if (bundle.requested) {
    keepVanished(path);
  }
}

void RegistryInventory::keepVanished(const std::string& path) {
  if (std::find(vanished_.begin(), vanished_.end(), path) != vanished_.end()) return;
  vanished_.push_back(path);
  if (vanished_.size() <= kMaxVanished) return;
  std::string oldest = std::move(vanished_.front());
  vanished_.pop_front();
  Bundle* bundle = findBundle(oldest);
  if (bundle == nullptr || bundle->entry.isRegistration()) return;  // it came back
  bundle->requested = false;
  // Not now, in the midst of looking at its neighbours.
  note(RegistryUnit::Kind::Bundle, std::move(oldest));
}

void RegistryInventory::persist(const std::string& path, Bundle& bundle) {
  if (bundle.entry) {
    store_.put(kBundleKey + path, bundle.entry.payload());
  } else if (bundle.stored) {
    store_.remove(kBundleKey + path);
  }
  bundle.stored = static_cast<bool>(bundle.entry);
}

void RegistryInventory::visitStored(const RegistryStore::Visitor& visit) const {
  for (const auto& [path, application] : applications_) {
    RegistryAppEntry entry = application.record ? application.record->entry() : RegistryAppEntry();
    if (entry) visit(kApplicationKey + path, entry.payload());
  }
  for (const auto& [path, folder] : folders_) {
    for (const auto& [name, bundle] : folder.bundles) {
      if (bundle.entry) visit(kBundleKey + joinPath(path, name), bundle.entry.payload());
    }
  }
}

bool RegistryInventory::request(const std::string& path) {
  if (path == "/") return false;
  incomplete_ = false;
  const std::string parent = parentOf(path);
  // Of an application that is too new to have been noticed the bundle is in place.
  std::string around = applicationAround(parent);
  if (!around.empty() && isInApplicationFolder(around) && !applications_.contains(around)) lookAtApplication(around);
  Folder& folder = makeFolder(parent);
  Bundle& bundle = folder.bundles[std::string(nameOf(path))];
  if (!folder.listed && bundle.links == 0) bundle.requested = true;
  if (bundle.entry.isWithdrawn()) bundle.entry = {};
  adoptFolder(parent);
  lookAtBundle(path);
  agenda_.done({RegistryUnit::Kind::Bundle, path});
  Bundle* result = findBundle(path);
  if (result == nullptr) return false;
  if (result->record) {
    // Registered before, perhaps, and its container removed since.
    if (result->record->wantsDataContainer()) context_->containers.make(result->record->identifier());
    RegistryEntry marked = result->entry.marked(result->requested, false);
    if (!marked.is(result->entry)) {
      result->entry = std::move(marked);
      persist(path, *result);
    }
    return true;
  }
  result->requested = false;
  lookAtBundle(path);
  return false;
}

bool RegistryInventory::withdraw(const std::string& path) {
  incomplete_ = false;
  Bundle* bundle = findBundle(path);
  if (bundle == nullptr || !bundle->record) return false;
  uninstall(*bundle);
  bundle->requested = false;
  bundle->entry = bundle->entry.marked(false, true);
  persist(path, *bundle);
  lookAtBundle(path);  // what was registered by path only is forgotten
  return true;
}

}  // namespace platform
