#include "platform/linux/messages/MessagePeer.h"

#include <exception>
#include <new>
#include <utility>

#include "platform/Log.h"

namespace platform {

MessagePeer::MessagePeer(std::shared_ptr<MessageSocket> socket, std::shared_ptr<PeerIdentity> identity)
    : socket_(std::move(socket)), identity_(std::move(identity)) {}

void MessagePeer::resume() {
  self_ = shared_from_this();
  if (socket_->start(weak_from_this())) return;
  VK_LOG(defaultLog(), Error, "process %d is cut off: its socket cannot be watched", peerPid());
  socket_->close();
  socketClosed();
}

void MessagePeer::send(const Message& message) {
  const auto frame = frameOf(message);
  if (!frame) return;
  try {
    socket_->send(frame->type, frame->id, encodeMessage(message));
  } catch (const std::bad_alloc&) {
    socket_->cutOff("no memory for its reply");
  }
}

std::string MessagePeer::frameArrived(const FrameHeader& header, const SharedSlice& payload) {
  std::string wrong;
  Message message = messageInFrame(header, payload, &wrong);
  if (!message) return wrong;
  if (header.type == FrameType::Reply) return "a reply to no request";
  // Only a dictionary can be replied to.
  if (header.type == FrameType::Request && !message.isDictionary()) socket_->expectNoReply(header.id);
  deliver(std::move(message));
  return {};
}

void MessagePeer::deliver(Message event) {
  if (!handler_) return;
  try {
    handler_(std::move(event));
  } catch (const std::exception& error) {
    VK_LOG(defaultLog(), Fault, "exception in the event handler of %{public}s: %{public}s", description(),
           error.what());
  }
}

void MessagePeer::socketClosed() {
  std::shared_ptr<MessagePeer> last = std::move(self_);
  deliver(connectionInvalid());
  handler_ = nullptr;
}

std::string MessagePeer::description() const {
  return formatText("<MessageConnection %p pid %d>", static_cast<const void*>(this), peerPid());
}

}  // namespace platform
