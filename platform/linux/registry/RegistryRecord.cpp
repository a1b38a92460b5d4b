#include "platform/linux/registry/RegistryRecord.h"

#include <utility>

#include "platform/linux/registry/RegistryIndex.h"

namespace platform {
namespace {

constexpr std::string_view kDataProtocol = "#Data";

std::string supportPathOf(const std::string& path, bool deep) { return deep ? path + "/Contents" : path; }

std::string text(const PlistValue& value) { return std::string(value.stringValue()); }

}  // namespace

RegistryApp::RegistryApp(std::shared_ptr<RegistryContext> context, std::weak_ptr<const RegistryIndex> index,
                         std::string path)
    : context_(std::move(context)), index_(std::move(index)), path_(std::move(path)) {}

RegistryAppEntry RegistryApp::entry() const {
  std::lock_guard lock(mutex_);
  return entry_;
}

void RegistryApp::update(RegistryAppEntry entry, bool deep, bool localized) {
  placeholder_.store(entry.isPlaceholder(), std::memory_order_relaxed);
  {
    std::lock_guard lock(mutex_);
    entry_ = std::move(entry);
    deep_ = deep;
  }
  names_.setLocalized(context_->languages, localized);
}

std::optional<std::string> RegistryApp::localizedName() const {
  std::unique_lock lock(mutex_);
  PlistValue names = entry_.names();
  std::string support = supportPathOf(path_, deep_);
  lock.unlock();
  return names_.name(*context_->root, context_->languages, support, names);
}

RegistryPlugInRecords RegistryApp::plugIns() const {
  std::shared_ptr<const RegistryIndex> index = index_.lock();
  return index ? index->plugInsOf(path_) : RegistryPlugInRecords();
}

RegistryRecord::RegistryRecord(std::shared_ptr<RegistryContext> context, std::shared_ptr<RegistryApp> application,
                               std::string path, const RegistryEntry& entry)
    : context_(std::move(context)),
      application_(std::move(application)),
      path_(std::move(path)),
      manifest_(entry.manifest()),
      section_(entry.section()),
      attributes_(section_[manifest_key::Attributes]),
      entitlements_(entry.entitlements()),
      identifier_(section_[manifest_key::Identifier]),
      uuid_(entry.uuid()),
      date_(entry.date()),
      deep_(entry.isDeep()) {
  if (identifier_.stringValue().empty()) identifier_ = manifest_[manifest_key::BundleIdentifier];
}

std::string RegistryRecord::originalIdentifier() const {
  std::string bundle = bundleIdentifier();
  return bundle.empty() ? plugInIdentifier() : bundle;
}

std::string RegistryRecord::bundleIdentifier() const { return text(manifest_[manifest_key::BundleIdentifier]); }
std::string RegistryRecord::bundleVersion() const { return text(manifest_[manifest_key::BundleVersion]); }

PlistValue RegistryRecord::objectForKey(std::string_view key, Scope scope) const {
  switch (scope) {
    case Scope::Attributes:
      return attributes_[key];
    case Scope::PlugIn:
      return section_[key];
    case Scope::Manifest:
      return manifest_[key];
  }
  return {};
}

std::optional<std::string> RegistryRecord::localizedName() const {
  return names_.name(*context_->root, context_->languages, supportPathOf(path_, deep_), manifest_);
}

std::optional<std::string> RegistryRecord::localizedShortName() const {
  return names_.shortName(*context_->root, context_->languages, supportPathOf(path_, deep_), manifest_);
}

bool RegistryRecord::wantsDataContainer() const {
  PlistValue wish = manifest_[manifest_key::DataContainer];
  return section_[manifest_key::Protocol] != PlistValue(kDataProtocol) && !(wish && wish.equals(false));
}

}  // namespace platform
