// The IPC service of this machine: stream sockets at /run/zyp/<service name> of the device, see MessageFrame.h for what
// travels on them.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/MessageConnection.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/queues/EventLoop.h"

namespace platform {

// Safe from any thread. Its listeners and connections may outlive it; from then on nothing is delivered to them.
class LinuxMessageService final : public MessageService {
 public:
  LinuxMessageService(RunningLoop loop, std::shared_ptr<const DeviceRoot> root);

  // From now on the process ignores SIGPIPE: a daemon does not end because the reader of its log did.
  std::shared_ptr<MessageListener> listen(std::string_view serviceName, std::shared_ptr<WorkQueue> deliveryQueue,
                                          DomainError* error) override;
  std::shared_ptr<ServiceConnection> connect(std::string_view serviceName,
                                             std::shared_ptr<WorkQueue> deliveryQueue) override;
  // While busy, the process has a file /run/jobd/keepalive/<pid> of the device.
  void beginKeepAlive() override;
  void endKeepAlive() override;
  int keepAliveCount() const;

 private:
  const RunningLoop loop_;
  const std::shared_ptr<const DeviceRoot> root_;
  mutable std::mutex keepAliveMutex_;
  int keepAliveCount_ = 0;  // guarded by keepAliveMutex_
};

std::shared_ptr<LinuxMessageService> makeMessageService(RunningLoop loop, std::shared_ptr<const DeviceRoot> root);

}  // namespace platform
