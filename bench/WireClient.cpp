#include "bench/WireClient.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

namespace {

struct Head {
  std::uint32_t length;
  std::uint32_t type;
  std::uint64_t id;
};
constexpr std::uint32_t kRequest = 2;
constexpr int kConnectAttempts = 200'000;  // of 50 µs: ten seconds for the daemon to appear

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

}  // namespace

void writeAll(int fd, const void* bytes, std::size_t size) {
  const char* at = static_cast<const char*>(bytes);
  while (size > 0) {
    ssize_t done = ::send(fd, at, size, MSG_NOSIGNAL);
    if (done <= 0) fail("send");
    at += done;
    size -= static_cast<std::size_t>(done);
  }
}

void readAll(int fd, void* bytes, std::size_t size) {
  char* at = static_cast<char*>(bytes);
  while (size > 0) {
    ssize_t done = ::recv(fd, at, size, 0);
    if (done <= 0) fail("recv");
    at += done;
    size -= static_cast<std::size_t>(done);
  }
}

WireClient::WireClient(const std::string& root) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s/run/zyp/com.vantrel.vornik.vkd", root.c_str());
  for (int attempt = 0; attempt < kConnectAttempts; ++attempt) {
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
    ::usleep(50);
  }
  fail("connect");
}

WireClient::~WireClient() { ::close(fd_); }

platform::Message WireClient::request(std::string_view type) {
  platform::Message message = platform::Message::dictionary();
  message.set("request", type);
  message.set("version", std::uint64_t{3});
  return message;
}

std::string WireClient::frame(const platform::Message& request) {
  platform::SharedSlice payload = platform::encodeMessage(request).flat();
  Head head{static_cast<std::uint32_t>(payload.size()), kRequest, 1};
  std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
  bytes += payload.view();
  return bytes;
}

std::size_t WireClient::receiveHead() {
  while (ahead_ < sizeof(Head)) {
    ssize_t done = ::recv(fd_, readAhead_.data() + ahead_, readAhead_.size() - ahead_, 0);
    if (done <= 0) fail("recv");
    ahead_ += static_cast<std::size_t>(done);
  }
  Head head;
  std::memcpy(&head, readAhead_.data(), sizeof head);
  return head.length;
}

void WireClient::receiveRest(char* payload, std::size_t size) {
  const std::size_t here = std::min(ahead_ - sizeof(Head), size);
  std::memcpy(payload, readAhead_.data() + sizeof(Head), here);
  ahead_ -= sizeof(Head) + here;
  std::memmove(readAhead_.data(), readAhead_.data() + sizeof(Head) + here, ahead_);
  readAll(fd_, payload + here, size - here);
}

void WireClient::flood(std::string_view frame, int times) {
  for (int i = 0; i < times; ++i) {
    if (::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) return;
  }
}

std::string WireClient::receive() {
  std::string payload(receiveHead(), '\0');
  receiveRest(payload.data(), payload.size());
  return payload;
}

void WireClient::receiveInto(std::vector<char>& payload) {
  const std::size_t size = receiveHead();
  if (payload.size() < size) payload.resize(size);
  receiveRest(payload.data(), size);
}

platform::Message WireClient::call(const platform::Message& request) {
  send(frame(request));
  platform::Message reply = platform::decodeMessage(platform::SharedSlice::take(receive()));
  if (!reply || reply.get("errorcode") != nullptr) {
    std::fprintf(stderr, "unexpected reply: %s\n", reply.description().c_str());
    std::exit(1);
  }
  return reply;
}

}  // namespace bench
