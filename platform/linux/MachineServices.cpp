#include <memory>
#include <utility>

#include "platform/Services.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/files/LinuxFileSystem.h"
#include "platform/linux/identity/LinuxCodeSigning.h"
#include "platform/linux/identity/LinuxServiceBundles.h"
#include "platform/linux/jobs/LinuxServiceManager.h"
#include "platform/linux/jobs/RunningInstances.h"
#include "platform/linux/messages/MessageService.h"
#include "platform/linux/queues/EventLoop.h"
#include "platform/linux/queues/WorkQueue.h"
#include "platform/linux/registry/RegistryCatalon.h"
#include "platform/linux/rules/ActivationRules.h"
#include "platform/linux/rules/LinuxTypeConformance.h"
#include "platform/linux/sandbox/LinuxSandboxService.h"
#include "platform/linux/system/LinuxSystemNotifier.h"
#include "platform/linux/system/LinuxUserServices.h"

namespace platform {

// Nothing is read and no thread is started before a service is first asked: a tool that sends one request pays for
// that.
Services machineServices() {
  auto root = std::make_shared<const DeviceRoot>(DeviceRoot::fromEnvironment());
  auto instances = std::make_shared<RunningInstances>(root);
  Services services;
  services.queues = makeWorkQueues();
  services.messages = makeMessageService(RunningLoop(), root);
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
