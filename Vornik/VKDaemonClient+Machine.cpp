// The client of this machine's daemon. In a file of its own: a program that brings its services along needs no others.

#include "Vornik/VKDaemonClient.h"

namespace Vornik {

std::shared_ptr<VKDaemonClient> VKDaemonClient::initWithServiceName(std::string_view serviceName) {
  return initWithServiceName(machineServices(), serviceName);
}

}  // namespace Vornik
