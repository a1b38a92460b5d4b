// The record of one installed plug-in as both sides of the protocol see it: its identity, its manifest, its signing
// data and the user's annotations. The daemon's plug-in objects are a subclass; a client rebuilds a record from the
// form that the daemon sends:
//
//   for (const PlistValue& form : matches.elements())
//     if (auto plugIn = VKPlugInCore::initWithForm(form)) use(plugIn->identifier(), plugIn->version());
//
// Every question about the manifest goes through infoKey, pluginKey and attribute; a subclass that answers these three
// from elsewhere changes all derived properties with them.
//
//   life of a record:   made empty --set up once, by a factory--> handed out --annotations, names, SDK--> …
//
// Threads: what is fixed when a record is handed out may be read from any thread without further ado. What can be
// replaced afterwards (both dictionaries, annotations, display names) is read and replaced atomically, value by value;
// changes of several values (set-up, setDictionaries, canonicalize, resolveSDK) are not atomic as a whole.
#pragma once

#include <atomic>
#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Vornik/VKStandard.h"
#include "platform/UserServices.h"
#include "platform/values/DomainError.h"
#include "platform/values/FileURL.h"
#include "platform/values/PlistValue.h"
#include "platform/values/UUID.h"

namespace Vornik {

using namespace platform;

class VKPlugInCore {
 public:
  // --- Construction: null when set-up fails --------------------------------------------------------------------------

  // An empty record, of use only to whoever sets it up.
  static std::shared_ptr<VKPlugInCore> init();
  // A record with the given identifier (empty: missing), location, `Info.plist` and plug-in section (each dictionary
  // may be nothing); without UUID it gets a fresh random one. `info` becomes the plug-in section unless `bundleInfo`
  // gave one.
  static std::shared_ptr<VKPlugInCore> initWithNameUrlBundleInfoInfoUuid(const std::string& name,
                                                                         const std::optional<FileURL>& url,
                                                                         const PlistValue& bundleInfo,
                                                                         const PlistValue& info,
                                                                         const std::optional<UUID>& uuid);
  // A record rebuilt from a plug-in form. It shares the form's memory, and a form that of the reply it came in.
  static std::shared_ptr<VKPlugInCore> initWithForm(const PlistValue& form);

  virtual ~VKPlugInCore() = default;
  VKPlugInCore(const VKPlugInCore&) = delete;
  VKPlugInCore& operator=(const VKPlugInCore&) = delete;

  // --- Stored: fixed when the record is handed out -------------------------------------------------------------------

  bool onSystemVolume() const { return onSystemVolume_; }
  const std::string& identifier() const { return identifier_; }
  const std::string& originalIdentifier() const { return originalIdentifier_; }  // empty when there is none
  const FileURL& url() const { return url_; }
  const std::optional<FileURL>& containingUrl() const { return containingUrl_; }
  const PlistValue& entitlements() const { return entitlements_; }  // dictionary or nothing
  std::uint64_t hubProtocolVersion() const { return hubProtocolVersion_; }
  std::int64_t lastModified() const { return lastModified_; }  // seconds since 1970-01-01 00:00 UTC
  const UUID& uuid() const { return uuid_; }
  const PlistValue& cdhash() const { return cdhash_; }            // data or nothing
  const PlistValue& requirement() const { return requirement_; }  // string or nothing

  // --- Stored: replaceable -------------------------------------------------------------------------------------------

  PlistValue plugInDictionary() const { return read(plugInDictionary_); }  // dictionary or nothing
  virtual PlistValue bundleInfoDictionary() const { return read(bundleInfoDictionary_); }
  PlistValue annotations() const { return read(annotations_); }  // dictionary or nothing
  void setAnnotations(PlistValue annotations) { replace(annotations_, std::move(annotations)); }
  virtual std::optional<std::string> localizedName() const { return readString(localizedName_); }
  virtual std::optional<std::string> localizedShortName() const { return readString(localizedShortName_); }
  virtual std::optional<std::string> localizedContainingName() const { return readString(localizedContainingName_); }
  virtual void setLocalizedName(const std::optional<std::string>& name) { replaceString(localizedName_, name); }
  virtual void setLocalizedShortName(const std::optional<std::string>& name) {
    replaceString(localizedShortName_, name);
  }
  virtual void setLocalizedContainingName(const std::optional<std::string>& name) {
    replaceString(localizedContainingName_, name);
  }

