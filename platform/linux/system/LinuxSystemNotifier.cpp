#include "platform/linux/system/LinuxSystemNotifier.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <map>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/linux/files/Directory.h"
#include "platform/linux/files/Files.h"
#include "platform/linux/files/SharedFolders.h"
#include "platform/values/UUID.h"

namespace platform {
namespace {

std::string folderOf(std::string_view name) { return std::string(kNotifyFolder).append("/").append(name); }

// A path through /proc: a socket address holds 108 bytes, whatever the length of the real path, and a descriptor cannot
// be swapped for a link.
sockaddr_un addressOf(int descriptor, const std::string& name = {}) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d%s%s", descriptor, name.empty() ? "" : "/",
                name.c_str());
  return address;
}

const sockaddr* asAddress(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

UniqueFd datagramSocket() { return UniqueFd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

// What the subscription and its thread share; the thread may outlast the subscription when that is destroyed from
// within the handler.
struct SubscriptionState {
  UniqueFd directory;
  UniqueFd socket;
  UniqueFd stop;
  std::string fileName;
  std::function<void()> handler;
  std::atomic<bool> stopped{false};

  ~SubscriptionState() {
    if (!fileName.empty()) ::unlinkat(directory.get(), fileName.c_str(), 0);
  }

  void run() {
    std::array<pollfd, 2> waiting{pollfd{socket.get(), POLLIN, 0}, pollfd{stop.get(), POLLIN, 0}};
    while (!stopped.load(std::memory_order_acquire)) {
      if (::poll(waiting.data(), waiting.size(), -1) < 0) continue;
      char byte = 0;
      if (!stopped.load(std::memory_order_acquire) && ::recv(socket.get(), &byte, sizeof byte, MSG_DONTWAIT) >= 0) {
        handler();
      }
    }
  }
};

class SocketSubscription final : public SystemNotifier::Subscription {
 public:
  explicit SocketSubscription(std::shared_ptr<SubscriptionState> state)
      : state_(std::move(state)), thread_([shared = state_] { shared->run(); }) {}
  ~SocketSubscription() override {
    state_->stopped.store(true, std::memory_order_release);
    std::uint64_t one = 1;
    static_cast<void>(::write(state_->stop.get(), &one, sizeof one));  // cannot fill up: written once
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
    } else {
      thread_.join();
    }
  }

 private:
  const std::shared_ptr<SubscriptionState> state_;
  std::thread thread_;
};

// One post on its way through the directory.
class Delivery {
 public:
  Delivery(int directory, int sender) : directory_(directory), sender_(sender) {}

  void to(const char* name) {
    UniqueFd target(::openat(directory_, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat state {};
    if (!target || ::fstat(target.get(), &state) != 0 || !S_ISSOCK(state.st_mode)) return;
    if (++served_[state.st_uid] > kMaxSubscribersOfUser) return;
    sockaddr_un address = addressOf(target.get());
    constexpr char kByte = 1;
    ssize_t sent =
        ::sendto(sender_, &kByte, sizeof kByte, MSG_DONTWAIT | MSG_NOSIGNAL, asAddress(address), sizeof address);
    // Nobody holds the socket any more, and nobody ever will again: names are used once.
    if (sent < 0 && errno == ECONNREFUSED) ::unlinkat(directory_, name, 0);
  }

 private:
  const int directory_;
  const int sender_;
  std::map<uid_t, unsigned> served_;
};

}  // namespace

LinuxSystemNotifier::LinuxSystemNotifier(std::shared_ptr<const DeviceRoot> root)
    : root_(std::move(root)), sender_(datagramSocket()) {}

void LinuxSystemNotifier::post(std::string_view name) {
  if (!isSafeComponent(name)) return;
  UniqueFd folder = root_->open(folderOf(name), O_RDONLY | O_DIRECTORY);
  if (!folder) return;
  Delivery delivery(folder.get(), sender_.get());
  forEachEntry(folder.get(), kMaxNotifyEntries, [&](const char* entry) { delivery.to(entry); });
}

std::unique_ptr<SystemNotifier::Subscription> LinuxSystemNotifier::subscribe(std::string_view name,
                                                                             std::function<void()> handler) {
  if (!isSafeComponent(name)) return nullptr;
  auto state = std::make_shared<SubscriptionState>();
  if (!openSharedFolder(*root_, kNotifyFolder)) return nullptr;
  state->directory = openSharedFolder(*root_, folderOf(name));
  state->socket = datagramSocket();
  state->stop = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  state->handler = std::move(handler);
  if (!state->directory || !state->socket || !state->stop) return nullptr;
  std::string fileName = UUID::random().text();
  sockaddr_un address = addressOf(state->directory.get(), fileName);
  if (::bind(state->socket.get(), asAddress(address), sizeof address) != 0) return nullptr;
  state->fileName = std::move(fileName);
  // Whatever umask said: everybody may post.
  if (::fchmodat(state->directory.get(), state->fileName.c_str(), 0666, 0) != 0) return nullptr;
  try {
    return std::make_unique<SocketSubscription>(std::move(state));
  } catch (const std::system_error&) {
    return nullptr;  // no more threads
  }
}

}  // namespace platform
