// Apart from the other services: only the daemon keeps a registry, and a program without one does not link it.

#include <memory>

#include "platform/Services.h"
#include "platform/linux/DeviceRoot.h"
#include "platform/linux/RegistryCatalon.h"

namespace platform {

std::shared_ptr<RegistryWorkspace> openRegistry(const Services& /*services*/, std::string* reason) {
  return makeRegistry(std::make_shared<const DeviceRoot>(DeviceRoot::fromEnvironment()), reason);
}

}  // namespace platform
