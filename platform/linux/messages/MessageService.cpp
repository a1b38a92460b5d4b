#include "platform/linux/messages/MessageService.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/messages/MessageClient.h"
#include "platform/linux/messages/MessageListener.h"
#include "platform/linux/messages/MessageServiceSocket.h"

namespace platform {
namespace {

constexpr std::string_view kKeepAliveDirectory = "/run/jobd/keepalive";

void ignoreBrokenPipes() {
  struct sigaction action {};
  if (::sigaction(SIGPIPE, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
  action.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &action, nullptr);
}

void markBusy(const DeviceRoot& root, bool busy) {
  UniqueFd directory = root.makeDirectories(kKeepAliveDirectory, 0755);
  std::string name = std::to_string(::getpid());
  bool done = false;
  if (directory && busy) {
    done = static_cast<bool>(UniqueFd(
        ::openat(directory.get(), name.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644)));
  } else if (directory) {
    done = ::unlinkat(directory.get(), name.c_str(), 0) == 0 || errno == ENOENT;
  }
  if (!done) {
    VK_LOG(defaultLog(), Error, "cannot say in %{public}s whether this process is busy: %{public}s",
           kKeepAliveDirectory, std::strerror(errno));
  }
}

}  // namespace

LinuxMessageService::LinuxMessageService(RunningLoop loop, std::shared_ptr<const DeviceRoot> root)
    : loop_(std::move(loop)), root_(std::move(root)) {}

std::shared_ptr<MessageListener> LinuxMessageService::listen(std::string_view serviceName,
                                                             std::shared_ptr<WorkQueue> deliveryQueue,
                                                             DomainError* error) {
  auto socket = MessageServiceSocket::claim(*root_, serviceName, error);
  if (socket == nullptr) return nullptr;
  ignoreBrokenPipes();
  return std::make_shared<LinuxMessageListener>(
      std::make_shared<MessageAcceptor>(loop_.loop(), std::move(socket), std::move(deliveryQueue)));
}

std::shared_ptr<ServiceConnection> LinuxMessageService::connect(std::string_view serviceName,
                                                                std::shared_ptr<WorkQueue> deliveryQueue) {
  return std::make_shared<MessageClient>(loop_.loop(), root_, std::string(serviceName), std::move(deliveryQueue));
}

void LinuxMessageService::beginKeepAlive() {
  std::lock_guard lock(keepAliveMutex_);
  // Counted last: what fails is not begun, and nobody ends it.
  if (keepAliveCount_ == 0) markBusy(*root_, true);
  ++keepAliveCount_;
}

void LinuxMessageService::endKeepAlive() {
  std::lock_guard lock(keepAliveMutex_);
  if (keepAliveCount_ > 0 && --keepAliveCount_ == 0) markBusy(*root_, false);
}

int LinuxMessageService::keepAliveCount() const {
  std::lock_guard lock(keepAliveMutex_);
  return keepAliveCount_;
}

std::shared_ptr<LinuxMessageService> makeMessageService(RunningLoop loop, std::shared_ptr<const DeviceRoot> root) {
  return std::make_shared<LinuxMessageService>(std::move(loop), std::move(root));
}

}  // namespace platform
