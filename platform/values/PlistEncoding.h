// The message encoding of a property list: position-independent bytes, so that parts that did not change are copied
// or sent as they lie. All numbers are little-endian, nothing is aligned.
//
//   value      = 'F' | 'T'                         false, true
//              | 'i' int64 | 'u' uint64            integer; 'u' only above the largest int64
//              | 'r' double | 'd' double           real; date in seconds since 1970 UTC
//              | 's' u32 length, bytes             string, UTF-8 (not checked)
//              | 'b' u32 length, bytes             data
//              | 'a' u32 size, u32 count, values   array; size counts the bytes behind the size field
//              | 'm' u32 size, u32 count, entries  dictionary; the same
//   entry      = u32 length, key bytes, value      keys strictly ascending by their bytes
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/DomainError.h"
#include "platform/values/PlistValue.h"
#include "platform/values/SharedBytes.h"

namespace platform {

// Bytes that are sent one after another, each with what keeps it alive.
class Rope {
 public:
  void append(SharedSlice slice) {
    size_ += slice.size();
    if (slice.size() != 0) pieces_.push_back(std::move(slice));
  }
  void append(const Rope& other) {
    for (const SharedSlice& piece : other.pieces_) append(piece);
  }
  std::uint64_t size() const { return size_; }
  const std::vector<SharedSlice>& pieces() const { return pieces_; }
  // One slice with all bytes; copies unless there is just one piece.
  SharedSlice flat() const;

 private:
  std::vector<SharedSlice> pieces_;
  std::uint64_t size_ = 0;
};

// Appends to bytes, and refers to large parts that already are encoded where they lie.
class PlistEncoder {
 public:
  void value(const PlistValue& value);
  // The head of a container whose content, `contentSize` bytes, follows by other calls.
  void dictionaryHead(std::uint64_t contentSize, std::uint32_t count);
  void arrayHead(std::uint64_t contentSize, std::uint32_t count);
  void key(std::string_view key);
  void raw(std::string_view bytes) { own_.append(bytes); }
  void raw(const SharedSlice& slice);
  // Bytes so far.
  std::uint64_t size() const { return rope_.size() + own_.size() + referencedSize_; }
  Rope take();

 private:
  struct Reference {
    std::size_t offset;  // in own_
    SharedSlice part;
  };

  void container(const PlistValue& value);
  void flush();
  // What is not yet in the rope: bytes, and the parts that stand between them.
  std::string own_;
  std::vector<Reference> references_;
  std::uint64_t referencedSize_ = 0;
  Rope rope_;
};

// Encoding of a value (never nothing).
Rope encodePlist(const PlistValue& value);

// Checks the encoding of exactly one value and answers it, a container without building it. Bytes that are no valid
// encoding, or nested deeper than maxDepth, answer nothing and an error with the offset.
PlistValue decodePlist(const SharedSlice& bytes, DomainError* error = nullptr,
                       std::size_t maxDepth = kPlistMaxInputDepth);

// A copy of the value whose containers are one range of encoding: the compact form to keep.
PlistValue compactPlist(const PlistValue& value);

}  // namespace platform
