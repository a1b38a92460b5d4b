#include "tools/verbs/Diagnosis.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>

#include "Vornik/VKKeys.h"
#include "Vornik/VKPlugInCore.h"
#include "platform/Terminal.h"
#include "platform/plists/PropertyList.h"

namespace vkctl {
namespace {

using namespace Vornik;
using Property = ServiceBundle::Property;

constexpr std::string_view kSystemFolder = "/System/";
constexpr std::string_view kSystemPlugIns = "/System/Library/PlugIns/";
constexpr std::string_view kManifestName = "/Info.plist";
constexpr std::string_view kPlaceholderKey = "CatalonPlaceholder";
constexpr std::string_view kDataContainerKey = "CatalonDataContainer";
constexpr std::string_view kExecutableKey = "KvBundleExecutable";

// The record that the daemon would build: every question about the manifest is answered from the bundle, whatever its
// style.
class BundleRecord final : public VKPlugInCore {
 public:
  static std::shared_ptr<BundleRecord> make(const std::string& identifier, const FileURL& url, PlistValue manifest,
                                            const PlistValue& section) {
    std::shared_ptr<BundleRecord> record(new BundleRecord(std::move(manifest)));
    bool done = record->initializeWithNameUrlBundleInfoInfoUuid(identifier, url, {}, section, std::nullopt);
    if (!done) return nullptr;
    record->setOriginalIdentifier(identifier);
    record->setOnSystemVolume(url.path.starts_with(kSystemFolder));
    return record;
  }
  PlistValue bundleInfoDictionary() const override { return manifest_; }
  PlistValue infoKey(std::string_view key) const override { return manifest_[key]; }

 private:
  explicit BundleRecord(PlistValue manifest) : manifest_(std::move(manifest)) {}
  PlistValue manifest_;
};

std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

class Examination {
 public:
  Examination(const Services& services, std::string_view path) : services_(services) {
    result_.path = path;
    bundle_ = services.serviceBundles->bundleAtPath(path);
  }

  Diagnosis run() {
    if (!bundle_->stringProperty(Property::BundlePath)) {
      problem("there is no bundle here");
      return result_;
    }
    result_.path = *bundle_->stringProperty(Property::BundlePath);
    manifest_ = readManifest(*bundle_, true);
    if (!manifest_ || !findSection()) return result_;
    checkConfiguration();
    record_ = identifier_.empty() ? nullptr : makeRecord(section_);
    checkPlacement();
    if (record_) {
      checkExecutable();
      checkDataContainer();
      checkExport();
      checkSDK();
      tellRestrictions();
    }
    return result_;
  }

 private:
  void problem(const std::string& text) { add(result_.problems, text); }
  void note(const std::string& text) { add(result_.notes, text); }
  static void add(std::vector<std::string>& list, const std::string& text) {
    if (std::ranges::find(list, text) == list.end()) list.push_back(text);
  }

  PlistValue readManifest(const ServiceBundle& bundle, bool mine);
  bool findSection();
  std::shared_ptr<BundleRecord> makeRecord(const PlistValue& section) const;
  void checkConfiguration();
  void checkPlacement();
  void checkApplication(const std::string& plugInsFolder);
  void checkExecutable();
  void checkDataContainer();
  void checkExport();
  void checkSDK();
  void tellRestrictions();

