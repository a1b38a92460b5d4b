// Apart from the other services: only the daemon keeps a registry, and a program without one does not link it.

#include <memory>
#include <utility>

#include "platform/Services.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/files/SharedFolders.h"
#include "platform/linux/registry/RegistryCatalon.h"

namespace platform {

std::shared_ptr<RegistryWorkspace> openRegistry(const Services& /*services*/, std::string* reason) {
  auto root = std::make_shared<const DeviceRoot>(DeviceRoot::fromEnvironment());
  makeSharedFolders(*root);
  return makeRegistry(std::move(root), reason);
}

}  // namespace platform
