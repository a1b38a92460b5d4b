#include "Vornik/VKPlugInCore.h"

#include <cassert>
#include <functional>
#include <utility>

#include "Vornik/SmallDictionaryChanges.h"
#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"

namespace Vornik {

namespace {

PlistValue onlyDictionary(PlistValue value) { return value.isDictionary() ? std::move(value) : PlistValue(); }

DomainError invalidPlugIn(std::string message) { return vk_error(VKErrorInvalidPlugIn, std::move(message)); }

DomainError missingKey(std::string_view key) {
  return invalidPlugIn(formatText("missing \"%@\" key in Info.plist or SDK", key));
}

// Holds a record's flag for the length of a scope.
class Busy {
 public:
  explicit Busy(std::atomic_flag& flag) : flag_(flag) {
    while (flag_.test_and_set(std::memory_order_acquire)) flag_.wait(true, std::memory_order_relaxed);
  }
  ~Busy() {
    flag_.clear(std::memory_order_release);
    flag_.notify_one();
  }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  std::atomic_flag& flag_;
};

}  // namespace

// --- Set-up ---------------------------------------------------------------------------------------------------------

std::shared_ptr<VKPlugInCore> VKPlugInCore::init() { return std::shared_ptr<VKPlugInCore>(new VKPlugInCore); }

std::shared_ptr<VKPlugInCore> VKPlugInCore::initWithNameUrlBundleInfoInfoUuid(const std::string& name,
                                                                              const std::optional<FileURL>& url,
                                                                              const PlistValue& bundleInfo,
                                                                              const PlistValue& info,
                                                                              const std::optional<UUID>& uuid) {
  auto plugIn = init();
  return plugIn->initializeWithNameUrlBundleInfoInfoUuid(name, url, bundleInfo, info, uuid) ? plugIn : nullptr;
}

bool VKPlugInCore::initializeWithNameUrlBundleInfoInfoUuid(const std::string& name, const std::optional<FileURL>& url,
                                                           const PlistValue& bundleInfo, const PlistValue& info,
                                                           const std::optional<UUID>& uuid) {
  if (!setupWithNameUrlBundleInfoInfoUuid(name, url, bundleInfo, info, uuid)) return false;
  if (!plugInDictionary_) plugInDictionary_ = onlyDictionary(info);
  return true;
}

bool VKPlugInCore::setupWithNameUrlBundleInfoInfoUuid(const std::string& name, const std::optional<FileURL>& url,
                                                      const PlistValue& bundleInfo, const PlistValue& /*info*/,
                                                      const std::optional<UUID>& uuid) {
  if (!url || url->path.empty()) return false;
  if (name.empty()) {
    VK_LOG(vk_ops(), Error, "missing identifier in plug-in at %@", url->path);
    return false;
  }
  if (bundleInfo && !setDictionaries(normalizeInfoDictionary(bundleInfo))) {
    VK_LOG(vk_ops(), Default, "malformed plug-in dictionary in plug-in %@ at %@: %@", name, *url, bundleInfo);
    return false;
  }
  identifier_ = name;
  url_ = *url;
  uuid_ = uuid ? *uuid : UUID::random();
  return true;
}

bool VKPlugInCore::setDictionaries(const PlistValue& dictionary) {
  if (!dictionary.isDictionary()) return false;
  setBundleInfoDictionary(dictionary);
  PlistValue section = dictionary[kVKExtension];
  if (!section.isDictionary()) return false;
  bool multiple = section.contains(kVKMultiple);
  setPlugInDictionary(std::move(section));
  if (multiple) {
    VK_LOG(vk_ops(), Default, "multiplexed plug-ins (%{public}@ key) obsolete and ignored", kVKMultiple);
  }
  return true;
}

void VKPlugInCore::canonicalize() {
  auto installAttributes = [this](PlistBuilder attributes) {
    setPlugInDictionary(dictionaryChangingTo(plugInDictionary(), kVKExtensionAttributes, attributes.take()));
  };
  installAttributes(PlistBuilder(attributes()));
  if (attribute(kVKExtensionVersion)) return;
  PlistValue version = infoKey(kVKBundleShortVersionString);
  if (!version) version = kVKDefaultVersion;
  PlistBuilder completed(attributes());
  completed.set(kVKExtensionVersion, std::move(version));
  installAttributes(std::move(completed));
}

// --- Lookups and what is derived from them --------------------------------------------------------------------------

PlistValue VKPlugInCore::infoKey(std::string_view key) const { return bundleInfoDictionary()[key]; }

PlistValue VKPlugInCore::pluginKey(std::string_view key) const { return plugInDictionary()[key]; }

PlistValue VKPlugInCore::attribute(std::string_view key) const { return attributes()[key]; }

std::optional<std::string> VKPlugInCore::containingPath() const {
  return containingUrl_ ? std::optional(containingUrl_->path) : std::nullopt;
}

PlistValue VKPlugInCore::attributes() const { return onlyDictionary(pluginKey(kVKExtensionAttributes)); }

std::optional<std::string> VKPlugInCore::version() const {
  PlistValue version = attribute(kVKExtensionVersion);
  return version.isString() ? std::optional<std::string>(version.stringValue()) : std::nullopt;
}

PlistValue VKPlugInCore::sdkSpec() const { return pluginKey(kVKExtensionPointIdentifier); }

PlistValue VKPlugInCore::rootObjectUnless(PlistValue declared) const {
  if (declared || !isAppExtension()) return declared;
  return PlistValue::string(SharedSlice(nullptr, kVKRootObject));
}

PlistValue VKPlugInCore::protocolSpec() const { return rootObjectUnless(pluginKey(kVKExtensionProtocol)); }

PlistValue VKPlugInCore::principalSpec() const { return rootObjectUnless(pluginKey(kVKPrincipalClass)); }

PlistValue VKPlugInCore::embeddedProtocolSpec() const {
  PlistValue embedded = pluginKey(kVKEmbeddedProtocol);
  return embedded ? embedded : protocolSpec();
}

bool VKPlugInCore::oldStyle() const {
  if (infoKey(kVKExtension)) return false;
  if (infoKey(kVKLegacySection)) return true;
  VK_LOG(vk_ops(), Fault, "unknown plug-in configuration style");
  return false;
}

bool VKPlugInCore::isAppExtension() const { return path().ends_with(kVKAppExtensionSuffix); }

bool VKPlugInCore::isHybrid() const { return static_cast<bool>(pluginKey(kVKEmbeddedCode)); }

bool VKPlugInCore::isDedicated() const { return pluginKey(kVKDedicated).boolValue(); }

bool VKPlugInCore::isData() const { return protocolSpec().stringValue() == kVKDataProtocol; }

std::optional<DomainError> VKPlugInCore::diagnose() const {
  if (identifier_.empty()) {
    return invalidPlugIn("missing identifier (no ZoExtensionIdentifier, nor even KvBundleIdentifier)");
  }
  if (!protocolSpec()) return missingKey(kVKExtensionProtocol);
  if (!attributes()) return missingKey(kVKExtensionAttributes);
  if (isAppExtension() && principalSpec().stringValue() != kVKRootObject) {
    return invalidPlugIn(formatText("Application Extensions may not use the \"%@\" key", kVKPrincipalClass));
  }
  if (pluginKey(kVKPassProxy)) {
    return invalidPlugIn(formatText("the \"%@\" key is not supported on this platform", kVKPassProxy));
  }
  if (isHybrid()) return invalidPlugIn("hybrid plug-ins are not supported on this platform");
  return std::nullopt;
}

std::shared_ptr<void> VKPlugInCore::augmentInterface(const std::shared_ptr<void>& /*interface*/) const {
  return nullptr;
}

// --- Identity -------------------------------------------------------------------------------------------------------

bool VKPlugInCore::isEqual(const VKPlugInCore& other) const {
  assert(uuid_ != UUID{} && other.uuid_ != UUID{});
  return uuid_ == other.uuid_;
}

std::size_t VKPlugInCore::hash() const {
  assert(uuid_ != UUID{});
  return std::hash<UUID>()(uuid_);
}

void describeTo(std::string& out, const VKPlugInCore& plugIn) {
  out += formatText("<%@ %@ %@ %@>", plugIn.identifier(), plugIn.version(), plugIn.uuid(), plugIn.path());
}

// --- Replaceable values ---------------------------------------------------------------------------------------------

PlistValue VKPlugInCore::read(const PlistValue& property) const {
  Busy busy(busy_);
  return property;
}

void VKPlugInCore::replace(PlistValue& property, PlistValue value) {
  // The old value goes after the flag: a large one takes a while to free.
  Busy busy(busy_);
  std::swap(property, value);
}

std::optional<std::string> VKPlugInCore::readString(const PlistValue& property) const {
  PlistValue value = read(property);
  return value.isString() ? std::optional<std::string>(value.stringValue()) : std::nullopt;
}

void VKPlugInCore::replaceString(PlistValue& property, const std::optional<std::string>& value) {
  replace(property, value ? PlistValue(*value) : PlistValue());
}

}  // namespace Vornik
