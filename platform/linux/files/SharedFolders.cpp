#include "platform/linux/files/SharedFolders.h"

#include <fcntl.h>

#include <cerrno>

#include "platform/Log.h"
#include "platform/linux/files/Files.h"

namespace platform {

UniqueFd openSharedFolder(const DeviceRoot& root, std::string_view path) {
  UniqueFd folder = root.open(path, O_RDONLY | O_DIRECTORY);
  if (folder || errno != ENOENT) return folder;
  if (!root.makeDirectories(path.substr(0, path.rfind('/')), 0755)) return {};
  return root.makeDirectories(path, kSharedFolderMode);
}

void makeSharedFolders(const DeviceRoot& root) {
  for (std::string_view path : {kNotifyFolder, kInstancesFolder}) {
    if (!openSharedFolder(root, path)) {
      VK_LOG(defaultLog(), Error, "unable to make %{public}@", fileError(path, errno));
    }
  }
}

}  // namespace platform
