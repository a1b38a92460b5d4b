#include "platform/linux/system/LinuxUserServices.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/linux/files/Files.h"

namespace platform {
namespace {

// Domains whose values are kept: a caller that asks for ever new names must not fill the memory.
constexpr std::size_t kMaxDomains = 64;

std::string userFolder() { return "/var/users/" + std::to_string(::getuid()); }

}  // namespace

bool LinuxUserManager::isMultiUser() {
  struct stat state {};
  return root_->stat("/var/db/multi-user", &state);
}

std::optional<FileURL> LinuxContainerService::userDataContainer(std::uint32_t containerClass,
                                                                std::string_view identifier, std::uint64_t* errorCode) {
  std::string path = userFolder() + "/Containers/" + std::to_string(containerClass) + "/" + std::string(identifier);
  errno = EINVAL;
  UniqueFd made = isSafeComponent(identifier) ? root_->makeDirectories(path, 0700) : UniqueFd();
  if (made) return FileURL{std::move(path)};
  if (errorCode != nullptr) *errorCode = static_cast<std::uint64_t>(errno);
  return std::nullopt;
}

LinuxPreferences::LinuxPreferences(std::shared_ptr<const DeviceRoot> root)
    : root_(std::move(root)), folder_(userFolder() + "/Preferences/ByHost/") {}

WatchedPlist* LinuxPreferences::domainNamed(std::string_view name, bool refresh) {
  Domains::iterator found = domains_.find(name);
  if (found == domains_.end()) {
    std::string fileName = std::string(name).append(".plist");
    if (!isSafeComponent(fileName)) return nullptr;
    if (domains_.size() >= kMaxDomains) domains_.clear();
    found = domains_.emplace(name, WatchedPlist(folder_ + fileName)).first;
    refresh = true;
  }
  if (refresh) found->second.refresh(*root_);
  return &found->second;
}

void LinuxPreferences::synchronize(std::string_view domain) {
  std::lock_guard lock(mutex_);
  domainNamed(domain, true);
}

PlistValue LinuxPreferences::value(std::string_view key, std::string_view domain) {
  std::lock_guard lock(mutex_);
  const WatchedPlist* file = domainNamed(domain, false);
  return file == nullptr ? PlistValue() : file->value()[key];
}

Message LinuxExtensionSdkRegistry::sdk(std::string_view extensionPoint) {
  std::string fileName = std::string(extensionPoint).append(".plist");
  if (!isSafeComponent(fileName)) return {};
  PlistValue definition = readPlistFile(*root_, "/System/Library/ExtensionPoints/" + fileName);
  return definition.isDictionary() ? Message::fromPlist(definition) : Message();
}

std::optional<std::vector<ConsentService::Record>> LinuxConsentService::informationForBundle(const CoreBundle& bundle) {
  std::optional<std::string> identifier = bundle.bundleIdentifier();
  if (!identifier) return std::nullopt;
  std::lock_guard lock(mutex_);
  consent_.refresh(*root_);
  // A grant that was taken back in a file that cannot be read must not stay in force.
  if (!consent_.isGood()) return std::nullopt;
  std::vector<Record> records;
  for (const PlistValue& entry : consent_.value()[*identifier].elements()) {
    PlistValue granted = entry["granted"];
    records.push_back({granted.isNumber() ? std::optional(granted.boolValue()) : std::nullopt,
                       std::string(entry["service"].stringValue())});
  }
  return records;
}

}  // namespace platform
