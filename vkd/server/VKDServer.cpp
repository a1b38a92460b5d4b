#include "vkd/server/VKDServer.h"

#include <exception>
#include <utility>

#include "Vornik/VKLog.h"
#include "platform/Process.h"
#include "vkd/server/VKDPlugInHold.h"
#include "vkd/server/VKDZypClient.h"

namespace vkd {
namespace {

std::atomic<std::weak_ptr<VKDServer>> sharedServer;

// What the service manager answers when it has nothing to end.
constexpr int kNothingOnRecord = 3;

void logTermination(int result) {
  switch (result) {
    case 0:
      VK_LOG(vk_ops(), Debug, "jobd reported plug-ins have been terminated");
      break;
    case kNothingOnRecord:
      VK_LOG(vk_ops(), Debug, "jobd reported no plug-ins on record");
      break;
    default:
      VK_LOG(vk_ops(), Info, "jobd error attempting to terminate plug-ins: error=%d", result);
  }
}

// A service manager that answers twice is heard once.
std::function<void(int)> heardOnce(void (*completion)(int)) {
  return [completion, heard = std::make_shared<bool>(false)](int result) {
    if (!std::exchange(*heard, true)) completion(result);
  };
}

}  // namespace

std::shared_ptr<VKDServer> VKDServer::initForServiceDatabase(const Services& services, std::string_view serviceName,
                                                             const std::optional<std::string>& databasePath) {
  std::shared_ptr<VKDServer> server(new VKDServer(services));
  if (!server->setUp(serviceName, databasePath)) return nullptr;
  return server;
}

bool VKDServer::setUp(std::string_view serviceName, const std::optional<std::string>& databasePath) {
  VKDatabase::setUp(databasePath);
  WorkQueueFactory& queues = *services().queues;
  zypQueue_ = queues.serial("zyp", WorkQueue::Order::Outer);
  mainQueue_ = queues.serial("service", WorkQueue::Order::Outer, WorkQueue::QoS::UserInitiated);
  syncQueue_ = queues.serial("serverSync", WorkQueue::Order::Leaf);
  DomainError error;
  service_ = services().messages->listen(serviceName, zypQueue_, &error);
  if (service_ == nullptr) {
    VK_LOG(vk_ops(), Error, "cannot listen on %{public}@: %{public}@", serviceName, error);
    return false;
  }
  sharedServer.store(weak_from_this());
  setDelegate(weak_from_this());
  service_->setConnectionHandler([self = weak_from_this()](const std::shared_ptr<PeerConnection>& peer) {
    if (auto server = self.lock()) server->accept(peer);
  });
  userPrefs_ = VKDUserPrefs::init(services().preferences);
  return true;
}

std::shared_ptr<VKDServer> VKDServer::server() { return sharedServer.load().lock(); }

// A client that cannot be set up is dropped with its connection.
void VKDServer::accept(const std::shared_ptr<PeerConnection>& peer) {
  try {
    VKDZypClient::initWithConnectionServer(peer, shared_from_this());
  } catch (const std::exception& error) {
    VK_LOG(vk_ops(), Fault, "connection dropped: %{public}@", std::string_view(error.what()));
    peer->cancel();
  }
}

bool VKDServer::start() {
  const auto error = service_->resume();
  if (error) VK_LOG(vk_ops(), Error, "cannot accept connections: %{public}@", *error);
  return !error;
}

bool VKDServer::run() {
  if (!start()) return false;
  runMainLoop();
  return true;
}

void VKDServer::removedPlugIns(const RegistryPlugInRecords& records) {
  for (const auto& record : records) {
    std::string identifier = record->bundleIdentifier();
    std::string version = record->bundleVersion();
    VK_LOG(vk_ops(), Debug, "requesting jobd termination of plug-in: %s(%s) %{public}@", identifier, version,
           record->plugInUUID());
    services().serviceManager->removeExternalService(identifier, version, mainQueue_, heardOnce(logTermination));
  }
}

}  // namespace vkd
