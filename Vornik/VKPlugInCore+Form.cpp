// The plug-in form: how the daemon describes a plug-in to a client, and how the client rebuilds the record.

#include <array>
#include <utility>

#include "Vornik/SmallDictionaryChanges.h"
#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKPlugInCore.h"

namespace Vornik {

namespace {

struct FormEntry {
  std::string_view key;
  PlistValue value;
};

PlistValue text(const std::optional<std::string>& value) { return value ? PlistValue(*value) : PlistValue(); }

PlistValue textUnlessEmpty(const std::string& value) { return value.empty() ? PlistValue() : PlistValue(value); }

PlistValue withoutInfoPlistURL(const PlistValue& bundleInfo) {
  if (!bundleInfo.contains(kVKBundleInfoPlistURL)) return bundleInfo;
  return dictionaryChangingTo(bundleInfo, kVKBundleInfoPlistURL, PlistValue());
}

PlistValue entryOfKind(const PlistValue& form, std::string_view key, PlistValue::Kind kind) {
  PlistValue value = form[key];
  return value.kind() == kind ? std::move(value) : PlistValue();
}

std::optional<FileURL> urlEntry(const PlistValue& form, std::string_view key) {
  PlistValue path = form[key];
  if (path.stringValue().empty()) return std::nullopt;
  return FileURL{std::string(path.stringValue())};
}

}  // namespace

PlistValue VKPlugInCore::exportFormWithoutAnnotations(std::optional<DomainError>* error) const {
  PlistBuilder form;
  const std::array always{
      FormEntry{kVKFormHubProtocolVersion, hubProtocolVersion()},
      FormEntry{kVKFormPath, textUnlessEmpty(path())},
      FormEntry{kVKFormSystemResident, onSystemVolume()},
      FormEntry{kVKFormIdentifier, textUnlessEmpty(identifier())},
      FormEntry{kVKFormOriginalIdentifier, textUnlessEmpty(originalIdentifier())},
      FormEntry{kVKFormVersion, text(version())},
      FormEntry{kVKFormBundleInfo, withoutInfoPlistURL(bundleInfoDictionary())},
      FormEntry{kVKFormInfo, plugInDictionary()},
      FormEntry{kVKFormUUID, uuid().text()},
      FormEntry{kVKFormLastModified, lastModified()},
  };
  for (const FormEntry& entry : always) {
    if (!entry.value) {
      if (error != nullptr) *error = vk_errorf(VKErrorInvalidPlugIn, "missing \"%@\" for the plug-in form", entry.key);
      return {};
    }
    form.setConstant(entry.key, entry.value);
  }
  // Setting nothing leaves an entry out.
  form.setConstant(kVKFormEntitlements, entitlements());
  form.setConstant(kVKFormContainingPath, text(containingPath()));
  form.setConstant(kVKFormLocalizedContainingName, text(localizedContainingName()));
  form.setConstant(kVKFormLocalizedName, text(localizedName()));
  form.setConstant(kVKFormLocalizedShortName, text(localizedShortName()));
  return form.take();
}

PlistValue VKPlugInCore::exportForm(std::optional<DomainError>* error) const {
  PlistValue form = exportFormWithoutAnnotations(error);
  if (!form) return form;
  PlistValue current = annotations();
  return dictionaryChangingTo(form, kVKFormAnnotations, current ? std::move(current) : PlistBuilder().take());
}

std::shared_ptr<VKPlugInCore> VKPlugInCore::initWithForm(const PlistValue& form) {
  auto plugIn = init();
  return plugIn->setupWithForm(form) ? plugIn : nullptr;
}

bool VKPlugInCore::setupWithForm(const PlistValue& form) {
  using enum PlistValue::Kind;
  PlistValue name = form[kVKFormIdentifier];
  if (!setupWithNameUrlBundleInfoInfoUuid(std::string(name.stringValue()), urlEntry(form, kVKFormPath),
                                          form[kVKFormBundleInfo], form[kVKFormInfo],
                                          UUID::parse(form[kVKFormUUID].stringValue()))) {
    return false;
  }
  PlistValue hubVersion = form[kVKFormHubProtocolVersion];
  hubProtocolVersion_ = hubVersion ? hubVersion.uintValue() : 1;
  PlistValue original = form[kVKFormOriginalIdentifier];
  originalIdentifier_ = original.stringValue();
  cdhash_ = entryOfKind(form, kVKFormHash, Data);
  requirement_ = entryOfKind(form, kVKFormRequirement, String);
  lastModified_ = form[kVKFormLastModified].intValue();
  entitlements_ = entryOfKind(form, kVKFormEntitlements, Dictionary);
  containingUrl_ = urlEntry(form, kVKFormContainingPath);
  onSystemVolume_ = form[kVKFormSystemResident].boolValue();
  annotations_ = entryOfKind(form, kVKFormAnnotations, Dictionary);
  localizedName_ = entryOfKind(form, kVKFormLocalizedName, String);
  localizedShortName_ = entryOfKind(form, kVKFormLocalizedShortName, String);
  localizedContainingName_ = entryOfKind(form, kVKFormLocalizedContainingName, String);
  return true;
}

void VKPlugInCore::updateFromForm(const PlistValue& form) {
  setAnnotations(entryOfKind(form, kVKFormAnnotations, PlistValue::Kind::Dictionary));
}

void VKPlugInCore::setAnnotationValue(std::string_view key, const PlistValue& value) {
  PlistValue current = annotations();
  if (current) setAnnotations(dictionaryChangingTo(current, key, value));
}

}  // namespace Vornik
