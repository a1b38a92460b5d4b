// One process that is connected to the daemon: who it is, what it may do, and how its messages become transactions.
//
//   live --peer announces its end: dying--> live --connection invalid: dead--> dead: holds released, work dropped
//
// Owned by its connection (as context and by the event handler) and by each of its transactions while they live; holds
// the connection only weakly. Events arrive on the delivery of its connection, one at a time; what serves a request
// runs on the service queue. Each member says where it is used.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Vornik/VKBundle.h"
#include "platform/CodeSigningTask.h"
#include "platform/MessageConnection.h"
#include "platform/values/DomainError.h"
#include "platform/values/Message.h"
#include "vkd/plugins/HostClient.h"

namespace vkd {

using namespace Vornik;

class VKDServer;

class VKDZypClient final : public HostClient {
 public:
  // The client of a new connection, already receiving messages. It lives through the connection; the caller need not
  // keep it.
  static std::shared_ptr<VKDZypClient> initWithConnectionServer(const std::shared_ptr<PeerConnection>& connection,
                                                                std::shared_ptr<VKDServer> server);
  VKDZypClient(const VKDZypClient&) = delete;
  VKDZypClient& operator=(const VKDZypClient&) = delete;

  // --- Fixed when it was made; from any thread -----------------------------------------------------------------------

  std::int32_t pid() const override { return pid_; }
  // Of its executable; empty when unknown.
  const std::string& path() const override { return path_; }
  const std::shared_ptr<VKBundle>& bundle() const override { return bundle_; }
  const std::shared_ptr<VKDServer>& server() const { return server_; }
  // Null once the connection is gone.
  std::shared_ptr<MessageConnection> connection() const { return connection_.lock(); }
  std::string description() const;

  // True until it is found dead. From any thread.
  bool acceptWork() const { return acceptWork_.load(std::memory_order_acquire); }
  void setAcceptWork(bool value) { acceptWork_.store(value, std::memory_order_release); }

  // --- Service queue -------------------------------------------------------------------------------------------------

  // A request of this client is about to be served: what is known of its entitlements is asked for once more, at the
  // request's first question. Within one request all questions see the same answer.
  void beginRequest() { entitlements_.reset(); }
  PlistValue entitlementValueForKey(std::string_view name) const override;
  bool hasEntitlement(std::string_view name) const override;
  std::uint32_t requestCount() const { return requestCount_; }
  void setRequestCount(std::uint32_t count) { requestCount_ = count; }

  // --- Delivery of the connection ------------------------------------------------------------------------------------

  void dying();
  void dead();

  // --- "serverSync": the server's own notes on the holds of this client ----------------------------------------------

  struct Holds {
    std::uint32_t count = 0;
    bool ended = false;  // it is dead, and may place no more
  };
  Holds& holds() { return holds_; }

 private:
  VKDZypClient(const std::shared_ptr<PeerConnection>& connection, std::shared_ptr<VKDServer> server);

  void identify(const PeerConnection& connection);
  static void handleEvent(const std::shared_ptr<VKDZypClient>& self, Message event);
  static void takeEvent(const std::shared_ptr<VKDZypClient>& self, Message event);
  static void takeRequest(const std::shared_ptr<VKDZypClient>& self, Message request);
  void takeError(const Message::ErrorEvent& event);
  void countRequest();

  const std::weak_ptr<MessageConnection> connection_;
  const std::shared_ptr<VKDServer> server_;
  const std::int32_t pid_;
  std::string path_;
  std::shared_ptr<VKBundle> bundle_;
  std::unique_ptr<CodeSigningTask> task_;
  std::atomic<bool> acceptWork_{true};

  // Service queue.
  mutable std::optional<PlistValue> entitlements_;  // of the present request, once asked for
  std::uint32_t requestCount_ = 0;

  // "serverSync".
  Holds holds_;
};

}  // namespace vkd
