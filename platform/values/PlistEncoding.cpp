#include "platform/values/PlistEncoding.h"

#include <algorithm>

#include "platform/values/PlistNodes.h"

namespace platform {

using plist_encoding::appendU32;
using plist_encoding::appendU64;
using plist_encoding::kContainerHead;
using plist_encoding::kKeyHead;
using plist_encoding::kNumberSize;
using plist_encoding::kTextHead;
using plist_encoding::readU32;

namespace {

// From this size on a part is sent from where it lies; below, copying is cheaper than one more piece.
constexpr std::size_t kReferencedPartSize = 1024;
// Bytes between referenced parts share a buffer of about this size: one allocation for hundreds of forms, and small
// enough that the allocator hands the same memory out again for the next reply.
constexpr std::size_t kOwnBufferSize = std::size_t{64} << 10;

}  // namespace

SharedSlice Rope::flat() const {
  if (pieces_.size() == 1) return pieces_.front();
  std::string bytes;
  bytes.reserve(size_);
  for (const SharedSlice& piece : pieces_) bytes += piece.view();
  return SharedSlice::take(std::move(bytes));
}

void PlistEncoder::raw(const SharedSlice& slice) {
  if (slice.size() < kReferencedPartSize || slice.owner() == nullptr) {
    own_ += slice.view();
    return;
  }
  references_.push_back({own_.size(), slice});
  referencedSize_ += slice.size();
  if (own_.size() < kOwnBufferSize) return;
  flush();
  own_.reserve(kOwnBufferSize + kReferencedPartSize);
}

void PlistEncoder::flush() {
  const SharedSlice own = SharedSlice::take(std::exchange(own_, std::string()));
  std::size_t from = 0;
  for (Reference& reference : references_) {
    rope_.append(own.part(from, reference.offset - from));
    rope_.append(std::move(reference.part));
    from = reference.offset;
  }
  rope_.append(own.part(from, own.size() - from));
  references_.clear();
  referencedSize_ = 0;
}

Rope PlistEncoder::take() {
  flush();
  return std::exchange(rope_, Rope());
}

void PlistEncoder::arrayHead(std::uint64_t contentSize, std::uint32_t count) {
  own_ += 'a';
  appendU32(own_, static_cast<std::uint32_t>(contentSize + sizeof count));
  appendU32(own_, count);
}

void PlistEncoder::dictionaryHead(std::uint64_t contentSize, std::uint32_t count) {
  own_ += 'm';
  appendU32(own_, static_cast<std::uint32_t>(contentSize + sizeof count));
  appendU32(own_, count);
}

void PlistEncoder::key(std::string_view key) {
  appendU32(own_, static_cast<std::uint32_t>(key.size()));
  own_ += key;
}

void PlistEncoder::value(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::Nothing:
      break;
    case PlistValue::Kind::Boolean:
      own_ += value.boolValue() ? 'T' : 'F';
      break;
    case PlistValue::Kind::Integer:
      own_ += value.isLargeUnsigned() ? 'u' : 'i';
      appendU64(own_, value.uintValue());
      break;
    case PlistValue::Kind::Real:
    case PlistValue::Kind::Date: {
      double number = value.isDate() ? value.dateValue() : value.realValue();
      std::uint64_t bits;
      std::memcpy(&bits, &number, sizeof bits);
      own_ += value.isDate() ? 'd' : 'r';
      appendU64(own_, bits);
      break;
    }
    case PlistValue::Kind::String:
    case PlistValue::Kind::Data: {
      SharedSlice text = value.slice();
      own_ += value.isString() ? 's' : 'b';
      appendU32(own_, static_cast<std::uint32_t>(text.size()));
      raw(text);
      break;
    }
    default:
      container(value);
  }
}

void PlistEncoder::container(const PlistValue& value) {
  if (SharedSlice encoded = value.encoded(); encoded.size() != 0) {
    raw(encoded);
    return;
  }
  std::uint64_t content = value.encodedSize() - kContainerHead;
  auto count = static_cast<std::uint32_t>(value.size());
  if (value.isDictionary()) {
    dictionaryHead(content, count);
  } else {
    arrayHead(content, count);
  }
  for (PlistCursor cursor(value); !cursor.atEnd(); cursor.next()) {
    if (value.isDictionary()) key(cursor.key());
    this->value(cursor.value());
  }
}

Rope encodePlist(const PlistValue& value) {
  PlistEncoder encoder;
  encoder.value(value);
  return encoder.take();
}

