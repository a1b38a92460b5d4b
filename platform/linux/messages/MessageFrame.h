// The frames in which messages travel over a socket.
//
//    0        4        8                16
//   +--------+--------+----------------+-------------------- - -
//   | length |  type  |       id       | payload: one encoded message (see Message.h)
//   +--------+--------+----------------+-------------------- - -
//
//   length  u32  bytes of the payload, at most kMaxMessageBytes
//   type    u32  1 message, 2 request that wants a reply, 3 reply
//   id      u64  chosen by the sender of a request, the same in its reply; 0 in a plain message
//
// All numbers are little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/MessageConnection.h"
#include "platform/values/Message.h"
#include "platform/values/SharedBytes.h"

namespace platform {

enum class FrameType : std::uint32_t { Message = 1, Request = 2, Reply = 3 };

inline constexpr std::size_t kFrameHeaderBytes = 16;

struct FrameHeader {
  std::uint32_t length = 0;
  FrameType type = FrameType::Message;
  std::uint64_t id = 0;

  std::array<char, kFrameHeaderBytes> encoded() const;
  // Reads exactly kFrameHeaderBytes. Null when it is valid, else what is wrong with it.
  const char* decode(std::string_view bytes);
};

// How a message travels, by its route: as a message, or as the reply to a request. Nothing for the reply to a message
// that wants none.
struct FrameKind {
  FrameType type;
  std::uint64_t id;
};
std::optional<FrameKind> frameOf(const Message& message);

// The message in a frame, with the route by which it is answered. Nothing and *wrong for bytes that are none.
Message messageInFrame(const FrameHeader& header, const SharedSlice& payload, std::string* wrong);

// Cuts what a socket gives into frames. Small frames are cut out of a buffer that many readers share; of a frame that
// is not there as a whole, the reader keeps the beginning, in a buffer that grows as bytes arrive, whatever length the
// header claims.
//
//   std::span<char> space = reader.space(scratch);
//   reader.arrived(recv(space));
//   while (reader.next(&header, &payload) == FrameReader::Next::Frame) ...
//   reader.keepRest();
//
// For one thread at a time.
class FrameReader {
 public:
  enum class Next { Frame, More, Bad };

  // The next frame in what has arrived. More: read on into space(). Bad: wrong() says why, and nothing can follow.
  Next next(FrameHeader* header, SharedSlice* payload);
  const char* wrong() const { return wrong_; }
  // Where the next bytes of the socket belong; only after next() said More, for the arrived() that follows.
  std::span<char> space(std::span<char> scratch);
  void arrived(std::size_t count);
  // Before `scratch` is used by others: keeps what next() has not yet given. Answers whether there is any.
  bool keepRest();

 private:
  bool takeBody(FrameHeader* header, SharedSlice* payload);
  void startBody(const FrameHeader& header);

  std::string_view unread_;  // in scratch, or at the end of rest_
  std::string rest_;
  // The frame that is being read into body_, when bodyHeader_.length is not 0.
  FrameHeader bodyHeader_;
  std::string body_;
  std::size_t bodyArrived_ = 0;
  const char* wrong_ = nullptr;
};

}  // namespace platform
