// A client that speaks the wire protocol on a blocking socket and can do what a polite one would not.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/files/UniqueFd.h"
#include "platform/linux/messages/MessageFrame.h"
#include "platform/values/Message.h"
#include "tests/Support/Values.h"

namespace platform {

class WireClient {
 public:
  // Not connected when nobody listens.
  explicit WireClient(const std::string& root, std::string_view service = "com.vantrel.vornik.vkd") {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string path = root + "/run/zyp/" + std::string(service);
    if (path.size() >= sizeof address.sun_path) return;
    std::memcpy(address.sun_path, path.data(), path.size());
    fd_ = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int result;
    do {
      result = ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0) fd_.reset();
  }
  bool connected() const { return static_cast<bool>(fd_); }
  int fd() const { return fd_.get(); }

  static Message request(std::string_view type, support::Body body = {}) { return support::requestOf(type, body); }
  static std::string frame(const Message& message, std::uint64_t id, FrameType type = FrameType::Request) {
    SharedSlice payload = encodeMessage(message).flat();
    auto header = FrameHeader{static_cast<std::uint32_t>(payload.size()), type, id}.encoded();
    return std::string(header.data(), header.size()) + std::string(payload.view());
  }

  // False when the peer is gone, or takes nothing for as long as receive() would wait.
  bool sendBytes(std::string_view bytes) {
    while (!bytes.empty()) {
      if (!waitFor(POLLOUT)) return false;
      ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }
  // The next reply; nothing when the connection ends or nothing comes in time.
  std::optional<Message> receive(std::uint64_t* id = nullptr) {
    FrameHeader header;
    while (buffer_.size() < kFrameHeaderBytes || !whole(header)) {
      timedOut_ = !waitFor(POLLIN);
      char bytes[65536];
      ssize_t got = timedOut_ ? 0 : ::recv(fd_.get(), bytes, sizeof bytes, 0);
      if (got <= 0) return std::nullopt;
      buffer_.append(bytes, static_cast<std::size_t>(got));
    }
    Message message = decodeMessage(SharedSlice::take(buffer_.substr(kFrameHeaderBytes, header.length)));
    buffer_.erase(0, kFrameHeaderBytes + header.length);
    if (id != nullptr) *id = header.id;
    return message;
  }
  std::optional<Message> call(const Message& message) {
    if (!sendBytes(frame(message, ++lastId_))) return std::nullopt;
    return receive();
  }
  // Whether the last receive() ended for want of an answer, not with the connection.
  bool timedOut() const { return timedOut_; }

 private:
  static constexpr std::chrono::milliseconds kPatience{20'000};

  // False when nothing came of it in time. A signal, as of a fuzzer's timer, is no reason to give up, nor to start
  // anew.
  bool waitFor(short events) const {
    using Clock = std::chrono::steady_clock;
    pollfd wait{fd_.get(), events, 0};
    int ready;
    const auto end = Clock::now() + kPatience;
    do {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
      ready = ::poll(&wait, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
  }
  bool whole(FrameHeader& header) const {
    return header.decode(std::string_view(buffer_).substr(0, kFrameHeaderBytes)) == nullptr &&
           buffer_.size() >= kFrameHeaderBytes + header.length;
  }

  UniqueFd fd_;
  std::string buffer_;
  std::uint64_t lastId_ = 0;
  bool timedOut_ = false;
};

}  // namespace platform
