// The shared key set: every key of a manifest, form, rule, preference, entitlement, message, annotation or file that
// the daemon and its clients know, each defined once and used by name. Grouped by where a key is found; one text may be
// a key in several places and then has a name in each.
#pragma once

#include <string_view>

#include "Vornik/VKStandard.h"
#include "platform/ManifestKeys.h"

namespace Vornik {

// --- Manifest, top level -------------------------------------------------------------------------------------------

inline constexpr std::string_view kVKExtension = platform::manifest_key::Section;  // the plug-in section
inline constexpr std::string_view kVKLegacySection =
    platform::manifest_key::LegacySection;  // the section of a legacy-style plug-in
inline constexpr std::string_view kVKBundleIdentifier = platform::manifest_key::BundleIdentifier;
inline constexpr std::string_view kVKBundleShortVersionString = platform::manifest_key::ShortVersion;
inline constexpr std::string_view kVKBundleInfoPlistURL = "KvBundleInfoPlistURL";  // never exported
inline constexpr std::string_view kVKBundlePackageType = "KvBundlePackageType";
inline constexpr std::string_view kVKService = "ZYPService";  // the service description

// --- Manifest, plug-in section -------------------------------------------------------------------------------------

inline constexpr std::string_view kVKExtensionAttributes = platform::manifest_key::Attributes;
inline constexpr std::string_view kVKExtensionIdentifier = platform::manifest_key::Identifier;
inline constexpr std::string_view kVKExtensionPointIdentifier = platform::manifest_key::Point;
inline constexpr std::string_view kVKExtensionProtocol = platform::manifest_key::Protocol;
inline constexpr std::string_view kVKExtensionHostEntitlement = "ZoExtensionHostEntitlement";
inline constexpr std::string_view kVKPrincipalClass = "PrincipalClass";
inline constexpr std::string_view kVKEmbeddedCode = "EmbeddedCode";
inline constexpr std::string_view kVKEmbeddedProtocol = "EmbeddedProtocol";
inline constexpr std::string_view kVKDedicated = "Dedicated";
inline constexpr std::string_view kVKPassProxy = "PassProxy";
inline constexpr std::string_view kVKMultiple = "Multiple";  // obsolete
inline constexpr std::string_view kVKHubProtocolVersion = "HubProtocolVersion";
inline constexpr std::string_view kVKShared = "Shared";
inline constexpr std::string_view kVKCleanTimeout = "CleanTimeout";

// Reserved: nothing of this system reads them.
inline constexpr std::string_view kVKSubsystems = "Subsystems";
inline constexpr std::string_view kVKDelegate = "Delegate";
inline constexpr std::string_view kVKAttributes = "Attributes";
inline constexpr std::string_view kVKProtocol = "Protocol";
inline constexpr std::string_view kVKSDK = "SDK";
inline constexpr std::string_view kVKExtensionSDK = "ZoExtensionSDK";
inline constexpr std::string_view kVKHost = "VornikHost";
inline constexpr std::string_view kVKUsesEmbeddedCode = "UsesEmbeddedCode";

// --- Manifest, attributes ------------------------------------------------------------------------------------------

inline constexpr std::string_view kVKExtensionVersion = platform::manifest_key::Version;
inline constexpr std::string_view kVKRequestsOpenAccess = "RequestsOpenAccess";

// --- Manifest, values that mean something --------------------------------------------------------------------------

inline constexpr std::string_view kVKRootObject = "ZoObject";        // default protocol and principal class
inline constexpr std::string_view kVKDataProtocol = "#Data";         // the protocol of a data plug-in
inline constexpr std::string_view kVKAppExtensionSuffix = ".appex";  // of the path of an application extension
inline constexpr std::string_view kVKServicePackageType = "ZYP!";    // package type in an activation overlay
inline constexpr std::string_view kVKDefaultVersion = "1";           // of a plug-in that tells none

// --- Service description (kVKService) and the environment in it -----------------------------------------------------

inline constexpr std::string_view kVKServiceEnvironment = "EnvironmentVariables";
inline constexpr std::string_view kVKServiceSandboxProfile = "_SandboxProfile";
inline constexpr std::string_view kVKServiceOmitSandboxParameters = "_OmitSandboxParameters";
inline constexpr std::string_view kVKEnvironmentHome = "HOME";
inline constexpr std::string_view kVKEnvironmentFixedHome = "KvFIXED_USER_HOME";
inline constexpr std::string_view kVKEnvironmentTemporary = "TMPDIR";
inline constexpr std::string_view kVKEnvironmentTestSDK = "VKTEST_SDK";

// --- Plug-in form --------------------------------------------------------------------------------------------------

// Always present.
inline constexpr std::string_view kVKFormHubProtocolVersion = "hubProtocolVersion";
inline constexpr std::string_view kVKFormPath = "path";
inline constexpr std::string_view kVKFormSystemResident = "systemResident";
inline constexpr std::string_view kVKFormIdentifier = "identifier";
inline constexpr std::string_view kVKFormOriginalIdentifier = "original-identifier";
inline constexpr std::string_view kVKFormVersion = "version";
inline constexpr std::string_view kVKFormBundleInfo = "bundleInfo";
inline constexpr std::string_view kVKFormInfo = "info";
inline constexpr std::string_view kVKFormUUID = "uuid";
inline constexpr std::string_view kVKFormLastModified = "lastmodified";
inline constexpr std::string_view kVKFormAnnotations = "annotations";
// Present when the record has a value.
inline constexpr std::string_view kVKFormEntitlements = "entitlements";
inline constexpr std::string_view kVKFormContainingPath = "containingPath";
inline constexpr std::string_view kVKFormLocalizedContainingName = "localizedContainingDisplayName";
inline constexpr std::string_view kVKFormLocalizedName = "localizedDisplayName";
inline constexpr std::string_view kVKFormLocalizedShortName = "localizedShortName";
// Added by the daemon before a form is sent.
inline constexpr std::string_view kVKFormExtensions = "extensions";
inline constexpr std::string_view kVKFormOverrider = "overrider";
inline constexpr std::string_view kVKFormOverriding = "overriding";
// Read back, never written by the daemon.
inline constexpr std::string_view kVKFormHash = "hash";
inline constexpr std::string_view kVKFormRequirement = "requirement";
// Reserved: neither written nor read.
inline constexpr std::string_view kVKFormPlugIns = "plugins";
inline constexpr std::string_view kVKFormBookmark = "bookmark";
inline constexpr std::string_view kVKFormURL = "url";

// --- Rules dictionary ----------------------------------------------------------------------------------------------

inline constexpr std::string_view kVKRuleEntitlementPrefix = "ENTITLEMENT:";  // followed by the entitlement's name
inline constexpr std::string_view kVKRuleIdentifier = kVKExtensionIdentifier;
inline constexpr std::string_view kVKRuleUUID = platform::query_key::UUID;
inline constexpr std::string_view kVKRuleUserElection = "ZoUserElection";
inline constexpr std::string_view kVKRuleContainingApp = platform::query_key::ContainingApp;

// Patterns that test a type; the type follows.
inline constexpr std::string_view kVKPatternTypePrefix = "?";
inline constexpr std::string_view kVKPatternConforms = "?UT-CONFORMS:";
inline constexpr std::string_view kVKPatternIs = "?UT-IS:";

// --- Preferences ---------------------------------------------------------------------------------------------------

inline constexpr std::string_view kVKUserPrefsDomain = "com.vantrel.vornik.userprefs";
inline constexpr std::string_view kVKPrefsExclusions = "exclusions";

// --- Entitlements --------------------------------------------------------------------------------------------------

inline constexpr std::string_view kVKEntitlementManager = "com.vantrel.private.vornik.manager";
inline constexpr std::string_view kVKEntitlementAllowedPlugIns = "com.vantrel.developer.vornik.allowedplugins";
inline constexpr std::string_view kVKEntitlementReplacePlugIn = "com.vantrel.developer.replace-plugin";
inline constexpr std::string_view kVKEntitlementAutoElect = "com.vantrel.developer.auto-elect-plugin";

// --- Request messages ----------------------------------------------------------------------------------------------

inline constexpr std::string_view kVKMessageRequest = "request";
inline constexpr std::string_view kVKMessageVersion = "version";
inline constexpr std::string_view kVKMessagePaths = "paths";
inline constexpr std::string_view kVKMessageUUIDs = "uuids";  // in the reply to a granted hold: its token
inline constexpr std::string_view kVKMessageFlags = "flags";
inline constexpr std::string_view kVKMessageRules = "rules";
inline constexpr std::string_view kVKMessageAnnotations = "annotations";

// --- Reply messages ------------------------------------------------------------------------------------------------

inline constexpr std::string_view kVKMessageErrorCode = "errorcode";
inline constexpr std::string_view kVKMessageError = "error";
inline constexpr std::string_view kVKMessageMatches = "matches";
inline constexpr std::string_view kVKMessageExtensions = "extensions";
inline constexpr std::string_view kVKMessageConflicts = "conflicts";

// --- Annotation ----------------------------------------------------------------------------------------------------

inline constexpr std::string_view kVKAnnotationElection = "election";
inline constexpr std::string_view kVKAnnotationExtension = "extension";

// --- Annotation store file -----------------------------------------------------------------------------------------

inline constexpr std::string_view kVKStoreVersion = "version";
inline constexpr std::string_view kVKStoreData = "data";

}  // namespace Vornik
