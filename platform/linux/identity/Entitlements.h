// The entitlements of an executable E: the dictionary in the property list `E.entitlements` beside it.
//
// The file counts only if it is a regular file, owned by root or by this process's user, and writable by neither group
// nor others; that is looked at on the file that was opened. No link on the way to it is followed, so that nobody lends
// the entitlements of another executable to his own, and a file with a second name counts only in a folder that nobody
// else can put it into. No file: no entitlements and no error. A file that does not count, cannot be read or does not
// parse: no entitlements and an error. From any thread.
#pragma once

#include <optional>
#include <string_view>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/messages/PeerIdentity.h"
#include "platform/values/DomainError.h"
#include "platform/values/PlistValue.h"

namespace platform {

inline constexpr std::string_view kEntitlementsSuffix = ".entitlements";
// A larger file does not count: it is read for every process that connects.
inline constexpr std::uint64_t kMaxEntitlementsBytes = std::uint64_t{1} << 20;

// A dictionary or nothing. `error` may be null; it is set or emptied.
PlistValue readEntitlements(const DeviceRoot& root, std::string_view devicePathOfExecutable,
                            std::optional<DomainError>* error);

// Those of a running process, whose executable may lie anywhere on the host. It must still be the file that the process
// runs: what lies at the path of a program that was replaced meanwhile is not the running program's.
PlistValue readEntitlementsOfProcess(const DeviceRoot& root, const PeerIdentity& process,
                                     std::optional<DomainError>* error);

}  // namespace platform
