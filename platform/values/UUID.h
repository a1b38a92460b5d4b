// The 16 bytes that name a registration, a hold or anything else that must not be confused with another.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

struct UUID {
  std::array<std::uint8_t, 16> bytes{};

  // A fresh random (version 4) UUID.
  static UUID random();
  // Reads the 8-4-4-4-12 form in either letter case; nothing for any other text.
  static std::optional<UUID> parse(std::string_view text);

  // The canonical form: 8-4-4-4-12 upper-case hexadecimal digits.
  std::string text() const;

  friend auto operator<=>(const UUID&, const UUID&) = default;  // NOLINT(modernize-use-nullptr)
};

}  // namespace platform

template <>
struct std::hash<platform::UUID> {
  // Every UUID that is hashed here was drawn at random, so its first bytes are as good as any digest.
  std::size_t operator()(const platform::UUID& uuid) const noexcept {
    std::size_t value;
    std::memcpy(&value, uuid.bytes.data(), sizeof value);
    return value;
  }
};
