#include "platform/values/SHA.h"

#include <algorithm>
#include <bit>

namespace platform {
namespace {

constexpr std::size_t kBlock = 64;

std::uint32_t readWord(const char* at) {
  std::uint32_t word = 0;
  for (int i = 0; i < 4; ++i) word = word << 8 | static_cast<std::uint8_t>(at[i]);
  return word;
}

// Feeds the bytes to `round` in whole blocks, padded as both digests want it: a bit, zeros, the length in bits with
// that of what was fed before.
template <class Round>
void forEachBlock(std::string_view bytes, Round round, std::size_t before = 0) {
  std::uint64_t bits = std::uint64_t{before + bytes.size()} * 8;
  for (; bytes.size() >= kBlock; bytes.remove_prefix(kBlock)) round(bytes.data());
  std::array<char, 2 * kBlock> tail{};
  bytes.copy(tail.data(), bytes.size());
  tail[bytes.size()] = '\x80';
  std::size_t end = bytes.size() + 9 <= kBlock ? kBlock : 2 * kBlock;
  for (std::size_t i = 1; i <= 8; ++i, bits >>= 8) tail[end - i] = static_cast<char>(bits & 0xFF);
  for (std::size_t at = 0; at < end; at += kBlock) round(tail.data() + at);
}

template <std::size_t Words>
std::array<std::uint8_t, Words * 4> toBytes(const std::array<std::uint32_t, Words>& state) {
  std::array<std::uint8_t, Words * 4> digest{};
  for (std::size_t i = 0; i < digest.size(); ++i) {
    digest[i] = static_cast<std::uint8_t>(state[i / 4] >> (24 - 8 * (i % 4)));
  }
  return digest;
}

void sha1Round(std::array<std::uint32_t, 5>& state, const char* block) {
  std::array<std::uint32_t, 80> w{};
  for (std::size_t i = 0; i < 16; ++i) w[i] = readWord(block + 4 * i);
  for (std::size_t i = 16; i < 80; ++i) w[i] = std::rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
  auto [a, b, c, d, e] = state;
  for (std::size_t i = 0; i < 80; ++i) {
    std::uint32_t f = 0;
    if (i < 20) {
      f = ((b & c) | (~b & d)) + 0x5A827999;
    } else if (i < 40) {
      f = (b ^ c ^ d) + 0x6ED9EBA1;
    } else if (i < 60) {
      f = ((b & c) | (b & d) | (c & d)) + 0x8F1BBCDC;
    } else {
      f = (b ^ c ^ d) + 0xCA62C1D6;
    }
    std::uint32_t next = std::rotl(a, 5) + f + e + w[i];
    e = d;
    d = c;
    c = std::rotl(b, 30);
    b = a;
    a = next;
  }
  const std::array<std::uint32_t, 5> add{a, b, c, d, e};
  for (std::size_t i = 0; i < state.size(); ++i) state[i] += add[i];
}

constexpr std::array<std::uint32_t, 64> kRoundConstants = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

using SHA256State = std::array<std::uint32_t, 8>;
constexpr SHA256State kSHA256Start = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                      0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

void sha256Round(SHA256State& state, const char* block) {
  std::array<std::uint32_t, 64> w;
  for (std::size_t i = 0; i < 16; ++i) w[i] = readWord(block + 4 * i);
  for (std::size_t i = 16; i < 64; ++i) {
    std::uint32_t s0 = std::rotr(w[i - 15], 7) ^ std::rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
    std::uint32_t s1 = std::rotr(w[i - 2], 17) ^ std::rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  auto [a, b, c, d, e, f, g, h] = state;
  for (std::size_t i = 0; i < 64; ++i) {
    std::uint32_t s1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
    std::uint32_t t1 = h + s1 + ((e & f) ^ (~e & g)) + kRoundConstants[i] + w[i];
    std::uint32_t s0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
    std::uint32_t t2 = s0 + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  const SHA256State add{a, b, c, d, e, f, g, h};
  for (std::size_t i = 0; i < state.size(); ++i) state[i] += add[i];
}

}  // namespace

std::string_view asText(const SHA256Digest& digest) {
  return {reinterpret_cast<const char*>(digest.data()), digest.size()};
}

SHA1Digest sha1(std::string_view bytes) {
  std::array<std::uint32_t, 5> state{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  forEachBlock(bytes, [&](const char* block) { sha1Round(state, block); });
  return toBytes(state);
}

SHA256Digest sha256(std::string_view bytes) {
  SHA256State state = kSHA256Start;
  forEachBlock(bytes, [&](const char* block) { sha256Round(state, block); });
  return toBytes(state);
}

HMACSHA256::HMACSHA256(std::string_view key) : inner_(kSHA256Start), outer_(kSHA256Start) {
  std::array<char, kBlock> inner{};
  if (key.size() > kBlock) {
    asText(sha256(key)).copy(inner.data(), kBlock);
  } else {
    key.copy(inner.data(), kBlock);
  }
  std::array<char, kBlock> outer = inner;
  for (char& byte : inner) byte = static_cast<char>(byte ^ 0x36);
  for (char& byte : outer) byte = static_cast<char>(byte ^ 0x5C);
  sha256Round(inner_, inner.data());
  sha256Round(outer_, outer.data());
}

SHA256Digest HMACSHA256::digest(std::string_view bytes) const {
  SHA256State state = inner_;
  forEachBlock(
      bytes, [&](const char* block) { sha256Round(state, block); }, kBlock);
  SHA256Digest digest = toBytes(state);
  state = outer_;
  forEachBlock(
      asText(digest), [&](const char* block) { sha256Round(state, block); }, kBlock);
  return toBytes(state);
}

std::optional<SHA256Digest> sha256FromHex(std::string_view text) {
  SHA256Digest digest{};
  if (text.size() != 2 * digest.size()) return std::nullopt;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (digit < 0) return std::nullopt;
    digest[i / 2] = static_cast<std::uint8_t>(digest[i / 2] << 4 | digit);
  }
  return digest;
}

}  // namespace platform
