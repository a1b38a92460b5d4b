// Making a plug-in launchable for one host process, and finding out whether it runs. Nothing is remembered: enabling
// again repeats the whole sequence.
#include <cstdlib>
#include <set>
#include <string>

#include "Vornik/VKBundle.h"
#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "vkd/plugins/VKDPlugIn.h"

namespace vkd {

namespace {

constexpr std::string_view kTemporaryFolder = "tmp";

// Extension points with a sandbox of their own; plug-ins of all others run under kPlugInProfile.
constexpr std::string_view kKeyboardPoint = "com.vantrel.keyboard-service";
constexpr const char* kKeyboardProfile = "keyboard";
constexpr const char* kPlugInProfile = "plugin";
struct PointProfile {
  std::string_view extensionPoint;
  const char* profile;
};
constexpr PointProfile kProfiles[] = {
    {"com.vantrel.netvane.filter-data", "network-filter"},
    {"com.vantrel.peekaro.extension.preview", "peekarod"},
    {"com.vantrel.app.non-ui-extension", "sketchpad-devtools"},
    {"com.vantrel.app.non-ui-extension.multiple-instances", "sketchpad-devtools"},
};

}  // namespace

std::optional<DomainError> VKDPlugIn::enableForClient(const HostClient& client) const {
  const std::string uuidText = uuid().text();
  PlistBuilder variables = environment();
  const char* profile = sandboxProfile();
  const PlistValue description = serviceDescription(std::move(variables), profile);
  VK_LOG(vk_ops(), Info, "assigning plug-in %@(%@) %{public}@ to %s sandbox", identifier(), version(), uuidText,
         profile);
  Message overlay = Message::dictionary();
  overlay.set(kVKService, Message::fromPlist(description));
  overlay.set(kVKBundlePackageType, kVKServicePackageType);
  VK_LOG(vk_ops(), Default, "allowing host %d %@ to use plug-in %@(%@) uuid=%{public}@ at %@", client.pid(),
         client.path(), identifier(), version(), uuidText, url().path);

  const auto bundle = VKBundle::initWithURL(*surroundings_.services.serviceBundles, url());
  const auto executable = bundle->executablePath();
  // A bundle without an executable answers its own path, which nobody can run.
  if (!executable || executable == bundle->path()) {
    VK_LOG(vk_ops(), Error, "failed to obtain execPath for plug-in %@(%{public}@) bundle=%@", *this, uuidText, *bundle);
    return vk_errorf(VKErrorInvalidRequest, "cannot obtain executable path for plug-in %@(%@)", identifier(), uuidText);
  }
  VK_LOG(vk_ops(), Debug, "activation overlay=%@", overlay);
  const int result = surroundings_.services.serviceManager->addExternalService(client.pid(), *executable, overlay);
  if (result == 0) return std::nullopt;
  VK_LOG(vk_ops(), Error, "jobd error %d trying to allow %d %@ to use plug-in %@(%@) uuid=%{public}@ at %@", result,
         client.pid(), client.path(), identifier(), version(), uuidText, path());
  return vk_errorf(VKErrorInvalidRequest, "unable to enable plug-in %@(%@)", identifier(), uuidText);
}

// What the daemon gives every plug-in.
PlistBuilder VKDPlugIn::environment() const {
  PlistBuilder variables;
  if (const auto container = alproxy_->dataContainerURL()) {
    variables.set(kVKEnvironmentHome, container->path);
    variables.set(kVKEnvironmentFixedHome, container->path);
    variables.set(kVKEnvironmentTemporary, container->appending(kTemporaryFolder).path);
  } else {
    VK_LOG(vk_ops(), Debug, "no data container for plug-in %@(%@) %{public}@ at %@", identifier(), version(), uuid(),
           path());
  }
  const std::string name(kVKEnvironmentTestSDK);
  if (const char* testSDK = std::getenv(name.c_str())) variables.set(name, testSDK);
  return variables;
}

const char* VKDPlugIn::sandboxProfile() const {
  const PlistValue point = pluginKey(kVKExtensionPointIdentifier);
  if (point.stringValue() == kKeyboardPoint) {
    const bool open = attribute(kVKRequestsOpenAccess).equals(true) &&
                      allowedZelvServices().contains(std::string(kZelvServiceKeyboardNetwork));
    return open ? kPlugInProfile : kKeyboardProfile;
  }
  for (const PointProfile& candidate : kProfiles) {
    if (point.stringValue() == candidate.extensionPoint) return candidate.profile;
  }
  return kPlugInProfile;
}

// The plug-in's own description, with what the daemon decides in its place.
PlistValue VKDPlugIn::serviceDescription(PlistBuilder variables, const char* profile) const {
  const PlistValue own = infoKey(kVKService);
  if (own.isDictionary()) {
    VK_LOG(vk_al(), Debug, "raw ZYPService=%@", own);
  } else {
    VK_LOG(vk_ops(), Info, "no ZYPService for plug-in; database returned %@", own);
  }
  const PlistValue ownVariables = own[kVKServiceEnvironment];
  if (ownVariables.isDictionary()) {
    for (const auto& [name, value] : ownVariables.entries()) variables.set(name, value);
  }
  return PlistBuilder(own)
      .set(kVKServiceEnvironment, variables.take())
      .set(kVKServiceSandboxProfile, profile)
      .set(kVKServiceOmitSandboxParameters, true)
      .take();
}

std::set<std::string> VKDPlugIn::allowedZelvServices() const {
  std::set<std::string> services;
  if (!containingUrl()) return services;
  const auto bundle = surroundings_.services.coreBundles->bundleAtPath(containingUrl()->path);
  if (bundle == nullptr) {
    VK_LOG(vk_ops(), Info, "failed to create bundle for %@", path());
    return services;
  }
  bundle->flushCaches();
  const auto records = surroundings_.services.consent->informationForBundle(*bundle);
  if (!records) {
    VK_LOG(vk_ops(), Info, "ZelvAccessCopyInformationForBundle failed for %@", bundle->description());
    return services;
  }
  for (const ConsentService::Record& record : *records) {
    if (record.granted.value_or(false)) services.insert(record.service);
  }
  return services;
}

Message VKDPlugIn::checkBusy() const {
  const PlistValue bundleIdentifier = infoKey(kVKBundleIdentifier);
  // Nothing runs under no identifier.
  if (!bundleIdentifier.isString()) return {};
  const auto instances =
      surroundings_.services.assertions->busyExtensionInstances({std::string(bundleIdentifier.stringValue())});
  for (const Message& instance : instances) {
    if (const std::string* running = instance.getString(kAssurdBundleIdentifierKey)) {
      Message conflict = Message::dictionary();
      conflict.set(kJobdExtensionBundleIdentifierKey, *running);
      return conflict;
    }
    VK_LOG(vk_ops(), Error, "assurd reported incomplete bundle for plug-in %@/%{public}@", identifier(), uuid());
  }
  return {};
}

}  // namespace vkd