namespace {

std::uint64_t bigEndianWord(const char* bytes) {
  std::uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return __builtin_bswap64(word);
}

// Whether `first` comes before `second`. Keys are short and mostly differ late, so that a call to compare them would be
// half the time of checking a reply: they are compared a word at a time, the last of which overlaps.
bool ascend(std::string_view first, std::string_view second) {
  const std::size_t common = std::min(first.size(), second.size());
  if (common < sizeof(std::uint64_t)) return first < second;
  const std::size_t last = common - sizeof(std::uint64_t);
  for (std::size_t at = 0;; at = std::min(at + sizeof(std::uint64_t), last)) {
    const std::uint64_t a = bigEndianWord(first.data() + at);
    const std::uint64_t b = bigEndianWord(second.data() + at);
    if (a != b) return a < b;
    if (at == last) return first.size() < second.size();
  }
}

// Checks encoded bytes in one pass; answers the depth it met. Every step takes the place of what it checks and the end
// of what encloses it, and answers the place behind, or null: kept in registers, that is what makes the check cheap.
class Checker {
 public:
  Checker(std::string_view bytes, std::size_t maxDepth)
      : begin_(bytes.data()), end_(bytes.data() + bytes.size()), maxDepth_(maxDepth) {}

  bool whole() {
    const char* behind = value(begin_, end_, 0);
    if (behind != nullptr && behind != end_) behind = fail(behind, "bytes behind the value");
    return behind != nullptr;
  }
  std::size_t depth() const { return depth_; }
  DomainError error() const {
    return {PlistErrorDomain, wrong_ - begin_, std::string(reason_) + " at byte " + std::to_string(wrong_ - begin_)};
  }

 private:
  const char* fail(const char* at, const char* reason) {
    wrong_ = at;
    reason_ = reason;
    return nullptr;
  }
  static bool has(const char* at, const char* end, std::size_t size) {
    return static_cast<std::size_t>(end - at) >= size;
  }
  const char* cutOff(const char* at) { return fail(at, "value is cut off"); }

  const char* value(const char* at, const char* end, std::size_t depth) {
    if (at == end) return cutOff(at);
    switch (*at) {
      case 'F':
      case 'T':
        return at + 1;
      case 'i':
      case 'r':
      case 'd':
        return has(at, end, kNumberSize) ? at + kNumberSize : cutOff(at);
      case 'u':
        if (!has(at, end, kNumberSize)) return cutOff(at);
        if ((static_cast<unsigned char>(at[kNumberSize - 1]) & 0x80U) == 0) {
          return fail(at, "integer that needs no 64th bit");
        }
        return at + kNumberSize;
      case 's':
      case 'b': {
        if (!has(at, end, kTextHead)) return cutOff(at);
        const std::size_t size = kTextHead + std::size_t{readU32(at + 1)};
        return has(at, end, size) ? at + size : cutOff(at);
      }
      case 'a':
      case 'm':
        return container(at, end, depth + 1);
      default:
        return fail(at, "unknown kind of value");
    }
  }

  // Not a part of value(), so that checking a number or a text is no call.
  [[gnu::noinline]] const char* container(const char* at, const char* outer, std::size_t depth) {
    if (depth > maxDepth_) return fail(at, "value is nested too deeply");
    if (!has(at, outer, kContainerHead) || !has(at, outer, kTextHead + std::size_t{readU32(at + 1)})) return cutOff(at);
    if (depth > depth_) depth_ = depth;
    const bool keyed = *at == 'm';
    const std::uint32_t size = readU32(at + 1);
    const std::uint32_t count = readU32(at + kTextHead);
    if (size < sizeof count) return fail(at, "container is cut off");
    const char* end = at + kTextHead + size;
    at += kContainerHead;
    std::string_view previous;
    for (std::uint32_t i = 0; i < count; ++i) {
      if (keyed) {
        if (!has(at, end, kKeyHead) || !has(at, end, kKeyHead + std::size_t{readU32(at)})) return cutOff(at);
        const std::string_view key(at + kKeyHead, readU32(at));
        if (i != 0 && !ascend(previous, key)) return fail(at, "keys do not ascend");
        at += kKeyHead + key.size();
        previous = key;
      }
      at = value(at, end, depth);
      if (at == nullptr) return nullptr;
    }
    // The end that the head told, not the one that was arrived at: what follows can be looked at before all of this is.
    return at == end ? end : fail(at, "container does not end where it says");
  }

  const char* begin_;
  const char* end_;
  std::size_t maxDepth_;
  std::size_t depth_ = 0;
  const char* wrong_ = nullptr;
  const char* reason_ = "";
};

}  // namespace

PlistValue decodePlist(const SharedSlice& bytes, DomainError* error, std::size_t maxDepth) {
  if (bytes.size() > kPlistMaxBytes) {
    if (error != nullptr) *error = {PlistErrorDomain, 0, "property list is too large"};
    return {};
  }
  Checker checker(bytes.view(), maxDepth);
  if (!checker.whole()) {
    if (error != nullptr) *error = checker.error();
    return {};
  }
  return PlistCursor::valueOf(bytes, checker.depth());
}

PlistValue compactPlist(const PlistValue& value) {
  if (!value.isArray() && !value.isDictionary()) return value;
  std::string bytes;
  bytes.reserve(value.encodedSize());
  const Rope rope = encodePlist(value);
  for (const SharedSlice& piece : rope.pieces()) bytes += piece.view();
  return PlistCursor::valueOf(SharedSlice::take(std::move(bytes)), value.depth());
}

}  // namespace platform
