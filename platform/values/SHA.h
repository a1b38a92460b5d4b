// The digests SHA-1 and SHA-256 and the keyed digest HMAC-SHA-256, and digests as text.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

using SHA1Digest = std::array<std::uint8_t, 20>;
using SHA256Digest = std::array<std::uint8_t, 32>;

SHA1Digest sha1(std::string_view bytes);
SHA256Digest sha256(std::string_view bytes);
// The bytes of a digest; valid as long as it.
std::string_view asText(const SHA256Digest& digest);

// HMAC-SHA-256 under one key, which is prepared once. Immutable.
class HMACSHA256 {
 public:
  explicit HMACSHA256(std::string_view key);
  SHA256Digest digest(std::string_view bytes) const;

 private:
  std::array<std::uint32_t, 8> inner_, outer_;  // after the block of the key
};

// Two lower-case digits a byte.
template <std::size_t N>
std::string hexText(const std::array<std::uint8_t, N>& digest) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(2 * N);
  for (std::uint8_t byte : digest) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

// The digest that a text of exactly these digits stands for, else nothing.
std::optional<SHA256Digest> sha256FromHex(std::string_view text);

}  // namespace platform
