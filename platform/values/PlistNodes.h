// The nodes of property-list trees, and the byte-level reading of the message encoding. Private to the value types.
#pragma once

#include <cstring>
#include <vector>

#include "platform/values/PlistValue.h"

namespace platform {

struct PlistValue::ArrayNode final : Shared {
  std::vector<PlistValue> elements;
  std::uint64_t encodedSize = 0;
};

struct PlistValue::DictionaryNode final : Shared {
  std::vector<PlistBuilder::Item> items;  // by ascending key
  std::uint64_t encodedSize = 0;
};

namespace plist_encoding {

inline constexpr std::size_t kNumberSize = 9;     // tag, 64 bits
inline constexpr std::size_t kContainerHead = 9;  // tag, size, count
inline constexpr std::size_t kTextHead = 5;       // tag, length
inline constexpr std::size_t kKeyHead = 4;        // length

inline std::uint32_t readU32(const char* at) {
  std::uint32_t value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

inline void appendU32(std::string& out, std::uint32_t value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  out.append(bytes, sizeof bytes);
}

inline void appendU64(std::string& out, std::uint64_t value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  out.append(bytes, sizeof bytes);
}

// Bytes of the value that starts at `at`; the encoding has been checked.
inline std::size_t sizeOfValue(const char* at) {
  switch (*at) {
    case 'F':
    case 'T':
      return 1;
    case 'i':
    case 'u':
    case 'r':
    case 'd':
      return kNumberSize;
    default:
      return kTextHead + readU32(at + 1);
  }
}

}  // namespace plist_encoding

}  // namespace platform
