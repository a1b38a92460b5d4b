// System notifications through the file system: each subscriber owns a datagram socket in /run/notify/<name>/, and a
// post sends one byte to every socket that it finds there. No server is needed, and users reach each other.
//
// A post never waits: a subscriber whose queue of some ten notifications is full loses this one, and will see the ones
// before it. The socket of a subscriber that has gone away is removed by whoever posts and may remove it. Nobody can
// crowd others out: of each user only so many sockets are served. Safe from any thread.
#pragma once

#include <memory>

#include "platform/UserServices.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/files/UniqueFd.h"

namespace platform {

// More sockets of one user are not served: they would only delay the poster.
inline constexpr unsigned kMaxSubscribersOfUser = 256;
// No more entries of the directory are looked at.
inline constexpr unsigned kMaxNotifyEntries = 8192;

class LinuxSystemNotifier final : public SystemNotifier {
 public:
  explicit LinuxSystemNotifier(std::shared_ptr<const DeviceRoot> root);
  void post(std::string_view name) override;
  // Each subscription has a thread of its own, on which its handler runs, once for each notification.
  std::unique_ptr<Subscription> subscribe(std::string_view name, std::function<void()> handler) override;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
  const UniqueFd sender_;
};

}  // namespace platform
