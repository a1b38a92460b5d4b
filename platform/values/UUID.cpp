#include "platform/values/UUID.h"

#include <random>

namespace platform {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool hyphenBefore(std::size_t byte) { return byte == 4 || byte == 6 || byte == 8 || byte == 10; }

}  // namespace

UUID UUID::random() {
  // The random device reads the kernel's generator: a hold token must not be guessable.
  static thread_local std::random_device device;
  UUID uuid;
  for (std::size_t i = 0; i < uuid.bytes.size(); i += sizeof(unsigned)) {
    unsigned word = device();
    std::memcpy(&uuid.bytes[i], &word, sizeof word);
  }
  uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0F) | 0x40);  // version 4
  uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3F) | 0x80);  // the usual variant
  return uuid;
}

std::optional<UUID> UUID::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  UUID uuid;
  std::size_t at = 0;
  for (std::size_t i = 0; i < uuid.bytes.size(); ++i) {
    if (hyphenBefore(i) && text[at++] != '-') return std::nullopt;
    int high = hexDigit(text[at]);
    int low = hexDigit(text[at + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    uuid.bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
    at += 2;
  }
  return uuid;
}

std::string UUID::text() const {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (hyphenBefore(i)) text += '-';
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace platform
