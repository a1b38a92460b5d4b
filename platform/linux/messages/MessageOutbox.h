// What one socket has still to be sent: frames, as slices of their messages, in order. Written at once as far as the
// socket takes them, several with one call; the rest is kept, up to a bound, and written when the socket takes more.
//
//   send() --all written--> empty          flush() --all written--> empty
//       `----some left----> kept               `------some left---> kept
//
// Copies nothing of a message: what is kept shares its parts. For one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string_view>

#include "platform/linux/messages/MessageBudget.h"
#include "platform/linux/messages/MessageFrame.h"
#include "platform/values/SharedBytes.h"

struct iovec;

namespace platform {

// Bytes kept for a peer before it is cut off: two messages of the largest size.
inline constexpr std::uint64_t kMaxKeptBytesPerConnection = 2 * kMaxMessageBytes;

class MessageOutbox {
 public:
  enum class Result {
    Empty,    // all is written
    Kept,     // the socket takes no more for now
    TooMuch,  // the socket takes no more, and no more may be kept; the frame may be lost
    Broken,   // the socket can never be written again
  };

  // What is kept counts on the ticket, which must live as long as something is kept; null: on nobody's.
  explicit MessageOutbox(MessageBudget::Ticket* ticket) : ticket_(ticket) {}
  ~MessageOutbox() { clear(); }
  MessageOutbox(const MessageOutbox&) = delete;
  MessageOutbox& operator=(const MessageOutbox&) = delete;

  Result send(int socket, FrameType type, std::uint64_t id, Rope payload);
  Result flush(int socket) { return write(socket); }
  void clear();

  bool empty() const { return frames_.empty(); }
  // What is kept, with something for each frame.
  std::uint64_t keptBytes() const { return keptBytes_; }

 private:
  // A frame of which something is still to be written.
  struct Outgoing {
    std::array<char, kFrameHeaderBytes> header;
    Rope payload;
    std::uint64_t left = 0;
    std::size_t piece = 0;   // the next slice to write; 0 is the header, 1 the first of the payload
    std::size_t offset = 0;  // in that slice
    bool counted = false;    // among what is kept
  };

  bool keep(Outgoing& frame);
  Result write(int socket);
  std::size_t gather(std::span<iovec> slices) const;
  void written(std::uint64_t bytes);
  static std::string_view bytesOf(const Outgoing& frame, std::size_t piece);

  MessageBudget::Ticket* const ticket_;
  std::deque<Outgoing> frames_;
  std::uint64_t keptBytes_ = 0;
};

}  // namespace platform
