#include <memory>
#include <utility>

#include "platform/Services.h"
#include "platform/linux/ActivationRules.h"
#include "platform/linux/DeviceRoot.h"
#include "platform/linux/EventLoop.h"
#include "platform/linux/LinuxCodeSigning.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxSandboxService.h"
#include "platform/linux/LinuxServiceBundles.h"
#include "platform/linux/LinuxServiceManager.h"
#include "platform/linux/LinuxSystemNotifier.h"
#include "platform/linux/LinuxTypeConformance.h"
#include "platform/linux/LinuxUserServices.h"
#include "platform/linux/MessageService.h"
#include "platform/linux/RegistryCatalon.h"
#include "platform/linux/RunningInstances.h"
#include "platform/linux/WorkQueue.h"

namespace platform {

// Nothing is read and no thread is started before a service is first asked: a tool that sends one request pays for
// that.
Services machineServices() {
  auto root = std::make_shared<const DeviceRoot>(DeviceRoot::fromEnvironment());
  auto instances = std::make_shared<RunningInstances>(root);
  Services services;
  services.queues = makeWorkQueues();
  services.messages = makeMessageService(EventLoop::create(), root);
  services.files = std::make_shared<LinuxFileSystem>(root);
  services.codeSigning = std::make_shared<LinuxCodeSigning>(root);
  services.serviceBundles = std::make_shared<LinuxServiceBundles>(root);
  services.coreBundles = std::make_shared<LinuxCoreBundles>(root);
  services.serviceManager = std::make_shared<LinuxServiceManager>(root, instances);
  services.assertions = std::make_shared<LinuxAssertionService>(instances);
  services.sandbox = std::make_shared<LinuxSandboxService>(root, instances);
  services.consent = std::make_shared<LinuxConsentService>(root);
  services.types = std::make_shared<LinuxTypeConformance>(root);
  services.activationRules = std::make_shared<LinuxActivationRules>(services.types);
  services.users = std::make_shared<LinuxUserManager>(root);
  services.containers = std::make_shared<LinuxContainerService>(root);
  services.preferences = std::make_shared<LinuxPreferences>(root);
  services.sdks = std::make_shared<LinuxExtensionSdkRegistry>(root);
  services.notifier = std::make_shared<LinuxSystemNotifier>(root);
  return services;
}

}  // namespace platform
