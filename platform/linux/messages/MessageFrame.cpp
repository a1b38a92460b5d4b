#include "platform/linux/messages/MessageFrame.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace platform {
namespace {

static_assert(std::endian::native == std::endian::little, "the numbers of a frame are copied as they lie");

// A frame that has only begun gets no more memory than this, then twice what has arrived.
constexpr std::size_t kFirstBodyBytes = 4096;

}  // namespace

std::array<char, kFrameHeaderBytes> FrameHeader::encoded() const {
  std::array<char, kFrameHeaderBytes> bytes;
  std::memcpy(bytes.data(), &length, 4);
  std::memcpy(bytes.data() + 4, &type, 4);
  std::memcpy(bytes.data() + 8, &id, 8);
  return bytes;
}

const char* FrameHeader::decode(std::string_view bytes) {
  std::uint32_t number = 0;
  std::memcpy(&length, bytes.data(), 4);
  std::memcpy(&number, bytes.data() + 4, 4);
  std::memcpy(&id, bytes.data() + 8, 8);
  if (number < 1 || number > 3) return "unknown frame type";
  type = static_cast<FrameType>(number);
  if (length > kMaxMessageBytes) return "message too large";
  if (length == 0) return "empty message";
  return nullptr;
}

std::optional<FrameKind> frameOf(const Message& message) {
  switch (message.route()) {
    case Message::Route::NoReplyWanted:
      return std::nullopt;
    case Message::Route::Reply:
      return FrameKind{FrameType::Reply, message.routeID()};
    default:
      return FrameKind{FrameType::Message, 0};
  }
}

Message messageInFrame(const FrameHeader& header, const SharedSlice& payload, std::string* wrong) {
  DomainError error;
  Message message = decodeMessage(payload, &error);
  if (!message) {
    *wrong = "bytes that are no message: " + error.localizedDescription();
  } else if (header.type == FrameType::Request) {
    message.setRoute(Message::Route::Request, header.id);
  } else {
    message.setRoute(Message::Route::NoReplyWanted, 0);
  }
  return message;
}

FrameReader::Next FrameReader::next(FrameHeader* header, SharedSlice* payload) {
  if (wrong_ != nullptr) return Next::Bad;
  if (bodyHeader_.length != 0) return takeBody(header, payload) ? Next::Frame : Next::More;
  if (unread_.size() < kFrameHeaderBytes) return Next::More;
  FrameHeader found;
  wrong_ = found.decode(unread_);
  if (wrong_ != nullptr) return Next::Bad;
  unread_.remove_prefix(kFrameHeaderBytes);
  if (unread_.size() < found.length) {
    startBody(found);
    return Next::More;
  }
  *header = found;
  *payload = SharedSlice::take(std::string(unread_.substr(0, found.length)));
  unread_.remove_prefix(found.length);
  return Next::Frame;
}

void FrameReader::startBody(const FrameHeader& header) {
  bodyHeader_ = header;
  body_.assign(unread_);
  bodyArrived_ = body_.size();
  unread_ = {};
}

bool FrameReader::takeBody(FrameHeader* header, SharedSlice* payload) {
  if (bodyArrived_ < bodyHeader_.length) return false;
  *header = std::exchange(bodyHeader_, {});
  *payload = SharedSlice::take(std::exchange(body_, {}));
  return true;
}

std::span<char> FrameReader::space(std::span<char> scratch) {
  if (bodyHeader_.length != 0) {
    if (bodyArrived_ == body_.size()) {
      body_.resize(std::min<std::size_t>(bodyHeader_.length, std::max(kFirstBodyBytes, 2 * bodyArrived_)));
    }
    return std::span(body_).subspan(bodyArrived_);
  }
  // Less than a header: behind it goes what follows.
  std::copy(unread_.begin(), unread_.end(), scratch.begin());
  unread_ = {scratch.data(), unread_.size()};
  std::string().swap(rest_);
  return scratch.subspan(unread_.size());
}

void FrameReader::arrived(std::size_t count) {
  if (bodyHeader_.length != 0) {
    bodyArrived_ += count;
  } else {
    unread_ = {unread_.data(), unread_.size() + count};
  }
}

bool FrameReader::keepRest() {
  if (unread_.empty()) {
    std::string().swap(rest_);
  } else if (unread_.data() < rest_.data() || unread_.data() >= rest_.data() + rest_.size()) {
    rest_.assign(unread_);
    unread_ = rest_;
  }
  return !unread_.empty();
}

}  // namespace platform