  // --- Derived on every call -----------------------------------------------------------------------------------------

  const std::string& path() const { return url_.path; }
  std::optional<std::string> containingPath() const;
  PlistValue attributes() const;               // dictionary or nothing
  std::optional<std::string> version() const;  // nothing unless the attribute is a string
  PlistValue sdkSpec() const;                  // the extension point; a string unless the manifest is wrong
  PlistValue protocolSpec() const;
  PlistValue principalSpec() const;
  PlistValue embeddedProtocolSpec() const;
  std::optional<std::string> embeddedCodePath() const { return std::nullopt; }
  std::chrono::sys_seconds timestamp() const { return std::chrono::sys_seconds(std::chrono::seconds(lastModified_)); }
  // False also for a manifest of neither style, which is logged as an inconsistency.
  bool oldStyle() const;
  bool isAppExtension() const;
  bool isMultiplexed() const { return false; }
  bool isHybrid() const;
  bool isDedicated() const;
  bool isData() const;

  // --- Lookups: the value, or nothing --------------------------------------------------------------------------------

  virtual PlistValue infoKey(std::string_view key) const;    // top level of the `Info.plist`
  virtual PlistValue pluginKey(std::string_view key) const;  // plug-in section
  virtual PlistValue attribute(std::string_view key) const;  // attributes of the plug-in section

  // --- Validation and hooks ------------------------------------------------------------------------------------------

  // The first thing that is wrong with the plug-in's configuration (VKErrorInvalidPlugIn), or nothing. A subclass calls
  // this first.
  virtual std::optional<DomainError> diagnose() const;
  // The hook through which every `Info.plist` passes before it is installed; answers its argument here.
  virtual PlistValue normalizeInfoDictionary(const PlistValue& dictionary) const { return dictionary; }
  // Lets a subclass complete the interface through which a host talks to the plug-in; answers nothing here.
  virtual std::shared_ptr<void> augmentInterface(const std::shared_ptr<void>& interface) const;

  // Installs an `Info.plist` and the plug-in section in it. False when it is no dictionary (nothing changes) or has no
  // section (the `Info.plist` is installed all the same).
  bool setDictionaries(const PlistValue& dictionary);
  // Completes the plug-in section: afterwards it has attributes, and these have a version.
  void canonicalize();

  // By UUID alone. Both need a record that was set up.
  bool isEqual(const VKPlugInCore& other) const;
  std::size_t hash() const;

  // --- Form ----------------------------------------------------------------------------------------------------------

  // The dictionary that describes this plug-in to a client. (Not `export`, which C++ keeps for itself.) A record that
  // lacks a value every form has is not exported: nothing and *error, VKErrorInvalidPlugIn naming the key; otherwise
  // *error is left alone.
  PlistValue exportForm(std::optional<DomainError>* error) const;
  // The same without "annotations", the one entry that changes while a registration lasts: for who keeps it and adds
  // them each time.
  PlistValue exportFormWithoutAnnotations(std::optional<DomainError>* error) const;
  // Fills an empty record from a form.
  bool setupWithForm(const PlistValue& form);
  // Takes over the annotations of a newer form; afterwards there are none when the form has none.
  void updateFromForm(const PlistValue& form);
  // Changes one annotation, or removes it when value is nothing. A record without annotations stays as it is.
  void setAnnotationValue(std::string_view key, const PlistValue& value);

  // --- SDK of the extension point ------------------------------------------------------------------------------------

  // Completes a record that was built from an `Info.plist` alone with the defaults of its extension point. A record
  // without `Info.plist` is logged as an inconsistency and left alone, one with a malformed extension point is logged
  // and left alone; without a registered SDK it is canonicalized only.
  void resolveSDK(ExtensionSdkRegistry& sdks);
  // The SDK dictionary of an extension point, or nothing.
  static PlistValue readSDKDictionary(ExtensionSdkRegistry& sdks, std::string_view name);
  // The plug-in's dictionary completed from the SDK's. The plug-in's values win, but for sdkOverridesKey and "Shared".
  PlistValue mergeDictionaryInto(const PlistValue& sdk, const PlistValue& plugIn) const;
  virtual bool sdkOverridesKey(std::string_view key) const;
  // Every element of both, once; a single string counts as a list of one.
  static PlistValue mergeSharedResourcesInto(const PlistValue& sdk, const PlistValue& plugIn);

