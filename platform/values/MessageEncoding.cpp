// The wire form of messages: Message.h has the picture.
#include <algorithm>
#include <cstring>

#include "platform/values/Message.h"
#include "platform/values/PlistNodes.h"

namespace platform {

using plist_encoding::appendU32;
using plist_encoding::appendU64;
using plist_encoding::kContainerHead;
using plist_encoding::kKeyHead;
using plist_encoding::kTextHead;
using plist_encoding::readU32;

namespace {

constexpr std::size_t kUUIDSize = 1 + sizeof(UUID);
// Entries for which room is made at once; a count beyond is believed as the entries come.
constexpr std::size_t kEntriesOfMostMessages = 4;

class Encoder {
 public:
  void value(const Message& message) {
    switch (message.kind()) {
      case Message::Kind::Nothing:
      case Message::Kind::Error:
        break;  // never part of a message
      case Message::Kind::Boolean:
        own_ += *message.as<bool>() ? 'T' : 'F';
        break;
      case Message::Kind::Integer:
        number('i', static_cast<std::uint64_t>(*message.as<std::int64_t>()));
        break;
      case Message::Kind::Unsigned:
        number('u', *message.as<std::uint64_t>());
        break;
      case Message::Kind::String:
        text('s', *message.as<std::string>());
        break;
      case Message::Kind::Data:
        text('b', message.as<Message::Bytes>()->bytes);
        break;
      case Message::Kind::UUID: {
        own_ += 'g';
        const auto& bytes = message.as<UUID>()->bytes;
        own_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        break;
      }
      case Message::Kind::Array:
        array(*message.as<Message::Array>());
        break;
      case Message::Kind::Dictionary:
        dictionary(*message.as<Message::Dictionary>());
        break;
      case Message::Kind::Plist:
        plist(*message.as<Rope>());
        break;
    }
  }

  // Sizes of containers were left open until their content was known.
  Rope take() {
    Rope rope;
    SharedSlice own = SharedSlice::take(std::move(own_));
    std::size_t from = 0;
    for (const auto& [place, inserted] : inserted_) {
      rope.append(own.part(from, place - from));
      rope.append(*inserted);
      from = place;
    }
    rope.append(own.part(from, own.size() - from));
    return rope;
  }

 private:
  void number(char tag, std::uint64_t bits) {
    own_ += tag;
    appendU64(own_, bits);
  }
  void text(char tag, std::string_view bytes) {
    own_ += tag;
    appendU32(own_, static_cast<std::uint32_t>(bytes.size()));
    own_ += bytes;
  }
  std::uint64_t written() const { return own_.size() + insertedSize_; }

  template <class Content>
  void container(char tag, std::size_t count, const Content& content) {
    own_ += tag;
    std::size_t sizeField = own_.size();
    appendU32(own_, 0);
    std::uint64_t start = written();
    appendU32(own_, static_cast<std::uint32_t>(count));
    content();
    auto size = static_cast<std::uint32_t>(written() - start);
    std::memcpy(own_.data() + sizeField, &size, sizeof size);
  }
  void array(const Message::Array& elements) {
    container('a', elements.size(), [&] {
      for (const Message& element : elements) value(element);
    });
  }
  void dictionary(const Message::Dictionary& entries) {
    container('m', entries.size(), [&] {
      for (const auto& [key, element] : entries) {
        appendU32(own_, static_cast<std::uint32_t>(key.size()));
        own_ += key;
        value(element);
      }
    });
  }
  void plist(const Rope& encoded) {
    own_ += 'p';
    appendU32(own_, static_cast<std::uint32_t>(encoded.size()));
    inserted_.emplace_back(own_.size(), &encoded);
    insertedSize_ += encoded.size();
  }

  std::string own_;
  std::vector<std::pair<std::size_t, const Rope*>> inserted_;  // property lists, by their place in own_
  std::uint64_t insertedSize_ = 0;
};

class Decoder {
 public:
  explicit Decoder(const SharedSlice& bytes) : bytes_(bytes), at_(bytes.view().data()), end_(at_ + bytes.size()) {}

  bool whole(Message& out) { return value(out, 0) && (at_ == end_ || fail("bytes behind the message")); }
  DomainError error() const {
    std::int64_t offset = at_ - bytes_.view().data();
    return {PlistErrorDomain, offset, reason_ + " at byte " + std::to_string(offset)};
  }

 private:
  bool fail(std::string reason) {
    reason_ = std::move(reason);
    return false;
  }
  bool has(std::size_t size) { return static_cast<std::size_t>(end_ - at_) >= size || fail("message is cut off"); }

