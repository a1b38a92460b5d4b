#include "platform/linux/registry/RegistryCatalon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>
#include <utility>

#include "platform/linux/files/Files.h"
#include "platform/linux/registry/RegistryPaths.h"

namespace platform {
namespace {

// The canonical path of what is there; of what is not there any more the path as it was asked for, without slashes
// behind it, since records keep canonical ones.
std::string canonicalOrPlain(const DeviceRoot& root, const std::string& path) {
  if (std::optional<std::string> canonical = root.canonicalPath(path)) return *std::move(canonical);
  std::size_t end = path.find_last_not_of('/');
  return path.substr(0, end == std::string::npos ? path.size() : end + 1);
}

// An application that the registry does not follow: it is in no folder of applications.
std::shared_ptr<RegistryApp> applicationAt(std::shared_ptr<RegistryContext> context,
                                           std::weak_ptr<const RegistryIndex> index, const std::string& path) {
  if (!path.ends_with(kApplicationEnding)) return nullptr;
  RegistryBundle found(*context->root, path);
  if (!found.exists()) return nullptr;
  DomainError error;
  PlistValue manifest = found.readManifest(&error);
  auto application = std::make_shared<RegistryApp>(std::move(context), std::move(index), path);
  application->update(RegistryAppEntry::of(manifest, found.manifestStamp(), found.isDeep()), found.isDeep(),
                      found.hasLocalizedNames());
  return application;
}

}  // namespace

std::shared_ptr<RegistryWorkspace> makeRegistry(std::shared_ptr<const DeviceRoot> root, std::string* reason,
                                                RegistryLanguages languages) {
  if (!root->open("/", O_PATH | O_DIRECTORY)) {
    *reason = fileError(root->hostPath().empty() ? "/" : root->hostPath(), errno).localizedDescription();
    return nullptr;
  }
  auto registry = std::make_shared<RegistryCatalon>(std::move(root), std::move(languages));
  try {
    registry->start();
  } catch (const std::system_error& error) {
    *reason = error.what();
    return nullptr;
  }
  return registry;
}

RegistryCatalon::RegistryCatalon(std::shared_ptr<const DeviceRoot> root, RegistryLanguages languages)
    : context_(std::make_shared<RegistryContext>(root, std::move(languages))),
      index_(std::make_shared<RegistryIndex>()),
      store_(std::move(root), [this](const RegistryStore::Visitor& visit) { inventory_.visitStored(visit); }),
      inventory_(context_, index_, store_, watcher_, agenda_) {}

RegistryCatalon::~RegistryCatalon() {
  ended_.store(true);
  wake();
  if (thread_.joinable()) thread_.join();
  index_->clear();  // records that somebody keeps must not keep all others
}

void RegistryCatalon::start() {
  wake_ = UniqueFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
  std::lock_guard lock(changes_);
  inventory_.load();
  publish();
  thread_ = std::thread([this] { run(); });
}

void RegistryCatalon::wake() {
  std::uint64_t one = 1;
  if (wake_) static_cast<void>(::write(wake_.get(), &one, sizeof one) < 0);  // full: it is awake anyway
}

void RegistryCatalon::run() {
  while (true) {
    {
      std::lock_guard lock(changes_);
      followEvents();
      flush();
    }
    observers_.deliver();
    if (ended_.load()) return;
    waitForWork();
  }
}

void RegistryCatalon::waitForWork() {
  using std::chrono::milliseconds;
  std::optional<RegistryAgenda::Clock::time_point> due;
  {
    std::lock_guard lock(changes_);
    due = agenda_.nextDue();
  }
  int timeout = -1;
  if (due) {
    auto left = std::chrono::ceil<milliseconds>(*due - RegistryAgenda::Clock::now());
    timeout = static_cast<int>(std::max(left, milliseconds(0)).count());
  }
  pollfd events[] = {{wake_.get(), POLLIN, 0}, {watcher_.fd(), POLLIN, 0}};
  static_cast<void>(::poll(events, 2, timeout));
  std::uint64_t ignored;
  static_cast<void>(::read(wake_.get(), &ignored, sizeof ignored) < 0);
}

void RegistryCatalon::followEvents() {
  bool complete = watcher_.read(
      [this](const std::string& directory, std::string_view name) { inventory_.noteEvent(directory, name); });
  auto now = RegistryAgenda::Clock::now();
  if (!complete) agenda_.changed({RegistryUnit::Kind::Everything, {}}, now);
  for (const RegistryUnit& unit : agenda_.takeDue(now)) inventory_.look(unit);
  publish();
}

// Stored first: what somebody saw is not forgotten by the next start. Before that the containers: a registration that
// survives a power cut without its container would never get one.
void RegistryCatalon::publish() {
  context_->containers.flush();
  static_cast<void>(store_.append());
  RegistryInventory::Changes changes = inventory_.takeChanges();
  if (changes.empty()) return;
  index_->change(changes.removed, changes.installed);
  using News = RegistryObservers::News;
  bool told = observers_.post(News::Uninstalled, {changes.removed.begin(), changes.removed.end()});
  told |= observers_.post(News::Installed, {changes.installed.begin(), changes.installed.end()});
  if (told) wake();
}

void RegistryCatalon::flush() { static_cast<void>(store_.sync()); }

std::optional<RegistryPlugInRecords> RegistryCatalon::plugInsMatching(const PlistValue& query, const Filter& filter) {
  RegistryPlugInRecords records = index_->candidates(query);
  if (!filter) return records;
  std::erase_if(records, [&filter](const std::shared_ptr<RegistryPlugInRecord>& candidate) {
    const auto& record = static_cast<const RegistryRecord&>(*candidate);
    return !filter(record.identifier(), record.entitlements());
  });
  return records;
}

bool RegistryCatalon::registerPlugIn(const FileURL& url) {
  std::optional<std::string> path = context_->root->canonicalPath(url.path);
  if (!path) return false;
  std::lock_guard lock(changes_);
  bool registered = inventory_.request(*path);
  publish();
  flush();
  wake();  // what was put on the agenda may be due before anything else happens
  return registered;
}

bool RegistryCatalon::unregisterPlugIn(const FileURL& url) {
  std::string path = canonicalOrPlain(*context_->root, url.path);
  std::lock_guard lock(changes_);
  bool unregistered = inventory_.withdraw(path);
  publish();
  flush();
  wake();
  return unregistered;
}

std::shared_ptr<RegistryPlugInRecord> RegistryCatalon::plugInRecord(const FileURL& bundleURL) {
  if (std::shared_ptr<RegistryRecord> record = index_->plugIn(bundleURL.path)) return record;
  return index_->plugIn(canonicalOrPlain(*context_->root, bundleURL.path));
}

std::shared_ptr<RegistryAppRecord> RegistryCatalon::appRecord(const FileURL& bundleURL) {
  if (std::shared_ptr<RegistryApp> application = index_->application(bundleURL.path)) return application;
  std::string path = canonicalOrPlain(*context_->root, bundleURL.path);
  std::shared_ptr<RegistryApp> application = index_->application(path);
  return application ? application : applicationAt(context_, index_, path);
}

}  // namespace platform
