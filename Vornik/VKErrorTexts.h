// The messages of failed requests that a client has reason to tell from others with the same code.
#pragma once

#include "Vornik/VKStandard.h"

namespace Vornik {

// VKErrorInvalidRequest: a UUID that names no installed plug-in.
inline constexpr char kVKNoSuchPlugIn[] = "no such plugin (uuid not found)";
// VKErrorRegistry, "bulk-annotate" alone: the same.
inline constexpr char kVKNoPlugInWithUUID[] = "no plug-in with the requested uuid";
// VKErrorNotPermitted: what the manager entitlement would allow.
inline constexpr char kVKCallerLacksEntitlement[] = "caller lacks entitlement for this operation";
inline constexpr char kVKUnauthorizedDiscovery[] = "unauthorized discovery flag (VKDiscoverAll)";
// VKErrorNotPermitted: the end of "access to plugin … denied: …" when somebody holds the plug-in.
inline constexpr char kVKPlugInOnHold[] = "the plug-in is on hold";

}  // namespace Vornik
