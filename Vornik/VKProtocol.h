// The protocol between the daemon and its clients: names, request types, versions and flags. The keys of its messages
// stand in VKKeys.h, the error codes in VKError.h.
#pragma once

#include <cstdint>
#include <string_view>

#include "Vornik/VKStandard.h"

namespace Vornik {

inline constexpr std::string_view kVKServiceName = "com.vantrel.vornik.vkd";
// Posted when annotations or holds change; carries nothing.
inline constexpr std::string_view kVKAnnotationChangeNotification = "com.vantrel.vornik.annotation-change";

// Stands in the daemon's executable, followed by its version: what `vkctl status` tells of a running one.
inline constexpr std::string_view kVKVersionMark = "@(#)vkd ";

// Property lists travel in their message encoding in this version only.
inline constexpr std::uint64_t kVKProtocolVersion = 3;

// Values of kVKMessageRequest.
inline constexpr std::string_view kVKRequestAdd = "add";
inline constexpr std::string_view kVKRequestRemove = "remove";
inline constexpr std::string_view kVKRequestBulk = "bulk";
inline constexpr std::string_view kVKRequestMatch = "match";
inline constexpr std::string_view kVKRequestReady = "ready";
inline constexpr std::string_view kVKRequestAccess = "access";
inline constexpr std::string_view kVKRequestAnnotate = "annotate";
inline constexpr std::string_view kVKRequestBulkAnnotate = "bulk-annotate";
inline constexpr std::string_view kVKRequestLock = "lock";

// Flags of "match"; all other bits are ignored.
inline constexpr std::uint64_t VKDiscoverAllVersions = 0x1;  // not only the highest version of an identifier
inline constexpr std::uint64_t VKDiscoverDuplicates = 0x4;   // with VKDiscoverAllVersions: equal versions, too
inline constexpr std::uint64_t VKDiscoverSystemOnly = 0x8;   // only plug-ins on the system volume
inline constexpr std::uint64_t VKDiscoverAll = 0x200;        // no containment, dedication, hold and host filters

// Flags of "lock": what each path names. One of them, not a combination.
inline constexpr std::uint64_t VKHoldApplications = 1;  // an application: every plug-in within it, none may be busy
inline constexpr std::uint64_t VKHoldPlugIns = 2;       // a plug-in, held whether busy or not

}  // namespace Vornik
