// Everything: what was stored, the top folders, links, and which event concerns what.
#include "platform/linux/registry/RegistryInventory.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/linux/identity/BundleLayout.h"
#include "platform/linux/registry/RegistryPaths.h"

namespace platform {
namespace {

constexpr std::string_view kApplicationFolders[] = {"/Applications", "/System/Applications"};
constexpr std::string_view kSystemFolder = "/System/Library/PlugIns";

}  // namespace

RegistryInventory::RegistryInventory(std::shared_ptr<RegistryContext> context, std::shared_ptr<RegistryIndex> index,
                                     RegistryStore& store, RegistryWatcher& watcher, RegistryAgenda& agenda)
    : context_(std::move(context)),
      index_(std::move(index)),
      store_(store),
      watcher_(watcher),
      agenda_(agenda),
      systemFolder_{std::string(kSystemFolder), {}},
      follower_(context_->root, watcher) {
  for (std::string_view path : kApplicationFolders) applicationFolders_.push_back({std::string(path), {}});
}

void RegistryInventory::load() {
  Folder* folder = nullptr;
  for (const RegistryStore::Entry& stored : store_.load()) {
    std::string_view path = stored.key.view().substr(1);
    if (stored.key.view()[0] == kApplicationKey) {
      RegistryApp& application = *makeApplication(std::string(path)).record;
      application.update(RegistryAppEntry::fromPayload(stored.payload), false, false);
    } else if (RegistryEntry entry = RegistryEntry::fromPayload(stored.payload); entry && path.starts_with('/')) {
      // Neighbours mostly follow each other.
      std::string_view name = nameOf(path);
      std::string_view parent = path.substr(0, std::max<std::size_t>(path.size() - name.size() - 1, 1));
      if (folder == nullptr || folder->path != parent) folder = &makeFolder(std::string(parent));
      Bundle& bundle = folder->bundles[std::string(name)];
      bundle.requested = entry.isRequested();
      bundle.entry = std::move(entry);
      bundle.stored = true;
    }
  }
  constexpr auto kReason = RegistryPathFollower::TopFolder;
  for (const TopFolder& top : applicationFolders_) follower_.follow(top.path, kReason);
  follower_.follow(systemFolder_.path, kReason);
  follower_.follow(std::string(RegistryContainers::kDirectory), kReason);
  lookAtEverything();
  // What changed since, unwatched, is found by looking again when the first questions are answered.
  watchesBundles_ = true;
  agenda_.retry({RegistryUnit::Kind::Everything, {}}, RegistryAgenda::Clock::now());
}

void RegistryInventory::look(const RegistryUnit& unit) {
  incomplete_ = false;
  switch (unit.kind) {
    case RegistryUnit::Kind::Everything:
      follower_.refresh();
      return lookAtEverything();
    case RegistryUnit::Kind::Application:
      return lookAtApplication(unit.path);
    case RegistryUnit::Kind::Bundle:
      return lookAtBundle(unit.path);
  }
}

void RegistryInventory::lookAtEverything() {
  ++pass_;
  context_->containers.forgetFolder();
  for (TopFolder& top : applicationFolders_) lookAtApplicationFolder(top);
  lookAtSystemFolder();
  lookAtTheRest();
}

// What is known and was not come across: gone, or registered by path.
void RegistryInventory::lookAtTheRest() {
  std::vector<std::string> paths;
  for (const auto& [path, application] : applications_) {
    if (application.pass != pass_) paths.push_back(path);
  }
  for (const std::string& path : paths) lookAtApplication(path);
  paths.clear();
  for (const auto& [path, link] : links_) paths.push_back(path);
  for (const std::string& path : paths) {
    if (auto link = links_.find(path); link != links_.end()) lookAtLink(path, link->second.kind);
  }
  paths.clear();
  for (const auto& [path, folder] : folders_) {
    if (!folder.listed) paths.push_back(path);
  }
  for (const std::string& path : paths) {
    adoptFolder(path);
    ++visit_;
    lookAtKnown(path);
  }
}

void RegistryInventory::resolve(TopFolder& top) {
  std::optional<std::string> canonical = context_->root->canonicalPath(top.path);
  if (!canonical && isPassingError(errno)) return retry(RegistryUnit::Kind::Everything, {});
  std::string now = canonical.value_or(std::string());
  if (now != top.canonical) watcher_.release(top.hold);
  top.canonical = std::move(now);
}

void RegistryInventory::lookAtApplicationFolder(TopFolder& top) {
  resolve(top);
  if (top.canonical.empty()) return;
  hold(top.hold, top.canonical, RegistryWatcher::Changes::Names);
  std::optional<DirectoryListing> listing = listDirectories(*context_->root, top.canonical);
  if (!listing) {
    if (isPassingError(errno)) retry(RegistryUnit::Kind::Everything, {});
    return;
  }
  for (const std::string& name : listing->names) {
    if (name.ends_with(kApplicationEnding)) lookAtApplication(joinPath(top.canonical, name));
  }
}

void RegistryInventory::lookAtSystemFolder() {
  std::string old = systemFolder_.canonical;
  resolve(systemFolder_);
  if (!old.empty() && old != systemFolder_.canonical) detachFolder(old);
  if (systemFolder_.canonical.empty()) return;
  makeFolder(systemFolder_.canonical).listed = true;
  lookAtFolder(systemFolder_.canonical);
}

void RegistryInventory::hold(RegistryWatcher::Hold& hold, const std::string& path, RegistryWatcher::Changes changes) {
  UniqueFd directory = context_->root->openWithoutLinks(path, O_PATH | O_DIRECTORY);
  if (directory) {
    watcher_.hold(hold, path, directory.get(), changes);
  } else {
    watcher_.release(hold);
  }
}

// True when some of it was not watched before.
bool RegistryInventory::holdAll(Holds& holds, const RegistryBundle& found, std::size_t count) {
  bool news = false;
  std::vector<RegistryBundle::Directory> directories = found.directories();
  for (std::size_t i = 0; i < count; ++i) {
    if (i < directories.size()) {
      news |= watcher_.hold(holds[i], directories[i].path, directories[i].fd, RegistryWatcher::Changes::Content);
    } else {
      watcher_.release(holds[i]);
    }
  }
  return news;
}

// Which directories there are to watch is only known by looking: what was found before they were watched is looked at
// again. After that they can only be others because of changes that are told.
void RegistryInventory::watch(Holds& holds, std::size_t count, RegistryBundle& found, int directory) {
  for (std::size_t level = 0; level < count && holdAll(holds, found, count); ++level) {
    found = RegistryBundle(*context_->root, found.path(), directory);
  }
}

void RegistryInventory::releaseAll(Holds& holds) {
  for (RegistryWatcher::Hold& hold : holds) watcher_.release(hold);
}

void RegistryInventory::note(RegistryUnit::Kind kind, std::string path) {
  agenda_.changed({kind, std::move(path)}, RegistryAgenda::Clock::now());
}

void RegistryInventory::retry(RegistryUnit::Kind kind, std::string path) {
  incomplete_ = true;
  agenda_.retry({kind, std::move(path)}, RegistryAgenda::Clock::now());
}

void RegistryInventory::noteEvent(const std::string& directory, std::string_view name) {
  using Kind = RegistryUnit::Kind;
  if (follower_.concerns(directory, name)) return note(Kind::Everything, {});
  std::string path = joinPath(directory, name);
  for (const TopFolder& top : applicationFolders_) {
    if (top.canonical == directory && (name.ends_with(kApplicationEnding) || links_.contains(path))) {
      note(Kind::Application, path);
    }
  }
  if (const Folder* folder = findFolder(directory)) {
    if (name.empty()) {
      note(folder->application ? Kind::Application : Kind::Everything,
           folder->application ? folder->application->path() : std::string());
    } else if ((folder->listed && name[0] != '.') || folder->bundles.contains(name)) {
      note(Kind::Bundle, path);
    }
  }
  noteApplicationEvent(directory, name);
  noteBundleEvent(directory);
}

// An application is what its manifest, its layout and its folder of plug-ins say.
void RegistryInventory::noteApplicationEvent(const std::string& directory, std::string_view name) {
  bool matters = name.empty() || name == kManifestFileName || name == kContentsFolder || name == kPlugInsFolder ||
                 name == kLocalizedFolder;
  if (!matters) return;
  if (applications_.contains(directory)) return note(RegistryUnit::Kind::Application, directory);
  if (nameOf(directory) != kContentsFolder) return;
  std::string around = parentOf(directory);
  if (applications_.contains(around)) note(RegistryUnit::Kind::Application, around);
}

// Which of its files matter is known only when its manifest was read: any event in a bundle counts. One may be named as
// the parts of the one that it lies in are.
void RegistryInventory::noteBundleEvent(const std::string& directory) {
  std::string path = directory;
  if (findBundle(path) != nullptr) note(RegistryUnit::Kind::Bundle, path);
  if (nameOf(path) == kExecutablesFolder) path = parentOf(path);
  if (nameOf(path) == kContentsFolder && findBundle(parentOf(path)) != nullptr) {
    note(RegistryUnit::Kind::Bundle, parentOf(path));
  }
}

// True when there is a link. What it leads to is then looked at, for as long as it leads there.
bool RegistryInventory::lookAtLink(const std::string& path, RegistryUnit::Kind kind) {
  struct stat state {};
  bool counts = kind == RegistryUnit::Kind::Bundle || isInApplicationFolder(path);
  if (!counts || !context_->root->linkStat(path, &state) || !S_ISLNK(state.st_mode)) {
    dropLink(path);
    return false;
  }
  follower_.follow(path, RegistryPathFollower::Link);
  std::string target = context_->root->canonicalPath(path).value_or(std::string());
  bool directory = target.size() > 1 && context_->root->stat(target, &state) && S_ISDIR(state.st_mode);
  if (!directory) target.clear();
  Link old = std::exchange(links_[path], {kind, target});
  if (old.kind == kind && old.target == target) {
    lookAtTarget({kind, target});
  } else {
    countLink(old, -1);
    countLink({kind, target}, +1);
  }
  return true;
}

void RegistryInventory::dropLink(const std::string& path) {
  if (links_.empty()) return;
  auto known = links_.find(path);
  if (known == links_.end()) return;
  Link link = std::move(known->second);
  links_.erase(known);
  follower_.unfollow(path, RegistryPathFollower::Link);
  countLink(link, -1);
}

// What lies in this folder does not count any more, or only when it was registered by path.
void RegistryInventory::dropLinksIn(const std::string& folder) {
  std::vector<std::string> paths;
  for (const auto& [path, link] : links_) {
    if (parentOf(path) == folder) paths.push_back(path);
  }
  for (const std::string& path : paths) dropLink(path);
}

void RegistryInventory::lookAtTarget(const Link& link) {
  if (link.target.empty()) return;
  if (link.kind == RegistryUnit::Kind::Application) {
    lookAtApplication(link.target);
  } else {
    lookAtBundle(link.target);
  }
}

void RegistryInventory::countLink(const Link& link, int change) {
  if (link.target.empty()) return;
  if (link.kind == RegistryUnit::Kind::Application) {
    Application& application = makeApplication(link.target);
    application.links = static_cast<std::uint16_t>(application.links + change);
  } else {
    std::string folder = parentOf(link.target);
    Bundle& bundle = makeFolder(folder).bundles[std::string(nameOf(link.target))];
    bundle.links = static_cast<std::uint16_t>(bundle.links + change);
    adoptFolder(folder);
  }
  lookAtTarget(link);
}

}  // namespace platform