  bool value(Message& out, std::size_t depth) {
    if (++elements_ > kMessageMaxElements) return fail("message has too many elements");
    if (!has(1)) return false;
    switch (*at_) {
      case 'F':
      case 'T':
        out = *at_++ == 'T';
        return true;
      case 'i':
      case 'u':
        return number(out);
      case 's':
      case 'b':
        return text(out);
      case 'g':
        return uuid(out);
      case 'a':
      case 'm':
        return container(out, depth + 1);
      case 'p':
        return plist(out);
      default:
        return fail("unknown kind of value");
    }
  }

  bool number(Message& out) {
    if (!has(9)) return false;
    std::uint64_t bits;
    std::memcpy(&bits, at_ + 1, sizeof bits);
    out = *at_ == 'u' ? Message(bits) : Message(static_cast<std::int64_t>(bits));
    at_ += 9;
    return true;
  }
  // The bytes behind a tag and a length; moves behind them.
  bool counted(std::string_view& bytes) {
    if (!has(kTextHead) || !has(kTextHead + std::size_t{readU32(at_ + 1)})) return false;
    bytes = std::string_view(at_ + kTextHead, readU32(at_ + 1));
    at_ += kTextHead + bytes.size();
    return true;
  }
  bool text(Message& out) {
    bool isString = *at_ == 's';
    std::string_view bytes;
    if (!counted(bytes)) return false;
    out = isString ? Message(bytes) : Message::data(bytes);
    return true;
  }
  bool uuid(Message& out) {
    if (!has(kUUIDSize)) return false;
    UUID uuid;
    std::memcpy(uuid.bytes.data(), at_ + 1, sizeof uuid.bytes);
    out = uuid;
    at_ += kUUIDSize;
    return true;
  }
  bool plist(Message& out) {
    std::string_view bytes;
    const char* start = at_;
    if (!counted(bytes)) return false;
    SharedSlice slice(bytes_.owner(), bytes);
    DomainError error;
    if (!decodePlist(slice, &error, kPlistMaxMessageDepth)) {
      at_ = start + kTextHead + error.code;
      return fail("bad property list: " + error.localizedDescription());
    }
    Rope rope;
    rope.append(slice);
    out = std::move(rope);
    return true;
  }

  bool container(Message& out, std::size_t depth) {
    if (depth > kMessageMaxDepth) return fail("message is nested too deeply");
    if (!has(kContainerHead) || !has(kTextHead + std::size_t{readU32(at_ + 1)})) return false;
    bool keyed = *at_ == 'm';
    std::uint32_t size = readU32(at_ + 1);
    std::uint32_t count = readU32(at_ + kTextHead);
    if (size < sizeof count) return fail("container is cut off");
    const char* outer = std::exchange(end_, at_ + kTextHead + size);
    at_ += kContainerHead;
    if (!(keyed ? dictionary(out, count, depth) : array(out, count, depth))) return false;
    if (at_ != end_) return fail("container does not end where it says");
    end_ = outer;
    return true;
  }
  bool array(Message& out, std::uint32_t count, std::size_t depth) {
    // An element has at least a byte, so a count beyond the bytes left is not believed.
    if (!has(count)) return false;
    out = Message::array();
    for (std::uint32_t i = 0; i < count; ++i) {
      Message element;
      if (!value(element, depth)) return false;
      out.append(std::move(element));
    }
    return true;
  }
  bool dictionary(Message& out, std::uint32_t count, std::size_t depth) {
    Message::Dictionary entries;
    entries.reserve(std::min<std::size_t>(count, kEntriesOfMostMessages));
    for (std::uint32_t i = 0; i < count; ++i) {
      if (!has(kKeyHead) || !has(kKeyHead + std::size_t{readU32(at_)})) return false;
      std::string_view key(at_ + kKeyHead, readU32(at_));
      if (i > 0 && key <= entries.back().first) return fail("keys do not ascend");
      at_ += kKeyHead + key.size();
      if (!value(entries.emplace_back(key, Message()).second, depth)) return false;
    }
    out = Message::fromEntries(std::move(entries));
    return true;
  }

  const SharedSlice& bytes_;
  const char* at_;
  const char* end_;
  std::size_t elements_ = 0;
  std::string reason_;
};

}  // namespace

Rope encodeMessage(const Message& message) {
  Encoder encoder;
  encoder.value(message);
  return encoder.take();
}

Message decodeMessage(const SharedSlice& bytes, DomainError* error) {
  Decoder decoder(bytes);
  Message message;
  if (decoder.whole(message)) return message;
  if (error != nullptr) *error = decoder.error();
  return {};
}

}  // namespace platform
