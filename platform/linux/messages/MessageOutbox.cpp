#include "platform/linux/messages/MessageOutbox.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace platform {
namespace {

// Slices written with one call; a large reply has one or a few per form.
constexpr std::size_t kSlicesPerWrite = 256;
// What a kept frame costs beside its bytes, so that many small ones count as what they take.
constexpr std::uint64_t kKeptFrameCost = 256;
// Two replies of the largest size may be kept, whatever their frames cost.
constexpr std::uint64_t kMaxCost = kMaxKeptBytesPerConnection + 2 * (kFrameHeaderBytes + kKeptFrameCost);

}  // namespace

MessageOutbox::Result MessageOutbox::send(int socket, FrameType type, std::uint64_t id, Rope payload) {
  const bool first = frames_.empty();
  Outgoing& frame = frames_.emplace_back();
  frame.header = FrameHeader{static_cast<std::uint32_t>(payload.size()), type, id}.encoded();
  frame.left = kFrameHeaderBytes + payload.size();
  frame.payload = std::move(payload);
  if (first) {
    const Result result = write(socket);
    if (result != Result::Kept) return result;
  }
  if (keep(frames_.back())) return Result::Kept;
  frames_.pop_back();
  return Result::TooMuch;
}

bool MessageOutbox::keep(Outgoing& frame) {
  const std::uint64_t cost = frame.left + kKeptFrameCost;
  if (keptBytes_ + cost > kMaxCost) return false;
  if (ticket_ != nullptr && !ticket_->keep(cost)) return false;
  keptBytes_ += cost;
  frame.counted = true;
  return true;
}

MessageOutbox::Result MessageOutbox::write(int socket) {
  while (!frames_.empty()) {
    std::array<iovec, kSlicesPerWrite> slices;
    msghdr message{};
    message.msg_iov = slices.data();
    message.msg_iovlen = gather(slices);
    const ssize_t sent = ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      written(static_cast<std::uint64_t>(sent));
    } else if (errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM) {
      return Result::Kept;
    } else if (errno != EINTR) {
      return Result::Broken;
    }
  }
  return Result::Empty;
}

// What is to be written next, of as many frames as there is room for.
std::size_t MessageOutbox::gather(std::span<iovec> slices) const {
  std::size_t count = 0;
  for (const Outgoing& frame : frames_) {
    std::size_t offset = frame.offset;
    for (std::size_t piece = frame.piece; piece <= frame.payload.pieces().size(); ++piece, offset = 0) {
      if (count == slices.size()) return count;
      const std::string_view bytes = bytesOf(frame, piece).substr(offset);
      slices[count++] = {const_cast<char*>(bytes.data()), bytes.size()};
    }
  }
  return count;
}

void MessageOutbox::written(std::uint64_t bytes) {
  std::uint64_t freed = 0;
  while (bytes != 0) {
    Outgoing& frame = frames_.front();
    const std::uint64_t step = std::min(bytes, frame.left);
    bytes -= step;
    frame.left -= step;
    if (frame.counted) freed += step + (frame.left == 0 ? kKeptFrameCost : 0);
    if (frame.left == 0) {
      frames_.pop_front();
      continue;
    }
    for (frame.offset += step; frame.offset >= bytesOf(frame, frame.piece).size(); ++frame.piece) {
      frame.offset -= bytesOf(frame, frame.piece).size();
    }
  }
  if (freed == 0) return;
  keptBytes_ -= freed;
  if (ticket_ != nullptr) ticket_->release(freed);
}

std::string_view MessageOutbox::bytesOf(const Outgoing& frame, std::size_t piece) {
  if (piece == 0) return {frame.header.data(), frame.header.size()};
  return frame.payload.pieces()[piece - 1].view();
}

void MessageOutbox::clear() {
  frames_.clear();
  if (keptBytes_ == 0) return;
  if (ticket_ != nullptr) ticket_->release(keptBytes_);
  keptBytes_ = 0;
}

}  // namespace platform
