#include "vkd/server/VKDZypClient.h"

#include <exception>

#include "Vornik/VKLog.h"
#include "platform/Trace.h"
#include "vkd/server/Quietly.h"
#include "vkd/server/Transaction.h"
#include "vkd/server/VKDServer.h"

namespace vkd {
namespace {

// How often a busy client shows up in the log.
constexpr std::uint32_t kRequestsPerLogLine = 1000;

}  // namespace

std::shared_ptr<VKDZypClient> VKDZypClient::initWithConnectionServer(const std::shared_ptr<PeerConnection>& connection,
                                                                     std::shared_ptr<VKDServer> server) {
  std::shared_ptr<VKDZypClient> client(new VKDZypClient(connection, std::move(server)));
  client->identify(*connection);
  connection->setContext(client);
  connection->setEventHandler([client](Message event) { handleEvent(client, std::move(event)); });
  connection->resume();
  return client;
}

VKDZypClient::VKDZypClient(const std::shared_ptr<PeerConnection>& connection, std::shared_ptr<VKDServer> server)
    : connection_(connection), server_(std::move(server)), pid_(connection->peerPid()) {}

void VKDZypClient::identify(const PeerConnection& connection) {
  const Services& services = server_->services();
  const auto token = connection.peerAuditToken();
  if (auto found = services.codeSigning->executablePathOfPeer(*token)) {
    path_ = std::move(*found);
    bundle_ = VKBundle::initWithExecutableURL(*services.serviceBundles, FileURL{path_});
  }
  VK_LOG(vk_ops(), Debug, "new client %d %s", pid_, path_);
  trace::clientNew(pid_);
  task_ = services.codeSigning->task(token);
}

std::string VKDZypClient::description() const {
  const void* self = this;
  auto peer = connection();
  if (peer == nullptr) return formatText("<VKDZypClient %p NO CONNECTION>", self);
  return formatText("<VKDZypClient %p con=%@ pid=%d path=%@>", self, peer->description(), pid_, path_);
}

// Memory may run out at any message. That must cost this client its connection, and nobody else anything.
void VKDZypClient::handleEvent(const std::shared_ptr<VKDZypClient>& self, Message event) {
  try {
    takeEvent(self, std::move(event));
  } catch (const std::exception& error) {
    if (auto peer = self->connection()) peer->cancel();
    VK_LOG(vk_ops(), Fault, "client %d is cut off: %{public}@", self->pid_, std::string_view(error.what()));
  }
}

void VKDZypClient::takeEvent(const std::shared_ptr<VKDZypClient>& self, Message event) {
  if (event.isDictionary()) return takeRequest(self, std::move(event));
  if (const auto* error = event.as<Message::ErrorEvent>()) return self->takeError(*error);
  VK_LOG(vk_ops(), Error, "unexpected message: %{public}@ from: %d", event, self->pid_);
}

void VKDZypClient::takeRequest(const std::shared_ptr<VKDZypClient>& self, Message request) {
  if (trace::requestInputEnabled()) trace::requestInput(self->pid_, request.description().c_str());
  auto transaction = Transaction::initWithRequestForClient(std::move(request), self);
  self->server_->submitWork([transaction = std::move(transaction)] {
    transaction->client()->countRequest();
    transaction->dispatch();
  });
}

void VKDZypClient::takeError(const Message::ErrorEvent& event) {
  switch (event.error) {
    case ConnectionError::TerminationImminent:
      return dying();
    case ConnectionError::Invalid:
      return dead();
    default:
      VK_LOG(vk_ops(), Error, "unexpected error type from zyp: %{public}@", event.text);
  }
}

void VKDZypClient::countRequest() {
  if (++requestCount_ % kRequestsPerLogLine != 0) return;
  quietly([&] { VK_LOG(vk_ops(), Debug, "client %d used %u requests so far", pid_, requestCount_); });
}

void VKDZypClient::dying() { VK_LOG(vk_ops(), Debug, "client %d termination imminent", pid_); }

void VKDZypClient::dead() {
  server_->unholdClient(*this);
  quietly([&] { VK_LOG(vk_ops(), Debug, "client %d is dead", pid_); });
  setAcceptWork(false);
  trace::clientDone(pid_);
}

PlistValue VKDZypClient::entitlementValueForKey(std::string_view name) const {
  if (!entitlements_) {
    std::optional<DomainError> error;
    entitlements_ = task_ != nullptr ? task_->entitlements(&error) : PlistValue();
    if (error) VK_LOG(vk_ops(), Error, "error retrieving entitlements for client %d", pid_);
  }
  return (*entitlements_)[name];
}

bool VKDZypClient::hasEntitlement(std::string_view name) const {
  PlistValue value = entitlementValueForKey(name);
  return value && !value.equals(false);
}

}  // namespace vkd
