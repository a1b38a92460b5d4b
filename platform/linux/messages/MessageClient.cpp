#include "platform/linux/messages/MessageClient.h"

#include <utility>

#include "platform/linux/messages/MessageServiceSocket.h"
#include "platform/values/Format.h"

namespace platform {

MessageClient::MessageClient(std::shared_ptr<EventLoop> loop, std::shared_ptr<const DeviceRoot> root,
                             std::string serviceName, std::shared_ptr<WorkQueue> deliveryQueue)
    : loop_(std::move(loop)),
      root_(std::move(root)),
      serviceName_(std::move(serviceName)),
      deliveryQueue_(std::move(deliveryQueue)) {}

MessageClient::~MessageClient() {
  if (socket_ != nullptr) socket_->close();
  replies_.failAll(connectionInvalid());
}

std::int32_t MessageClient::peerPid() const {
  std::lock_guard lock(mutex_);
  return socket_ != nullptr ? socket_->peerPid() : 0;
}

void MessageClient::resume() {
  std::vector<Frame> early;
  {
    std::lock_guard lock(mutex_);
    resumed_ = true;
    early.swap(early_);
  }
  for (Frame& frame : early) sendFrame(std::move(frame));
}

void MessageClient::send(const Message& message) {
  if (const auto frame = frameOf(message)) sendFrame({frame->type, frame->id, encodeMessage(message)});
}

void MessageClient::sendWithReply(const Message& message, std::shared_ptr<WorkQueue> queue, ReplyHandler handler) {
  Rope payload = encodeMessage(message);
  sendFrame({FrameType::Request, replies_.expect(std::move(queue), std::move(handler)), std::move(payload)});
}

void MessageClient::sendFrame(Frame frame) {
  {
    std::lock_guard lock(mutex_);
    if (!resumed_ && !cancelled_) {
      early_.push_back(std::move(frame));
      return;
    }
    if (!cancelled_ && connect()) {
      // Under the lock, so that a reply is expected of the socket that its request went to.
      socket_->send(frame.type, frame.id, std::move(frame.payload));
      return;
    }
    if (cancelled_ && frame.type != FrameType::Request) return;
  }
  if (frame.type == FrameType::Request) replies_.fail(frame.id, connectionInvalid());
  deliver(connectionInvalid());
}

// Caller holds mutex_.
bool MessageClient::connect() {
  if (socket_ != nullptr) return true;
  UniqueFd fd = connectToService(*root_, serviceName_);
  if (!fd) return false;
  std::int32_t pid = peerPidOf(fd.get());
  auto socket = std::make_shared<MessageSocket>(loop_, std::move(fd), pid, nullptr, nullptr);
  if (!socket->start(weak_from_this())) return false;
  socket_ = std::move(socket);
  return true;
}

void MessageClient::cancel() {
  std::shared_ptr<MessageSocket> socket;
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(cancelled_, true)) return;
    early_.clear();
    socket = socket_;
  }
  if (socket != nullptr) {
    socket->close();
  } else {
    socketClosed();
  }
}

std::string MessageClient::frameArrived(const FrameHeader& header, const SharedSlice& payload) {
  std::string wrong;
  Message message = messageInFrame(header, payload, &wrong);
  if (!message) return wrong;
  if (header.type == FrameType::Reply) {
    return replies_.arrived(header.id, std::move(message)) ? "" : "a reply to no request";
  }
  deliver(std::move(message));
  return {};
}

void MessageClient::socketClosed() {
  bool cancelled;
  {
    // Together, so that no later request is failed with those of this socket.
    std::lock_guard lock(mutex_);
    socket_ = nullptr;
    cancelled = cancelled_;
    replies_.failAll(cancelled ? connectionInvalid() : connectionInterrupted());
  }
  deliver(cancelled ? connectionInvalid() : connectionInterrupted());
}

void MessageClient::deliver(Message event) {
  deliveryQueue_->async([weak = weak_from_this(), event = std::move(event)]() mutable {
    auto self = weak.lock();
    if (self == nullptr || !self->handler_) return;
    bool last = false;
    if (const auto* error = event.as<Message::ErrorEvent>()) {
      std::lock_guard lock(self->mutex_);
      last = self->cancelled_ && error->error == ConnectionError::Invalid;
    }
    self->handler_(std::move(event));
    if (last) self->handler_ = nullptr;
  });
}

std::string MessageClient::description() const {
  return formatText("<MessageConnection %p service %s>", static_cast<const void*>(this), serviceName_);
}

}  // namespace platform
