#include "platform/values/PlistText.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace platform {

namespace {

constexpr double kFirstSecond = -62135596800.0;  // 0001-01-01T00:00:00Z
constexpr double kLastSecond = 253402300799.0;   // 9999-12-31T23:59:59Z
constexpr std::int64_t kSecondsPerDay = 86400;

// An error is one line; that much of a text is enough to find it again.
constexpr std::size_t kQuotedMaxBytes = 60;

constexpr std::string_view kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kNoDigit = 0xFF;
constexpr std::uint8_t kBlank = 0xFE;

constexpr std::array<std::uint8_t, 256> makeBase64Values() {
  std::array<std::uint8_t, 256> values{};
  values.fill(kNoDigit);
  for (std::size_t digit = 0; digit < kBase64Digits.size(); ++digit) {
    values[static_cast<std::uint8_t>(kBase64Digits[digit])] = static_cast<std::uint8_t>(digit);
  }
  for (char blank : {' ', '\t', '\n', '\r'}) values[static_cast<std::uint8_t>(blank)] = kBlank;
  return values;
}
constexpr std::array<std::uint8_t, 256> kBase64Values = makeBase64Values();

// The number that exactly fills `length` digits at `at`; -1 when there are others than digits.
int digits(std::string_view text, std::size_t at, std::size_t length) {
  int number = 0;
  for (char c : text.substr(at, length)) {
    if (c < '0' || c > '9') return -1;
    number = number * 10 + (c - '0');
  }
  return number;
}

void appendDigits(std::string& out, unsigned number, std::size_t width) {
  char buffer[16];
  const char* end = std::to_chars(buffer, buffer + sizeof buffer, number).ptr;
  std::size_t length = static_cast<std::size_t>(end - buffer);
  if (length < width) out.append(width - length, '0');
  out.append(buffer, length);
}

// The bytes of the character at the start of the text, which is not ASCII; 0 when it is no valid UTF-8 or no character
// of XML.
std::size_t wideCharacterLength(std::string_view text) {
  auto byte = [&](std::size_t index) { return static_cast<std::uint8_t>(text[index]); };
  const std::uint8_t first = byte(0);
  const std::size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
  if (length == 0 || text.size() < length) return 0;
  char32_t character = first & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    character = (character << 6) | (byte(i) & 0x3FU);
  }
  constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  return character >= kLeast[length] && isXMLCharacter(character) ? length : 0;
}

// Whether eight bytes are ASCII characters of XML. Each sum below stays within its byte, as none has its high bit set.
bool plainWord(const char* bytes) {
  constexpr std::uint64_t kEach = 0x0101010101010101U;
  constexpr std::uint64_t kHighBits = kEach * 0x80;
  std::uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  auto below = [&](std::uint64_t words, std::uint64_t limit) { return ~(words + kEach * (0x80 - limit)) & kHighBits; };
  auto equal = [&](char c) { return below(word ^ (kEach * static_cast<std::uint8_t>(c)), 1); };
  if ((word & kHighBits) != 0) return false;
  return (below(word, 0x20) & ~(equal('\t') | equal('\n') | equal('\r'))) == 0;
}

}  // namespace

std::optional<double> parseISODate(std::string_view text) {
  constexpr std::string_view kShape = "0000-00-00T00:00:00Z";
  if (text.size() != kShape.size()) return std::nullopt;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    if (kShape[i] != '0' && text[i] != kShape[i]) return std::nullopt;
  }
  const int year = digits(text, 0, 4), month = digits(text, 5, 2), day = digits(text, 8, 2);
  const int hour = digits(text, 11, 2), minute = digits(text, 14, 2), second = digits(text, 17, 2);
  if (year < 1 || month < 1 || day < 1 || hour < 0 || minute < 0 || second < 0) return std::nullopt;
  if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) return std::nullopt;
  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  const int secondOfDay = (hour * 60 + minute) * 60 + second;
  return static_cast<double>(days * kSecondsPerDay + secondOfDay);
}

std::optional<double> wholeSecondDate(double secondsSince1970) {
  const double whole = std::floor(secondsSince1970);
  if (!(whole >= kFirstSecond && whole <= kLastSecond)) return std::nullopt;
  return whole;
}

