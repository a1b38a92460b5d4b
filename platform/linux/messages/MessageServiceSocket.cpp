#include "platform/linux/messages/MessageServiceSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <utility>

namespace platform {
namespace {

constexpr std::string_view kServiceDirectory = "/run/zyp";
// Clients that connected and wait to be accepted; the kernel lowers it to its own bound.
constexpr int kBacklog = 512;
// A client waits no longer for room among those: the daemon has not accepted anyone for all that time.
constexpr timeval kConnectTimeout{2, 0};

UniqueFd makeSocket(int flags) { return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0)); }

// The address of an open file, or of a short name in an open directory.
sockaddr_un addressOf(int fd, const std::string& name = {}) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d%s%s", fd, name.empty() ? "" : "/",
                name.c_str());
  return address;
}

// A short name that no two services share, to bind a socket at before it takes its place.
std::string temporaryName(const std::string& name) {
  char text[32];
  std::snprintf(text, sizeof text, ".%016llx", static_cast<unsigned long long>(std::hash<std::string>()(name)));
  return text;
}

}  // namespace

const char* wrongServiceName(std::string_view name) {
  if (name.empty()) return "the service name is empty";
  if (name.front() == '.') return "the service name begins with a dot";
  if (name.size() > kMaxServiceNameBytes) return "the service name is too long";
  if (name.find('/') != name.npos) return "the service name has a slash";
  if (name.find('\0') != name.npos) return "the service name has a zero byte";
  return nullptr;
}

DomainError messageError(const std::string& what) {
  return DomainError{MessageErrorDomain, errno, what + ": " + std::strerror(errno)};
}

std::unique_ptr<MessageServiceSocket> MessageServiceSocket::claim(const DeviceRoot& root, std::string_view name,
                                                                  DomainError* error) {
  const auto refuse = [&](DomainError why) -> std::unique_ptr<MessageServiceSocket> {
    if (error != nullptr) *error = std::move(why);
    return nullptr;
  };
  if (const char* wrong = wrongServiceName(name)) return refuse({MessageErrorDomain, 0, wrong});
  UniqueFd directory = root.makeDirectories(kServiceDirectory, 0755);
  if (!directory) return refuse(messageError("cannot make " + std::string(kServiceDirectory)));
  const std::string service(name);
  const std::string lockName = "." + service + ".lock";
  UniqueFd lock(
      ::openat(directory.get(), lockName.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  if (!lock || ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    const bool inUse = lock && errno == EWOULDBLOCK;
    return refuse(inUse ? DomainError{MessageErrorDomain, EWOULDBLOCK, "service name " + service + " is in use"}
                        : messageError("cannot lock " + lockName));
  }
  std::unique_ptr<MessageServiceSocket> claimed(
      new MessageServiceSocket(std::move(directory), std::move(lock), service));
  if (!claimed->listen()) {
    return refuse(messageError("cannot listen at " + std::string(kServiceDirectory) + "/" + service));
  }
  return claimed;
}

// The socket is complete before it has its name: it takes the place of a stale one in one step, and no client ever
// finds it closed or out of reach.
bool MessageServiceSocket::listen() {
  UniqueFd socket = makeSocket(SOCK_NONBLOCK);
  std::string temporary = temporaryName(name_);
  sockaddr_un address = addressOf(directory_.get(), temporary);
  ::unlinkat(directory_.get(), temporary.c_str(), 0);
  int on = 1;
  // Inherited by accepted sockets, and effective for what is sent before they are accepted.
  bool ready = socket && ::setsockopt(socket.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0 &&
               ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
               ::fchmodat(directory_.get(), temporary.c_str(), 0666, 0) == 0 && ::listen(socket.get(), kBacklog) == 0 &&
               ::renameat(directory_.get(), temporary.c_str(), directory_.get(), name_.c_str()) == 0;
  if (ready) {
    socket_ = std::move(socket);
  } else {
    int error = errno;
    ::unlinkat(directory_.get(), temporary.c_str(), 0);
    errno = error;
  }
  return ready;
}

MessageServiceSocket::~MessageServiceSocket() {
  if (socket_) ::unlinkat(directory_.get(), name_.c_str(), 0);
}

UniqueFd connectToService(const DeviceRoot& root, std::string_view name) {
  if (wrongServiceName(name) != nullptr) {
    errno = EINVAL;
    return UniqueFd();
  }
  UniqueFd file = root.open(std::string(kServiceDirectory) + "/" + std::string(name), O_PATH | O_NOFOLLOW);
  if (!file) return UniqueFd();
  UniqueFd socket = makeSocket(0);
  sockaddr_un address = addressOf(file.get());
  // Only waits when very many clients are waiting already.
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kConnectTimeout, sizeof kConnectTimeout);
  int result;
  do {
    result = ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  return result == 0 ? std::move(socket) : UniqueFd();
}

std::int32_t peerPidOf(int socket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 ? credentials.pid : 0;
}

}  // namespace platform