  const Services& services_;
  std::shared_ptr<ServiceBundle> bundle_;
  Diagnosis result_;
  PlistValue manifest_, section_;
  bool legacy_ = false;
  std::string identifier_;
  std::shared_ptr<BundleRecord> record_;
};

PlistValue Examination::readManifest(const ServiceBundle& bundle, bool mine) {
  std::string path = bundle.stringProperty(Property::SupportPath).value_or(result_.path);
  path += kManifestName;
  DomainError error;
  auto bytes = services_.files->readFile(FileURL{path}, &error);
  PlistValue manifest = bytes ? parsePropertyList(*bytes, &error) : PlistValue();
  if (manifest.isDictionary() || !mine) return manifest;
  if (manifest) {
    problem("the manifest " + path + " is no dictionary");
  } else {
    std::string where = bytes ? " at byte " + std::to_string(error.code) : "";
    problem("the manifest " + path + " cannot be read: " + error.localizedDescription() + where);
  }
  return {};
}

bool Examination::findSection() {
  section_ = manifest_[kVKExtension];
  legacy_ = !section_;
  if (legacy_) section_ = manifest_[kVKLegacySection];
  if (!section_.isDictionary()) {
    problem(section_ ? "the plug-in section of the manifest is no dictionary"
                     : "this is no plug-in: the manifest has neither a " + quoted(kVKExtension) + " nor a " +
                           quoted(kVKLegacySection) + " dictionary");
    return false;
  }
  PlistValue name = section_[kVKExtensionIdentifier];
  if (!name.isString()) name = manifest_[kVKBundleIdentifier];
  identifier_ = name.stringValue();
  if (identifier_.empty()) problem(VKPlugInCore::init()->diagnose()->localizedDescription());
  return true;
}

std::shared_ptr<BundleRecord> Examination::makeRecord(const PlistValue& section) const {
  return BundleRecord::make(identifier_.empty() ? "unnamed" : identifier_, FileURL{result_.path},
                            PlistBuilder(manifest_).set(legacy_ ? kVKLegacySection : kVKExtension, section).take(),
                            section);
}

// A record tells its first fault only. Each fault is told, and then taken away so that the next one shows: in the order
// in which a record looks for them.
void Examination::checkConfiguration() {
  const std::array<std::pair<std::string_view, PlistValue>, 5> repairs{{{kVKExtensionProtocol, kVKRootObject},
                                                                        {kVKExtensionAttributes, PlistBuilder().take()},
                                                                        {kVKPrincipalClass, kVKRootObject},
                                                                        {kVKPassProxy, {}},
                                                                        {kVKEmbeddedCode, {}}}};
  PlistValue section = section_;
  for (const auto& [key, repaired] : repairs) {
    auto error = makeRecord(section)->diagnose();
    if (!error) return;
    problem(error->localizedDescription());
    section = PlistBuilder(section).set(key, repaired).take();
  }
  if (auto error = makeRecord(section)->diagnose()) problem(error->localizedDescription());
}

void Examination::checkPlacement() {
  std::filesystem::path folder = std::filesystem::path(result_.path).parent_path();
  bool inPlugIns = folder.filename() == "PlugIns";
  std::filesystem::path app = folder.parent_path();
  if (app.filename() == "Contents") app = app.parent_path();
  if (inPlugIns && app.extension() == ".app") {
    checkApplication(app.string());
  } else if (!result_.path.starts_with(kSystemFolder)) {
    problem("it lies in no application's PlugIns folder, and only " + std::string(kSystemFolder) +
            " may hold plug-ins outside applications");
  } else if (!result_.path.starts_with(kSystemPlugIns)) {
    note("it is not found by itself outside " + std::string(kSystemPlugIns) + ": add it with vkctl add");
  }
}

void Examination::checkApplication(const std::string& path) {
  auto app = services_.serviceBundles->bundleAtPath(path);
  PlistValue manifest = readManifest(*app, false);
  if (!manifest.isDictionary()) {
    problem("its application " + path + " has no readable manifest");
  } else if (manifest[kPlaceholderKey].boolValue()) {
    problem("its application " + path + " is only a placeholder");
  }
}

void Examination::checkExecutable() {
  if (record_->isData()) return;
  auto executable = bundle_->stringProperty(Property::ExecutablePath);
  PlistValue name = manifest_[kExecutableKey];
  if (!executable) {
    problem(name.isString()
                ? "its executable " + quoted(name.stringValue()) + " is not there: no host can launch it"
                : "the manifest names no executable (" + std::string(kExecutableKey) + "): no host can launch it");
    return;
  }
  using std::filesystem::perms;
  std::error_code ignored;
  perms mode = std::filesystem::status(deviceRootOfHost() + *executable, ignored).permissions();
  if ((mode & (perms::owner_exec | perms::group_exec | perms::others_exec)) == perms::none) {
    problem("its executable " + *executable + " may not be executed: no host can launch it");
  }
  std::optional<DomainError> error;
  services_.codeSigning->entitlementsOfExecutable(*executable, &error);
  if (error) problem("its entitlements do not count: " + error->localizedDescription());
}

void Examination::checkDataContainer() {
  PlistValue wanted = manifest_[kDataContainerKey];
  if (record_->isData() || !wanted || wanted.boolValue()) return;
  std::string folder = "/var/containers/" + identifier_;
  if (services_.files->exists(FileURL{folder})) return;
  problem("it has no data container: " + folder + " does not exist, and " + std::string(kDataContainerKey) +
          " keeps registration from making it");
}

// The registry gives every plug-in a version before it is exported.
void Examination::checkExport() {
  record_->canonicalize();
  std::optional<DomainError> error;
  if (!record_->exportForm(&error)) problem("it cannot be described to hosts: " + error->localizedDescription());
}

void Examination::checkSDK() {
  if (legacy_) return;
  auto record = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid(identifier_, FileURL{result_.path}, manifest_, section_,
                                                                std::nullopt);
  if (!record) return;
  PlistValue point = record->sdkSpec();
  if (!point) {
    note("it names no extension point: hosts that look for one do not find it");
    return;
  }
  if (!point.isString()) {
    problem("its extension point is no text: " + point.description());
    return;
  }
  if (!services_.sdks->sdk(point.stringValue())) {
    note("no SDK is registered for its extension point " + std::string(point.stringValue()));
    return;
  }
  record->resolveSDK(*services_.sdks);
  auto error = record->diagnose();
  if (error && result_.problems.empty()) {
    problem("with the SDK of " + std::string(point.stringValue()) + ": " + error->localizedDescription());
  }
}

void Examination::tellRestrictions() {
  if (PlistValue entitlement = record_->pluginKey(kVKExtensionHostEntitlement)) {
    note("only hosts with the entitlement " + entitlement.description() + " may use it");
  }
  if (record_->isDedicated()) note("it serves only its own application");
  if (record_->isData()) note("it is a data plug-in: read, never launched");
  if (section_.contains(kVKMultiple)) note("the key " + quoted(kVKMultiple) + " is obsolete and ignored");
}

}  // namespace

Diagnosis diagnoseBundle(const Services& services, std::string_view devicePath) {
  return Examination(services, devicePath).run();
}

}  // namespace vkctl
