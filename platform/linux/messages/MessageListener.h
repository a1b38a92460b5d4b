// Accepts the clients of a service. See MessageListener in MessageConnection.h.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/MessageConnection.h"
#include "platform/linux/files/UniqueFd.h"
#include "platform/linux/messages/MessageBudget.h"
#include "platform/linux/messages/MessageServiceSocket.h"
#include "platform/linux/queues/EventLoop.h"

namespace platform {

// What the loop calls when clients wait. When the process has run out of descriptors or memory it looks away for a
// moment, instead of being told again and again: the clients wait in the kernel.
class MessageAcceptor final : public EventSource, public std::enable_shared_from_this<MessageAcceptor> {
 public:
  MessageAcceptor(std::shared_ptr<EventLoop> loop, std::unique_ptr<MessageServiceSocket> service,
                  std::shared_ptr<WorkQueue> deliveryQueue);

  bool start(MessageListener::ConnectionHandler handler);
  void stop();
  void ready(std::uint32_t events) override;

 private:
  void acceptOne();
  void welcome(UniqueFd socket);
  void refuse(std::int32_t pid, const char* why);
  void pause();
  bool pauseOver();

  const std::shared_ptr<EventLoop> loop_;
  const std::unique_ptr<MessageServiceSocket> service_;
  const std::shared_ptr<WorkQueue> deliveryQueue_;
  const std::shared_ptr<MessageBudget> budget_ = std::make_shared<MessageBudget>();
  const UniqueFd pauseTimer_;
  MessageListener::ConnectionHandler handler_;  // set before the first event

  std::mutex mutex_;
  // Guarded by mutex_.
  EventLoop::Watch watch_ = 0;
  EventLoop::Watch timerWatch_ = 0;
  bool stopped_ = false;
  bool paused_ = false;
  bool shortageLogged_ = false;
  std::chrono::steady_clock::time_point lastRefusalLogged_{};
};

class LinuxMessageListener final : public MessageListener {
 public:
  explicit LinuxMessageListener(std::shared_ptr<MessageAcceptor> acceptor) : acceptor_(std::move(acceptor)) {}
  // No handler call begins from now on.
  ~LinuxMessageListener() override { acceptor_->stop(); }

  void setConnectionHandler(ConnectionHandler handler) override { handler_ = std::move(handler); }
  std::optional<DomainError> resume() override;

 private:
  const std::shared_ptr<MessageAcceptor> acceptor_;
  ConnectionHandler handler_;
};

}  // namespace platform
