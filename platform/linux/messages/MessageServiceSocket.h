// The socket that a service is reached at: /run/zyp/<name> of the device. The length of the host path does not matter,
// which a socket address could not hold: sockets are reached through the open directory.
//
//   /run/zyp/<name>          the socket, mode 0666
//   /run/zyp/.<name>.lock    locked by the daemon that serves the name, for as long as it lives
//
// Who holds the lock may replace the socket of a daemon that died; nobody else touches it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/MessageConnection.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/files/UniqueFd.h"

namespace platform {

// Longer names leave no room for what is added to them in a file name that other systems can hold.
inline constexpr std::size_t kMaxServiceNameBytes = 96;

// Why this cannot be the name of a service; null when it can.
const char* wrongServiceName(std::string_view name);

// A name that this process serves. Clients may connect from the start, and wait to be accepted.
class MessageServiceSocket {
 public:
  // Null and *error (may be null) when the name is served by a living process, or cannot be served.
  static std::unique_ptr<MessageServiceSocket> claim(const DeviceRoot& root, std::string_view name, DomainError* error);
  // Takes the socket away, then gives up the name.
  ~MessageServiceSocket();

  int fd() const { return socket_.get(); }

 private:
  MessageServiceSocket(UniqueFd directory, UniqueFd lock, std::string name)
      : directory_(std::move(directory)), lock_(std::move(lock)), name_(std::move(name)) {}
  bool listen();

  const UniqueFd directory_;
  const UniqueFd lock_;
  const std::string name_;
  UniqueFd socket_;
};

// "what: reason" of the last failed call, in MessageErrorDomain.
DomainError messageError(const std::string& what);

// A socket connected to the service; invalid and errno when nobody serves it.
UniqueFd connectToService(const DeviceRoot& root, std::string_view name);

// Who is at the other end, 0 when unknown.
std::int32_t peerPidOf(int socket);

}  // namespace platform
