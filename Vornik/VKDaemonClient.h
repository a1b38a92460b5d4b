// The client side of the daemon's protocol, for host applications, installers and settings interfaces:
//
//   auto client = VKDaemonClient::initWithServiceName();
//   client->matchPlugInsFlagsReply(rules, 0, [client](const Message& reply) {
//     if (auto error = client->errorInReply(reply)) return complain(*error);
//     PlistValue forms = client->plugInsInReply(reply);
//     …
//   });
//
// Each request operation builds one message, sends it and returns; its reply block gets the raw reply, or the
// platform's error event when the request could not be answered. Reply blocks and connection events run on replyQueue,
// one at a time. The operations may be called from any thread. The connection lives as long as the object; whoever
// waits for a reply keeps the object.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Vornik/VKProtocol.h"
#include "Vornik/VKStandard.h"
#include "platform/MessageConnection.h"
#include "platform/Services.h"
#include "platform/WorkQueue.h"
#include "platform/values/DomainError.h"
#include "platform/values/Message.h"
#include "platform/values/PlistValue.h"
#include "platform/values/UUID.h"

namespace Vornik {

using namespace platform;

// A reply broke the protocol.
class VKInternalInconsistency : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

class VKDaemonClient {
 public:
  using ReplyBlock = std::function<void(const Message& reply)>;

  // A client of the named service (empty: the daemon's usual one), ready for use; connects at the first request. Needs
  // the queues and messages of the services, by default those of this machine.
  static std::shared_ptr<VKDaemonClient> initWithServiceName(const Services& services,
                                                             std::string_view serviceName = {});
  static std::shared_ptr<VKDaemonClient> initWithServiceName(std::string_view serviceName = {});

  // Registers, unregisters plug-ins at absolute paths.
  void addPlugInsReply(std::span<const std::string> paths, ReplyBlock reply);
  void removePlugInsReply(std::span<const std::string> paths, ReplyBlock reply);
  void bulkPluginsReply(std::uint64_t flags, ReplyBlock reply);
  // Makes plug-ins launchable for this process; asks for tokens to read their bundles.
  void readyPlugInsFlagsReply(std::span<const UUID> uuids, std::uint64_t flags, ReplyBlock reply);
  void accessPlugInsFlagsReply(std::span<const UUID> uuids, std::uint64_t flags, ReplyBlock reply);
  // Finds plug-ins: a rules dictionary, or nothing for all; VKDiscover… flags.
  void matchPlugInsFlagsReply(const PlistValue& rules, std::uint64_t flags, ReplyBlock reply);
  void setPluginAnnotationsAnnotationsReply(std::span<const UUID> uuids, const PlistValue& annotations,
                                            ReplyBlock reply);
  // A dictionary from UUID text to the "extension" dictionary of that plug-in.
  void bulkSetPluginAnnotationsReply(const PlistValue& annotations, ReplyBlock reply);
  // VKHoldApplications or VKHoldPlugIns; a granted hold's token is the UUID under "uuids" of the reply.
  void holdPluginsFlagsReply(std::span<const std::string> paths, std::uint64_t flags, ReplyBlock reply);
  void releaseHoldReply(const UUID& token, ReplyBlock reply);

  // For requests of one's own: the envelope, the envelope with "paths", "uuids" into a request, and sending it.
  Message request(std::string_view type) const;
  Message requestPaths(std::string_view type, std::span<const std::string> paths) const;
  static void setUuids(Message& request, std::span<const UUID> uuids);
  void sendReply(const Message& request, ReplyBlock reply);

  // Called on replyQueue with every event of the connection itself, after it was logged: the daemon went away, say.
  // From any thread but replyQueue; an empty block ends it.
  void setEventBlock(ReplyBlock event);

  // The failure that a reply tells of, or nothing. Throws VKInternalInconsistency for a message without a code.
  static std::optional<DomainError> errorInReply(const Message& reply);
  // The forms under "matches"; nothing when there are none or the protocol version cannot carry them.
  PlistValue plugInsInReply(const Message& reply) const;

  // A property list as one value of a message; nothing for a version that cannot carry it.
  static Message convertToZYPVersion(const PlistValue& value, std::uint64_t version);
  // The reverse, for this client's protocol version; nothing for anything that is no encoded property list.
  PlistValue convertFromZYP(const Message& value) const;

  const std::shared_ptr<ServiceConnection>& vkd() const { return vkd_; }
  const std::shared_ptr<WorkQueue>& replyQueue() const { return replyQueue_; }
  // Put into every request.
  std::int64_t protocolVersion() const { return protocolVersion_.load(std::memory_order_relaxed); }
  void setProtocolVersion(std::int64_t version) { protocolVersion_.store(version, std::memory_order_relaxed); }

 private:
  VKDaemonClient(std::shared_ptr<MessageService> messages, std::shared_ptr<ServiceConnection> vkd,
                 std::shared_ptr<WorkQueue> replyQueue, std::shared_ptr<ReplyBlock> event)
      : messages_(std::move(messages)),
        vkd_(std::move(vkd)),
        replyQueue_(std::move(replyQueue)),
        event_(std::move(event)) {}

  const std::shared_ptr<MessageService> messages_;  // delivers to the connection only as long as somebody holds it
  const std::shared_ptr<ServiceConnection> vkd_;
  const std::shared_ptr<WorkQueue> replyQueue_;
  const std::shared_ptr<ReplyBlock> event_;  // shared with the connection's handler; on replyQueue only
  std::atomic<std::int64_t> protocolVersion_{kVKProtocolVersion};
};

}  // namespace Vornik
