// One installed plug-in as the daemon sees it: a record whose facts come from the application registry's record of it,
// with the checks a plug-in must pass to be served at all, its entitlements, its annotation key, what is added to its
// form, the matching of rules, and its preparation for a host.
//
// VKDatabase makes and caches these objects, on its queue; requests share them. After construction they change only in
// what is fetched on first use (display names, form, resource tokens), so everything may be called from any thread
// unless it says otherwise. The surroundings must outlive the object.
//
//   VKDPlugIn.cpp             construction, lookups, entitlements, resource tokens
//   VKDPlugIn+Matching.cpp    rules
//   VKDPlugIn+HostPolicy.cpp  which hosts may use it
//   VKDPlugIn+Enabling.cpp    launchable for a host, busy instances
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Vornik/VKPlugInCore.h"
#include "platform/Registry.h"
#include "platform/Services.h"
#include "vkd/annotations/Annotated.h"
#include "vkd/plugins/AnnotationSource.h"
#include "vkd/plugins/HostClient.h"
#include "vkd/plugins/MatchRules.h"
#include "vkd/plugins/PlugInForm.h"
#include "vkd/plugins/SetOnce.h"
#include "vkd/plugins/Verdict.h"

namespace vkd {

using namespace Vornik;

class VKDPlugIn final : public VKPlugInCore, public Annotated {
 public:
  struct Surroundings {
    Services services;
    AnnotationSource* annotations = nullptr;
  };

  // Null for a record without bundle URL (silently), one that cannot be set up, and one that diagnose refuses (logged).
  static std::shared_ptr<VKDPlugIn> initWithALData(std::shared_ptr<RegistryPlugInRecord> record,
                                                   const Surroundings& surroundings);

  const std::shared_ptr<RegistryPlugInRecord>& alproxy() const { return alproxy_; }

  // --- Answered by the record, whatever the type ---------------------------------------------------------------------

  PlistValue infoKey(std::string_view key) const override;
  PlistValue pluginKey(std::string_view key) const override;
  PlistValue attribute(std::string_view key) const override;
  PlistValue bundleInfoDictionary() const override;

  // Fetched from the record on first use and kept; asked for again while the record has none.
  std::optional<std::string> localizedName() const override;
  std::optional<std::string> localizedShortName() const override;
  std::optional<std::string> localizedContainingName() const override;
  // Not while another thread uses form(): the kept form is made anew.
  void setLocalizedName(const std::optional<std::string>& name) override;
  void setLocalizedShortName(const std::optional<std::string>& name) override;
  void setLocalizedContainingName(const std::optional<std::string>& name) override;

  std::optional<DomainError> diagnose() const override;

  // What discovery asks of every candidate: looked up once, since a record does not change.
  bool isDedicated() const { return dedicated_; }
  const PlistValue& hostEntitlement() const { return hostEntitlement_; }  // "ZoExtensionHostEntitlement", or nothing

  // --- Entitlements and annotation key -------------------------------------------------------------------------------

  PlistValue valueForEntitlement(std::string_view name) const { return entitlements()[name]; }
  // Whether it is there with any value that does not equal false.
  bool hasEntitlement(std::string_view name) const;
  // Under which its annotation is stored: the identifier it declares to replace, else its own.
  std::string_view annotationKey() const override;

  // --- Form ----------------------------------------------------------------------------------------------------------

  // The encoded form, made once and kept; valid as long as this object. Null and *error like exportForm.
  const PlugInForm* form(std::optional<DomainError>* error) const;
  // Puts the resource tokens into a form; leaves it alone when the plug-in shares nothing.
  void augmentForm(PlistBuilder& form) const;
  // What augmentForm puts there: a dictionary (empty when no token could be issued), or nothing. Kept once every token
  // could be issued, since a bundle that changes becomes another plug-in object.
  PlistValue resourceExtensions() const;
  // Read tokens by path as requested: a string or an array of strings relative to the bundle, "." for the bundle. A
  // token that is refused is logged and left out.
  PlistValue issueResourceExtensions(const PlistValue& paths) const;

  // --- Matching ------------------------------------------------------------------------------------------------------

  // Nothing and an empty dictionary match every plug-in. A refusal names the entry; its key is a part of the rules.
  Verdict match(const MatchRules& rules) const;
  // Compiles the rules first, for who tests one plug-in only.
  Verdict match(const PlistValue& rules) const;
  bool matchKeyPattern(const MatchRules::Entry& entry) const;
  bool matchValuePatterns(const PlistValue& value, const MatchRules::Entry& entry) const;
  bool matchValuePattern(std::string_view value, const StringPattern& pattern) const;
  bool matchDictionaryPattern(const PlistValue& value, const PlistValue& pattern) const;

  // --- Hosts ---------------------------------------------------------------------------------------------------------

  // Nothing when the host may use the plug-in, else why not. Who asks for many plug-ins keeps a HostPolicy.
  std::optional<std::string> allowForClient(const HostClient& client) const;
  // Makes the plug-in launchable for the host, waiting for the service manager. An error is VKErrorInvalidRequest.
  // Service queue.
  std::optional<DomainError> enableForClient(const HostClient& client) const;
  // The consent services that the user granted to the containing application.
  std::set<std::string> allowedZelvServices() const;
  // Nothing, or a dictionary that names one running instance.
  Message checkBusy() const;

 private:
  explicit VKDPlugIn(const Surroundings& surroundings) : surroundings_(surroundings) {}
  bool setUp(std::shared_ptr<RegistryPlugInRecord> record);
  bool passesDiagnosis() const;
  // Keeping what was fetched is no change that anybody sees.
  VKDPlugIn& keeper() const { return const_cast<VKDPlugIn&>(*this); }

  PlistValue issueTokens(const PlistValue& paths, bool* complete) const;
  PlistValue subjectValue(const MatchRules::Entry& entry, std::string& text) const;
  PlistBuilder environment() const;
  const char* sandboxProfile() const;
  PlistValue serviceDescription(PlistBuilder variables, const char* profile) const;

  const Surroundings& surroundings_;
  std::shared_ptr<RegistryPlugInRecord> alproxy_;
  PlistValue replacedIdentifier_;  // a string, or nothing
  PlistValue hostEntitlement_;
  bool dedicated_ = false;
  SetOnce<PlugInForm> form_;
  SetOnce<PlistValue> extensions_;
};

}  // namespace vkd
