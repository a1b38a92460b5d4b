#include "platform/PlistEncoding.h"

#include "platform/PlistNodes.h"

namespace platform {

using plist_encoding::appendU32;
using plist_encoding::appendU64;
using plist_encoding::kContainerHead;
using plist_encoding::kKeyHead;
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

// Checks encoded bytes in one pass; answers the depth it met.
class Checker {
 public:
  Checker(std::string_view bytes, std::size_t maxDepth)
      : begin_(bytes.data()), at_(bytes.data()), end_(bytes.data() + bytes.size()), maxDepth_(maxDepth) {}

  bool whole() { return value(0) && (at_ == end_ || fail("bytes behind the value")); }
  std::size_t depth() const { return depth_; }
  DomainError error() const {
    return {PlistErrorDomain, at_ - begin_, std::string(reason_) + " at byte " + std::to_string(at_ - begin_)};
  }

 private:
  bool fail(const char* reason) {
    reason_ = reason;
    return false;
  }
  bool has(std::size_t size) { return static_cast<std::size_t>(end_ - at_) >= size || fail("value is cut off"); }

  bool value(std::size_t depth) {
    if (!has(1)) return false;
    switch (*at_) {
      case 'F':
      case 'T':
        ++at_;
        return true;
      case 'i':
      case 'r':
      case 'd':
        if (!has(9)) return false;
        at_ += 9;
        return true;
      case 'u':
        return largeInteger();
      case 's':
      case 'b':
        if (!has(kTextHead) || !has(kTextHead + std::size_t{readU32(at_ + 1)})) return false;
        at_ += kTextHead + readU32(at_ + 1);
        return true;
      case 'a':
      case 'm':
        return container(depth + 1);
      default:
        return fail("unknown kind of value");
    }
  }

  bool largeInteger() {
    if (!has(9)) return false;
    if ((static_cast<unsigned char>(at_[8]) & 0x80U) == 0) return fail("integer that needs no 64th bit");
    at_ += 9;
    return true;
  }

  bool container(std::size_t depth) {
    if (depth > maxDepth_) return fail("value is nested too deeply");
    if (!has(kContainerHead) || !has(kTextHead + std::size_t{readU32(at_ + 1)})) return false;
    if (depth > depth_) depth_ = depth;
    bool keyed = *at_ == 'm';
    std::uint32_t size = readU32(at_ + 1);
    std::uint32_t count = readU32(at_ + kTextHead);
    if (size < sizeof count) return fail("container is cut off");
    const char* outer = std::exchange(end_, at_ + kTextHead + size);
    at_ += kContainerHead;
    std::string_view previous;
    for (std::uint32_t i = 0; i < count; ++i) {
      if (keyed && !key(previous, i == 0)) return false;
      if (!value(depth)) return false;
    }
    if (at_ != end_) return fail("container does not end where it says");
    end_ = outer;
    return true;
  }

  bool key(std::string_view& previous, bool first) {
    if (!has(kKeyHead) || !has(kKeyHead + std::size_t{readU32(at_)})) return false;
    std::string_view key(at_ + kKeyHead, readU32(at_));
    if (!first && key <= previous) return fail("keys do not ascend");
    at_ += kKeyHead + key.size();
    previous = key;
    return true;
  }

  const char* begin_;
  const char* at_;
  const char* end_;
  std::size_t maxDepth_;
  std::size_t depth_ = 0;
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
