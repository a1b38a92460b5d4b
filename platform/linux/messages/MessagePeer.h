// The daemon's end of a connection.
//
//   made --resume--> live --peer gone, garbage, cut off, cancel--> invalid
//                      |
//                      +-- the peer shut its sending half: TerminationImminent. What it asked is still answered.
//
// A live connection keeps itself alive; its handler is released after Invalid, its context with the object. One that is
// let go before resume() is closed, and nothing was ever read of it.
#pragma once

#include <memory>
#include <string>

#include "platform/MessageConnection.h"
#include "platform/linux/messages/MessageReplies.h"
#include "platform/linux/messages/MessageSocket.h"
#include "platform/linux/messages/PeerIdentity.h"

namespace platform {

class MessagePeer final : public PeerConnection,
                          public MessageSocketUser,
                          public std::enable_shared_from_this<MessagePeer> {
 public:
  MessagePeer(std::shared_ptr<MessageSocket> socket, std::shared_ptr<PeerIdentity> identity);

  std::int32_t peerPid() const override { return identity_->pid(); }
  std::shared_ptr<AuditToken> peerAuditToken() const override { return identity_; }
  void setContext(std::shared_ptr<void> context) override { context_ = std::move(context); }
  void setEventHandler(EventHandler handler) override { handler_ = std::move(handler); }
  void resume() override;
  void send(const Message& message) override;
  void cancel() override { socket_->close(); }
  std::string description() const override;

  std::string frameArrived(const FrameHeader& header, const SharedSlice& payload) override;
  void peerEnding() override { deliver(terminationImminent()); }
  void socketClosed() override;

 private:
  void deliver(Message event);

  const std::shared_ptr<MessageSocket> socket_;
  const std::shared_ptr<PeerIdentity> identity_;
  // Set before resume(); from then on used by the delivery only.
  std::shared_ptr<void> context_;
  EventHandler handler_;
  std::shared_ptr<MessagePeer> self_;  // while live
};

}  // namespace platform
