// Applications and the folders of plug-ins in them.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/registry/RegistryInventory.h"
#include "platform/linux/registry/RegistryPaths.h"

namespace platform {
namespace {

// The directory and Contents: an application's own executables are none of the registry's business.
constexpr std::size_t kWatchedOfApplication = 2;

}  // namespace

bool RegistryInventory::isInApplicationFolder(std::string_view path) const {
  if (!path.ends_with(kApplicationEnding)) return false;
  std::string parent = parentOf(path);
  return std::any_of(applicationFolders_.begin(), applicationFolders_.end(),
                     [&](const TopFolder& top) { return top.canonical == parent; });
}

// In its place, led to by a link from there, or around a bundle that was registered by path.
bool RegistryInventory::isWanted(const std::string& path) const {
  if (isInApplicationFolder(path)) return true;
  auto application = applications_.find(path);
  if (application == applications_.end()) return false;
  if (application->second.links != 0) return true;
  auto folder = folders_.find(application->second.plugIns);
  return folder != folders_.end() && !folder->second.bundles.empty();
}

RegistryInventory::Application& RegistryInventory::makeApplication(const std::string& path) {
  Application& application = applications_[path];
  if (!application.record) {
    application.record = std::make_shared<RegistryApp>(context_, index_, path);
    index_->setApplication(application.record);
  }
  return application;
}

void RegistryInventory::dropApplication(const std::string& path) {
  auto known = applications_.find(path);
  if (known == applications_.end()) return;
  releaseAll(known->second.holds);
  std::string plugIns = std::exchange(known->second.plugIns, {});
  known->second.record = nullptr;
  if (known->second.links == 0) applications_.erase(known);  // else a link waits for it to come back
  for (const std::string& support : {path, joinPath(path, kContentsFolder)}) {
    follower_.unfollow(joinPath(support, kPlugInsFolder), RegistryPathFollower::Link);
  }
  index_->removeApplication(path);
  store_.remove(kApplicationKey + path);
  detachFolder(plugIns);
}

void RegistryInventory::lookAtApplication(const std::string& path) {
  RegistryBundle found(*context_->root, path);
  if (found.failed()) {
    if (auto known = applications_.find(path); known != applications_.end()) known->second.pass = pass_;
    return retry(RegistryUnit::Kind::Application, path);
  }
  if (found.exists()) {
    dropLink(path);
  } else if (isInApplicationFolder(path)) {
    lookAtLink(path, RegistryUnit::Kind::Application);
  }
  bool wanted = isWanted(path);
  if (found.exists() && !wanted && incomplete_) return;
  if (!found.exists() || !wanted) return dropApplication(path);
  Application& application = makeApplication(path);
  application.pass = pass_;
  watch(application.holds, kWatchedOfApplication, found);
  if (!readApplication(path, application, found)) return retry(RegistryUnit::Kind::Application, path);
  attachFolder(application, found);
}

// What its manifest says, read only when that is another file than the one that was read last.
bool RegistryInventory::readApplication(const std::string& path, Application& application, RegistryBundle& found) {
  RegistryAppEntry entry = application.record->entry();
  if (!entry || entry.stamp() != found.manifestStamp() || entry.isDeep() != found.isDeep()) {
    DomainError error;
    PlistValue manifest = found.manifestStamp() == FileStamp() ? PlistValue() : found.readManifest(&error);
    if (found.failed()) return false;
    bool unreadable = !manifest && found.manifestStamp() != FileStamp();
    if (unreadable) VK_LOG(defaultLog(), Info, "cannot read the manifest of an application: %{public}@", error);
    // Half written, perhaps: what it said before holds until it says something else.
    if (!unreadable || !entry) {
      entry = RegistryAppEntry::of(manifest, unreadable ? FileStamp() : found.manifestStamp(), found.isDeep());
      store_.put(kApplicationKey + path, entry.payload());
    }
  }
  application.record->update(std::move(entry), found.isDeep(), hasLocalizedNames(found));
  return true;
}

// Where the folder of plug-ins at this path is, or would be; nothing when that cannot be found out now.
std::optional<std::string> RegistryInventory::placeOfPlugIns(const std::string& path) {
  std::optional<std::string> canonical = context_->root->canonicalPath(path);
  if (!canonical && isPassingError(errno)) return std::nullopt;
  struct stat state {};
  bool link = canonical ? *canonical != path : context_->root->linkStat(path, &state) && S_ISLNK(state.st_mode);
  if (link) {
    // Where it leads to is looked at when the way there is watched.
    follower_.follow(path, RegistryPathFollower::Link);
    canonical = context_->root->canonicalPath(path);
    if (!canonical && isPassingError(errno)) return std::nullopt;
  } else {
    follower_.unfollow(path, RegistryPathFollower::Link);
  }
  return canonical ? canonical : path;
}

void RegistryInventory::attachFolder(Application& application, const RegistryBundle& found) {
  std::optional<std::string> place = placeOfPlugIns(joinPath(found.supportPath(), kPlugInsFolder));
  if (!place) return retry(RegistryUnit::Kind::Application, found.path());
  const std::string& path = *place;
  const Folder* taken = findFolder(path);
  if (taken != nullptr && taken->application && taken->application != application.record) {
    contested_ = true;
    std::string old = std::exchange(application.plugIns, {});
    if (!old.empty() && old != path) detachFolder(old);
    return;
  }
  std::string old = std::exchange(application.plugIns, path);
  bool listed = isInApplicationFolder(found.path()) || application.links != 0;
  if (listed || findFolder(path) != nullptr) {
    Folder& folder = makeFolder(path);
    folder.application = application.record;
    folder.listed = listed || path == systemFolder_.canonical;
  }
  if (!old.empty() && old != path) detachFolder(old);
  lookAtFolder(path);
}

// The application in whose folder of plug-ins this is; empty when it is in none.
std::string RegistryInventory::applicationAround(const std::string& folderPath) const {
  if (nameOf(folderPath) != kPlugInsFolder) return {};
  std::string support = parentOf(folderPath);
  std::string path = nameOf(support) == kContentsFolder ? parentOf(support) : support;
  if (!path.ends_with(kApplicationEnding)) return {};
  RegistryBundle found(*context_->root, path);
  if (!found.exists() || found.supportPath() != support) return {};
  // A link in its place leads to the application's folder: this one is none any more.
  return context_->root->canonicalPath(folderPath).value_or(folderPath) == folderPath ? path : std::string();
}

RegistryInventory::Folder* RegistryInventory::findFolder(const std::string& path) {
  auto known = folders_.find(path);
  return known == folders_.end() ? nullptr : &known->second;
}

RegistryInventory::Folder& RegistryInventory::makeFolder(const std::string& path) {
  Folder& folder = folders_[path];
  if (folder.path.empty()) folder.path = path;
  return folder;
}

void RegistryInventory::lookAtFolder(const std::string& path) {
  Folder* folder = findFolder(path);
  if (folder == nullptr) return;
  hold(folder->hold, path, RegistryWatcher::Changes::Names);
  if (folder->listed) {
    std::optional<DirectoryListing> listing = listDirectories(*context_->root, path);
    if (!listing && isPassingError(errno)) {
      retry(folder->application ? RegistryUnit::Kind::Application : RegistryUnit::Kind::Everything,
            folder->application ? folder->application->path() : std::string());
    }
    ++visit_;
    for (std::size_t i = 0; listing && i < listing->names.size(); ++i) {
      if ((folder = findFolder(path)) != nullptr) lookAtBundle(*folder, listing->names[i], listing->directory.get());
    }
  } else {
    dropLinksIn(path);
    ++visit_;
  }
  lookAtKnown(path);
}

// At the bundles of a folder that were not just come across.
void RegistryInventory::lookAtKnown(const std::string& path) {
  Folder* folder = findFolder(path);
  if (folder == nullptr) return;
  std::vector<std::string> names;
  for (const auto& [name, bundle] : folder->bundles) {
    if (bundle.visit != visit_) names.push_back(name);
  }
  for (const std::string& name : names) {
    folder = findFolder(path);
    if (folder == nullptr) return;
    lookAtBundle(*folder, name);
  }
  dropIfUnused(path);
}

void RegistryInventory::adoptFolder(const std::string& path) {
  Folder* folder = findFolder(path);
  if (folder == nullptr || folder->listed || folder->bundles.empty()) return;
  follower_.follow(path, RegistryPathFollower::FolderOfRequests);
  hold(folder->hold, path, RegistryWatcher::Changes::Names);
  if (folder->application) return;
  std::string around = applicationAround(path);
  if (around.empty()) return;
  makeApplication(around).plugIns = path;
  lookAtApplication(around);
}

// It is no application's any more.
void RegistryInventory::detachFolder(const std::string& path) {
  // Another application may wait for it.
  if (!path.empty() && std::exchange(contested_, false)) note(RegistryUnit::Kind::Everything, {});
  Folder* folder = findFolder(path);
  if (folder == nullptr) return;
  folder->listed = path == systemFolder_.canonical;
  folder->application = nullptr;
  if (!folder->listed) dropLinksIn(path);
  adoptFolder(path);
  ++visit_;
  lookAtKnown(path);
}

void RegistryInventory::dropIfUnused(const std::string& path) {
  Folder* folder = findFolder(path);
  if (folder == nullptr || folder->listed || !folder->bundles.empty()) return;
  watcher_.release(folder->hold);
  follower_.unfollow(path, RegistryPathFollower::FolderOfRequests);
  std::shared_ptr<RegistryApp> application = folder->application;
  folders_.erase(path);
  if (application && !isWanted(application->path())) dropApplication(application->path());
}

}  // namespace platform