bool appendISODate(std::string& out, double secondsSince1970) {
  const std::optional<double> whole = wholeSecondDate(secondsSince1970);
  if (!whole) return false;
  const std::int64_t seconds = static_cast<std::int64_t>(*whole);
  const std::int64_t days = (seconds >= 0 ? seconds : seconds - (kSecondsPerDay - 1)) / kSecondsPerDay;
  const unsigned rest = static_cast<unsigned>(seconds - days * kSecondsPerDay);
  const std::chrono::year_month_day date{std::chrono::sys_days(std::chrono::days(days))};
  appendDigits(out, static_cast<unsigned>(static_cast<int>(date.year())), 4);
  appendDigits(out += '-', static_cast<unsigned>(date.month()), 2);
  appendDigits(out += '-', static_cast<unsigned>(date.day()), 2);
  appendDigits(out += 'T', rest / 3600, 2);
  appendDigits(out += ':', rest / 60 % 60, 2);
  appendDigits(out += ':', rest % 60, 2);
  out += 'Z';
  return true;
}

std::optional<std::string> decodeBase64(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 3);
  std::uint32_t bits = 0;
  unsigned digitCount = 0;  // in the group of four that is being read, with padding
  unsigned padding = 0;
  for (char c : text) {
    const std::uint8_t value = kBase64Values[static_cast<std::uint8_t>(c)];
    if (value == kBlank) continue;
    if (c == '=') {
      if (digitCount < 2 || ++padding > 2) return std::nullopt;
    } else if (value == kNoDigit || padding != 0) {
      return std::nullopt;
    }
    bits = (bits << 6) | (c == '=' ? 0U : value);
    if (++digitCount < 4) continue;
    const char group[] = {static_cast<char>(bits >> 16), static_cast<char>(bits >> 8), static_cast<char>(bits)};
    bytes.append(group, 3 - padding);
    bits = 0;
    digitCount = 0;
  }
  if (digitCount != 0) return std::nullopt;
  return bytes;
}

void appendBase64(std::string& out, std::string_view bytes) {
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::string_view group = bytes.substr(at, 3);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      bits = (bits << 8) | (i < group.size() ? static_cast<std::uint8_t>(group[i]) : 0U);
    }
    char text[] = {kBase64Digits[bits >> 18], kBase64Digits[bits >> 12 & 63], kBase64Digits[bits >> 6 & 63],
                   kBase64Digits[bits & 63]};
    for (std::size_t i = group.size() + 1; i < 4; ++i) text[i] = '=';
    out.append(text, 4);
  }
}

bool isXMLCharacter(char32_t character) {
  if (character < 0x20) return character == '\t' || character == '\n' || character == '\r';
  if (character >= 0xD800 && character < 0xE000) return false;
  return character <= 0x10FFFF && character != 0xFFFE && character != 0xFFFF;
}

std::size_t xmlTextPrefix(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size()) {
    if (text.size() - at >= 8 && plainWord(text.data() + at)) {
      at += 8;
      continue;
    }
    // One word's worth of single steps before the fast test is worth another try.
    const std::size_t stop = at + 8;
    while (at < stop && at < text.size()) {
      const std::uint8_t byte = static_cast<std::uint8_t>(text[at]);
      const std::size_t length = byte >= 0x80 ? wideCharacterLength(text.substr(at)) : isXMLCharacter(byte) ? 1 : 0;
      if (length == 0) return at;
      at += length;
    }
  }
  return at;
}

void appendUTF8(std::string& out, char32_t character) {
  auto put = [&](char32_t byte) { out += static_cast<char>(byte); };
  auto tail = [&](unsigned shift) { put(0x80 | (character >> shift & 0x3F)); };
  if (character < 0x80) {
    put(character);
  } else if (character < 0x800) {
    put(0xC0 | character >> 6);
    tail(0);
  } else if (character < 0x10000) {
    put(0xE0 | character >> 12);
    tail(6);
    tail(0);
  } else {
    put(0xF0 | character >> 18);
    tail(12);
    tail(6);
    tail(0);
  }
}

std::string quotedForError(std::string_view text) {
  constexpr std::string_view kHex = "0123456789abcdef";
  std::string out = "\"";
  for (char c : text.substr(0, kQuotedMaxBytes)) {
    const std::uint8_t byte = static_cast<std::uint8_t>(c);
    if (byte >= 0x20 && byte < 0x7F && c != '"' && c != '\\') {
      out += c;
    } else {
      (out += "\\x") += {kHex[byte >> 4], kHex[byte & 15]};
    }
  }
  out += text.size() > kQuotedMaxBytes ? "…\"" : "\"";
  return out;
}

}  // namespace platform
