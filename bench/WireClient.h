// A client that speaks the wire protocol on a blocking socket: what a host in any language would do, and nothing more.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/Message.h"

namespace bench {

// Writes, reads all of it; a short result ends the benchmark.
void writeAll(int fd, const void* bytes, std::size_t size);
void readAll(int fd, void* bytes, std::size_t size);

class WireClient {
 public:
  // Connects to the daemon of a device root, waiting for it to appear.
  explicit WireClient(const std::string& root);
  ~WireClient();
  WireClient(const WireClient&) = delete;
  WireClient& operator=(const WireClient&) = delete;

  // A request's frame, ready to be sent any number of times.
  static std::string frame(const platform::Message& request);
  static platform::Message request(std::string_view type);

  void send(std::string_view frame) { writeAll(fd_, frame.data(), frame.size()); }
  // Sends a frame again and again as far as the socket takes it without waiting.
  void flood(std::string_view frame, int times);
  // The payload of the next reply, not looked into.
  std::string receive();
  // Reads the next reply into `payload`, whose memory is used again.
  void receiveInto(std::vector<char>& payload);
  // One round trip, the reply decoded and checked: ends the benchmark when it tells of an error.
  platform::Message call(const platform::Message& request);

 private:
  // Reads until the head of a reply is there; answers the size of its payload.
  std::size_t receiveHead();
  void receiveRest(char* payload, std::size_t size);

  int fd_;
  // What one call reads at least: small replies are there with their head, large ones go where they are wanted.
  std::array<char, 512> readAhead_;
  std::size_t ahead_ = 0;
};

}  // namespace bench
