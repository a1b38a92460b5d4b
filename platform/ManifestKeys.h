// The manifest and query keys that the platform layer itself reads. Whoever builds on it has names of its own for them.
#pragma once

#include <string_view>

namespace platform {

namespace manifest_key {
inline constexpr std::string_view Section = "ZoExtension";
inline constexpr std::string_view LegacySection = "Vornik";
inline constexpr std::string_view Attributes = "ZoExtensionAttributes";
inline constexpr std::string_view Version = "ZoExtensionVersion";
inline constexpr std::string_view Point = "ZoExtensionPointIdentifier";
inline constexpr std::string_view Identifier = "ZoExtensionIdentifier";
inline constexpr std::string_view Protocol = "ZoExtensionProtocol";
inline constexpr std::string_view BundleIdentifier = "KvBundleIdentifier";
inline constexpr std::string_view BundleVersion = "KvBundleVersion";
inline constexpr std::string_view ShortVersion = "KvBundleShortVersionString";
inline constexpr std::string_view Name = "KvBundleDisplayName";
inline constexpr std::string_view ShortName = "KvBundleName";
inline constexpr std::string_view Placeholder = "CatalonPlaceholder";
inline constexpr std::string_view DataContainer = "CatalonDataContainer";
}  // namespace manifest_key

// Keys of a registry query beside those of the manifest.
namespace query_key {
inline constexpr std::string_view UUID = "com.vantrel.uuid";
inline constexpr std::string_view ContainingApp = "ZoExtensionContainingApp";
}  // namespace query_key

}  // namespace platform
