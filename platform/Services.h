// Every platform service, built once in main and handed to what needs it. A test hands in others.
#pragma once

#include <memory>

#include "platform/CodeSigningTask.h"
#include "platform/ConsentService.h"
#include "platform/FileSystem.h"
#include "platform/MessageConnection.h"
#include "platform/Registry.h"
#include "platform/Rules.h"
#include "platform/SandboxService.h"
#include "platform/ServiceBundle.h"
#include "platform/ServiceManager.h"
#include "platform/UserServices.h"
#include "platform/WorkQueue.h"

namespace platform {

// Members may be null in tests that do not reach them.
struct Services {
  std::shared_ptr<WorkQueueFactory> queues;
  std::shared_ptr<MessageService> messages;
  std::shared_ptr<FileSystem> files;
  std::shared_ptr<RegistryWorkspace> registry;
  std::shared_ptr<CodeSigning> codeSigning;
  std::shared_ptr<ServiceBundles> serviceBundles;
  std::shared_ptr<CoreBundles> coreBundles;
  std::shared_ptr<ServiceManager> serviceManager;
  std::shared_ptr<AssertionService> assertions;
  std::shared_ptr<SandboxService> sandbox;
  std::shared_ptr<ConsentService> consent;
  std::shared_ptr<TypeConformance> types;
  std::shared_ptr<ActivationRuleEvaluator> activationRules;
  std::shared_ptr<UserManager> users;
  std::shared_ptr<ContainerService> containers;
  std::shared_ptr<Preferences> preferences;
  std::shared_ptr<ExtensionSdkRegistry> sdks;
  std::shared_ptr<SystemNotifier> notifier;
};

// The services of this machine under the device root that the environment names. `registry` is null here: only the
// daemon keeps one, and opens it with openRegistry.
Services machineServices();
// Opens the application registry: loads its records, finds what changed and follows it from now on. Null and *reason
// when its records cannot be kept.
std::shared_ptr<RegistryWorkspace> openRegistry(const Services& services, std::string* reason);

}  // namespace platform
