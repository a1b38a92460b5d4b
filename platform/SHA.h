// The digests SHA-1 and SHA-256 and the keyed digest HMAC-SHA-256.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

using SHA1Digest = std::array<std::uint8_t, 20>;
using SHA256Digest = std::array<std::uint8_t, 32>;

SHA1Digest sha1(std::string_view bytes);
SHA256Digest sha256(std::string_view bytes);
SHA256Digest hmacSHA256(std::string_view key, std::string_view bytes);

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

}  // namespace platform
