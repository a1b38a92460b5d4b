// Numbers that a test takes from its environment: how long it runs, or which choices it repeats.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace support {

inline std::uint64_t numberFrom(const char* variable, std::uint64_t otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

}  // namespace support
