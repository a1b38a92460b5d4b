// A client's end of a connection to a service.
//
//   made --send--> connected --service gone--> not connected --send--> connected ...
//                                  |               ^
//                                  |               `-- no service: replies and the handler get Invalid
//                                  `-- replies and the handler get Interrupted
//
// Lives as long as its owner wants; replies that are still expected then, or at cancel(), get Invalid. What is sent
// before resume() waits for it.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/MessageConnection.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/messages/MessageReplies.h"
#include "platform/linux/messages/MessageSocket.h"

namespace platform {

class MessageClient final : public ServiceConnection,
                            public MessageSocketUser,
                            public std::enable_shared_from_this<MessageClient> {
 public:
  MessageClient(std::shared_ptr<EventLoop> loop, std::shared_ptr<const DeviceRoot> root, std::string serviceName,
                std::shared_ptr<WorkQueue> deliveryQueue);
  ~MessageClient() override;

  std::int32_t peerPid() const override;
  void setEventHandler(EventHandler handler) override { handler_ = std::move(handler); }
  void resume() override;
  void send(const Message& message) override;
  void sendWithReply(const Message& message, std::shared_ptr<WorkQueue> queue, ReplyHandler handler) override;
  void cancel() override;
  std::string description() const override;

  std::string frameArrived(const FrameHeader& header, const SharedSlice& payload) override;
  void peerEnding() override { deliver(terminationImminent()); }
  void socketClosed() override;

 private:
  struct Frame {
    FrameType type;
    std::uint64_t id;
    Rope payload;
  };
  void sendFrame(Frame frame);
  bool connect();
  void deliver(Message event);

  const std::shared_ptr<EventLoop> loop_;
  const std::shared_ptr<const DeviceRoot> root_;
  const std::string serviceName_;
  const std::shared_ptr<WorkQueue> deliveryQueue_;
  MessageReplies replies_;
  // Set before resume(); from then on used on deliveryQueue_ only.
  EventHandler handler_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<MessageSocket> socket_;  // null: not connected
  bool resumed_ = false;
  bool cancelled_ = false;
  std::vector<Frame> early_;  // sent before resume()
};

}  // namespace platform
