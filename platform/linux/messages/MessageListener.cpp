#include "platform/linux/messages/MessageListener.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/messages/MessagePeer.h"
#include "platform/linux/messages/PeerIdentity.h"

namespace platform {
namespace {

// How long to look away when there are no descriptors: long against accepting, short for a client that waits.
constexpr long kPauseNanoseconds = 100'000'000;
// Whoever connects in a loop must not fill the log.
constexpr std::chrono::seconds kBetweenRefusalLines{1};

}  // namespace

MessageAcceptor::MessageAcceptor(std::shared_ptr<EventLoop> loop, std::unique_ptr<MessageServiceSocket> service,
                                 std::shared_ptr<WorkQueue> deliveryQueue)
    : loop_(std::move(loop)),
      service_(std::move(service)),
      deliveryQueue_(std::move(deliveryQueue)),
      pauseTimer_(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {}

bool MessageAcceptor::start(MessageListener::ConnectionHandler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
  timerWatch_ = loop_->watch(pauseTimer_.get(), EPOLLIN, shared_from_this());
  if (timerWatch_ != 0) watch_ = loop_->watch(service_->fd(), EPOLLIN, shared_from_this());
  return watch_ != 0;
}

void MessageAcceptor::stop() {
  std::lock_guard lock(mutex_);
  stopped_ = true;
  loop_->unwatch(watch_, service_->fd());
  loop_->unwatch(timerWatch_, pauseTimer_.get());
}

void MessageAcceptor::ready(std::uint32_t) {
  std::lock_guard lock(mutex_);
  if (stopped_ || (paused_ && !pauseOver())) return;
  // One a round: whoever is connected has a turn in between, for welcoming takes as long as dozens of requests.
  acceptOne();
}

// Caller holds mutex_, here and below.
void MessageAcceptor::acceptOne() {
  UniqueFd socket(::accept4(service_->fd(), nullptr, nullptr, SOCK_CLOEXEC));
  if (socket) {
    welcome(std::move(socket));
  } else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
    pause();
  }
}

void MessageAcceptor::welcome(UniqueFd socket) {
  shortageLogged_ = false;
  ucred client{};
  socklen_t length = sizeof client;
  ::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &client, &length);
  const char* refusal = nullptr;
  auto ticket = budget_->admit(client.uid, &refusal);
  if (ticket == nullptr) {
    refuse(client.pid, refusal);
    return;
  }
  std::shared_ptr<PeerIdentity> identity = PeerIdentity::ofSocket(socket.get());
  auto connected =
      std::make_shared<MessageSocket>(loop_, std::move(socket), identity->pid(), identity, std::move(ticket));
  auto peer = std::make_shared<MessagePeer>(std::move(connected), std::move(identity));
  deliveryQueue_->async([handler = handler_, peer = std::move(peer)] { handler(peer); });
}

void MessageAcceptor::refuse(std::int32_t pid, const char* why) {
  auto now = std::chrono::steady_clock::now();
  if (now - lastRefusalLogged_ < kBetweenRefusalLines) return;
  lastRefusalLogged_ = now;
  VK_LOG(defaultLog(), Error, "process %d is refused: %{public}s", pid, why);
}

void MessageAcceptor::pause() {
  if (!shortageLogged_) {
    VK_LOG(defaultLog(), Error, "no client can be accepted for now: %{public}s", std::strerror(errno));
  }
  shortageLogged_ = true;
  paused_ = true;
  loop_->change(watch_, service_->fd(), 0);
  itimerspec once{{0, 0}, {0, kPauseNanoseconds}};
  ::timerfd_settime(pauseTimer_.get(), 0, &once, nullptr);
}

bool MessageAcceptor::pauseOver() {
  std::uint64_t expirations = 0;
  if (::read(pauseTimer_.get(), &expirations, sizeof expirations) <= 0) return false;
  paused_ = false;
  loop_->change(watch_, service_->fd(), EPOLLIN);
  return true;
}

std::optional<DomainError> LinuxMessageListener::resume() {
  if (!handler_) return DomainError{MessageErrorDomain, 0, "no connection handler"};
  if (acceptor_->start(std::move(handler_))) return std::nullopt;
  return messageError("cannot watch the socket");
}

}  // namespace platform
