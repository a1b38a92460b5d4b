// Folders into which processes of every user write: subscribers to notifications, hosts that launch a plug-in. Only who
// may write to /run can make them, so the daemon does, before anybody needs them.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "platform/linux/files/DeviceRoot.h"

namespace platform {

inline constexpr std::string_view kNotifyFolder = "/run/notify";
inline constexpr std::string_view kInstancesFolder = "/run/jobd/instances";
// Nobody removes what another user wrote.
inline constexpr mode_t kSharedFolderMode = 01777;

// Opens it for reading, made where it is missing; what is above it is the maker's alone. Invalid and errno on failure.
UniqueFd openSharedFolder(const DeviceRoot& root, std::string_view path);
// What cannot be made is logged: the device works without.
void makeSharedFolders(const DeviceRoot& root);

}  // namespace platform
