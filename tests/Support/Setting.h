#pragma once

#include <cstdint>
#include <cstdlib>

namespace support {

// The number that an environment variable says: how long a test runs, and which way it takes.
inline std::uint64_t setting(const char* variable, std::uint64_t otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

}  // namespace support
