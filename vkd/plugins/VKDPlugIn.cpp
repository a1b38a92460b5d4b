#include "vkd/plugins/VKDPlugIn.h"

#include <cstddef>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "Vornik/VKSandboxExtension.h"

namespace vkd {

namespace {

using Scope = RegistryPlugInRecord::Scope;

constexpr std::string_view kSystemFolder = "/System/";
constexpr std::string_view kBundleItself = ".";
// What a plug-in speaks that does not say so itself.
constexpr std::uint64_t kLegacyHubProtocol = 1;
constexpr std::uint64_t kHubProtocol = 2;

}  // namespace

// --- Construction ---------------------------------------------------------------------------------------------------

std::shared_ptr<VKDPlugIn> VKDPlugIn::initWithALData(std::shared_ptr<RegistryPlugInRecord> record,
                                                     const Surroundings& surroundings) {
  std::shared_ptr<VKDPlugIn> plugIn(new VKDPlugIn(surroundings));
  return plugIn->setUp(std::move(record)) && plugIn->passesDiagnosis() ? plugIn : nullptr;
}

bool VKDPlugIn::setUp(std::shared_ptr<RegistryPlugInRecord> record) {
  if (!initializeWithNameUrlBundleInfoInfoUuid(record->plugInIdentifier(), record->bundleURL(), PlistValue(),
                                               record->plugInDictionary(), record->plugInUUID())) {
    return false;
  }
  alproxy_ = std::move(record);
  setEntitlements(alproxy_->entitlements());
  setOriginalIdentifier(alproxy_->originalIdentifier());
  setLastModified(PlistValue(alproxy_->registrationDate()).intValue());
  setOnSystemVolume(alproxy_->onSystemPartition());
  if (PlistValue version = plugInDictionary()[kVKHubProtocolVersion]) {
    setHubProtocolVersion(version.uintValue());
  } else {
    setHubProtocolVersion(infoKey(kVKLegacySection) ? kLegacyHubProtocol : kHubProtocol);
  }
  if (auto bundle = alproxy_->containingBundle()) setContainingUrl(bundle->bundleURL());
  if (PlistValue replaced = valueForEntitlement(kVKEntitlementReplacePlugIn); replaced.isString()) {
    replacedIdentifier_ = std::move(replaced);
  }
  dedicated_ = VKPlugInCore::isDedicated();
  hostEntitlement_ = pluginKey(kVKExtensionHostEntitlement);
  return true;
}

bool VKDPlugIn::passesDiagnosis() const {
  const auto error = diagnose();
  if (!error) return true;
  VK_LOG(vk_ops(), Info, "ignoring mis-configured plug-in at %@: %{public}@", path(), error->localizedDescription());
  return false;
}

std::optional<DomainError> VKDPlugIn::diagnose() const {
  if (auto error = VKPlugInCore::diagnose()) return error;
  if (!isData() && !alproxy_->dataContainerURL()) {
    return vk_error(VKErrorInvalidPlugIn, "this plug-in has no sandbox data container");
  }
  if (!containingUrl() && !path().starts_with(kSystemFolder)) {
    return vk_error(VKErrorInvalidPlugIn, "plug-ins outside containing apps must be in /System");
  }
  return std::nullopt;
}

// --- Lookups --------------------------------------------------------------------------------------------------------

PlistValue VKDPlugIn::infoKey(std::string_view key) const { return alproxy_->objectForKey(key, Scope::Manifest); }

PlistValue VKDPlugIn::pluginKey(std::string_view key) const { return alproxy_->objectForKey(key, Scope::PlugIn); }

PlistValue VKDPlugIn::attribute(std::string_view key) const { return alproxy_->objectForKey(key, Scope::Attributes); }

PlistValue VKDPlugIn::bundleInfoDictionary() const { return alproxy_->infoDictionary(); }

// --- Display names --------------------------------------------------------------------------------------------------

std::optional<std::string> VKDPlugIn::localizedName() const {
  if (auto kept = VKPlugInCore::localizedName()) return kept;
  auto name = alproxy_->localizedName();
  if (name) keeper().VKPlugInCore::setLocalizedName(name);
  return name;
}

std::optional<std::string> VKDPlugIn::localizedShortName() const {
  if (auto kept = VKPlugInCore::localizedShortName()) return kept;
  auto name = alproxy_->localizedShortName();
  if (name) keeper().VKPlugInCore::setLocalizedShortName(name);
  return name;
}

std::optional<std::string> VKDPlugIn::localizedContainingName() const {
  if (auto kept = VKPlugInCore::localizedContainingName()) return kept;
  const auto bundle = alproxy_->containingBundle();
  auto name = bundle ? bundle->localizedName() : std::nullopt;
  if (name) keeper().VKPlugInCore::setLocalizedContainingName(name);
  return name;
}

void VKDPlugIn::setLocalizedName(const std::optional<std::string>& name) {
  VKPlugInCore::setLocalizedName(name);
  form_.reset();
}

void VKDPlugIn::setLocalizedShortName(const std::optional<std::string>& name) {
  VKPlugInCore::setLocalizedShortName(name);
  form_.reset();
}

void VKDPlugIn::setLocalizedContainingName(const std::optional<std::string>& name) {
  VKPlugInCore::setLocalizedContainingName(name);
  form_.reset();
}

// --- Entitlements and annotation key --------------------------------------------------------------------------------

bool VKDPlugIn::hasEntitlement(std::string_view name) const {
  const PlistValue value = valueForEntitlement(name);
  return value && !value.equals(false);
}

std::string_view VKDPlugIn::annotationKey() const {
  return replacedIdentifier_ ? replacedIdentifier_.stringValue() : std::string_view(identifier());
}

// --- Form -----------------------------------------------------------------------------------------------------------

const PlugInForm* VKDPlugIn::form(std::optional<DomainError>* error) const {
  if (const PlugInForm* kept = form_.get()) return kept;
  try {
    const PlistValue exported = exportFormWithoutAnnotations(error);
    return exported ? form_.set(std::make_unique<PlugInForm>(exported)) : nullptr;
  } catch (const std::length_error& tooLarge) {
    if (error != nullptr) *error = vk_error(VKErrorInvalidPlugIn, tooLarge.what());
    return nullptr;
  }
}

void VKDPlugIn::augmentForm(PlistBuilder& form) const {
  if (PlistValue extensions = resourceExtensions()) form.set(kVKFormExtensions, std::move(extensions));
}

PlistValue VKDPlugIn::resourceExtensions() const {
  if (const PlistValue* kept = extensions_.get()) return *kept;
  const PlistValue paths = isAppExtension() ? PlistValue(kBundleItself) : pluginKey(kVKShared);
  if (!paths.isString() && !paths.isArray()) return {};
  bool complete = true;
  PlistValue tokens = compactPlist(issueTokens(paths, &complete));
  return complete ? *extensions_.set(std::make_unique<PlistValue>(std::move(tokens))) : tokens;
}

PlistValue VKDPlugIn::issueResourceExtensions(const PlistValue& paths) const { return issueTokens(paths, nullptr); }

PlistValue VKDPlugIn::issueTokens(const PlistValue& paths, bool* complete) const {
  PlistBuilder tokens;
  const auto issue = [&](const PlistValue& requested) {
    if (!requested.isString()) return;
    const FileURL location =
        requested.stringValue() == kBundleItself ? url() : url().appending(requested.stringValue());
    int reason = 0;
    if (auto token = vk_issue_read_extension(*surroundings_.services.sandbox, location, &reason)) {
      tokens.set(requested.stringValue(), *token);
      return;
    }
    if (complete != nullptr) *complete = false;
    VK_LOG(vk_ops(), Info, "failed to make extension for %@ in plug-in at %@: %{public}s", location.path, path(),
           std::generic_category().message(reason));
  };
  if (paths.isString()) issue(paths);
  for (const PlistValue& requested : paths.elements()) issue(requested);
  return tokens.take();
}

}  // namespace vkd