 protected:
  VKPlugInCore() = default;

  // Fills an empty record; false, with the reason logged, when it cannot be one. Does not look at `info`.
  bool setupWithNameUrlBundleInfoInfoUuid(const std::string& name, const std::optional<FileURL>& url,
                                          const PlistValue& bundleInfo, const PlistValue& info,
                                          const std::optional<UUID>& uuid);
  // What the factory of that name does with an empty record, for the factory of a subclass.
  bool initializeWithNameUrlBundleInfoInfoUuid(const std::string& name, const std::optional<FileURL>& url,
                                               const PlistValue& bundleInfo, const PlistValue& info,
                                               const std::optional<UUID>& uuid);

  // Only before the record is handed out.
  void setOnSystemVolume(bool value) { onSystemVolume_ = value; }
  void setOriginalIdentifier(std::string identifier) { originalIdentifier_ = std::move(identifier); }
  void setContainingUrl(std::optional<FileURL> url) { containingUrl_ = std::move(url); }
  void setEntitlements(PlistValue entitlements) { entitlements_ = std::move(entitlements); }
  void setHubProtocolVersion(std::uint64_t version) { hubProtocolVersion_ = version; }
  void setLastModified(std::int64_t seconds) { lastModified_ = seconds; }
  // At any time.
  void setPlugInDictionary(PlistValue section) { replace(plugInDictionary_, std::move(section)); }
  void setBundleInfoDictionary(PlistValue manifest) { replace(bundleInfoDictionary_, std::move(manifest)); }

 private:
  PlistValue rootObjectUnless(PlistValue declared) const;
  PlistValue read(const PlistValue& property) const;
  void replace(PlistValue& property, PlistValue value);
  std::optional<std::string> readString(const PlistValue& property) const;
  void replaceString(PlistValue& property, const std::optional<std::string>& value);

  bool onSystemVolume_ = false;
  // Held for the length of copying or swapping one replaceable value: a flag, because there are thousands of records
  // and two threads hardly ever meet at one.
  mutable std::atomic_flag busy_;
  PlistValue plugInDictionary_;
  std::string identifier_;
  std::string originalIdentifier_;
  FileURL url_;
  std::optional<FileURL> containingUrl_;
  PlistValue bundleInfoDictionary_;
  PlistValue entitlements_;
  std::uint64_t hubProtocolVersion_ = 1;
  PlistValue localizedName_, localizedShortName_, localizedContainingName_;
  PlistValue annotations_;
  std::int64_t lastModified_ = 0;
  UUID uuid_{};
  PlistValue cdhash_;
  PlistValue requirement_;
};

// %@ of a record: "<identifier version uuid path>", and of a list of them.
void describeTo(std::string& out, const VKPlugInCore& plugIn);
template <std::derived_from<VKPlugInCore> PlugIn>
void describeTo(std::string& out, const std::vector<std::shared_ptr<PlugIn>>& plugIns) {
  out += '(';
  for (const auto& plugIn : plugIns) {
    if (out.back() != '(') out += ", ";
    describeTo(out, static_cast<const VKPlugInCore&>(*plugIn));
  }
  out += ')';
}

// For sets and maps of records: std::unordered_set<std::shared_ptr<VKDPlugIn>, VKPlugInHash, VKPlugInEqual>.
struct VKPlugInHash {
  std::size_t operator()(const std::shared_ptr<const VKPlugInCore>& plugIn) const { return plugIn->hash(); }
};
struct VKPlugInEqual {
  bool operator()(const std::shared_ptr<const VKPlugInCore>& a, const std::shared_ptr<const VKPlugInCore>& b) const {
    return a->isEqual(*b);
  }
};

}  // namespace Vornik
