#include "tools/text/Text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <numeric>

namespace vkctl {
namespace {

// Length of the well-formed UTF-8 character at the start of `text` and the code point it stands for; 0 when there is
// none.
std::size_t decode(std::string_view text, std::uint32_t& codePoint) {
  auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  unsigned char lead = byte(0);
  if (lead < 0x80) {
    codePoint = lead;
    return 1;
  }
  std::size_t length = lead >= 0xf0 && lead <= 0xf4 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc2 ? 2 : 0;
  if (lead > 0xf4 || length == 0 || text.size() < length) return 0;
  codePoint = lead & (0x7fU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
    codePoint = codePoint << 6 | (byte(i) & 0x3fU);
  }
  constexpr std::array<std::uint32_t, 5> least{0, 0, 0x80, 0x800, 0x10000};
  bool surrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
  return codePoint < least[length] || codePoint > 0x10ffff || surrogate ? 0 : length;
}

// Controls, and the marks that turn the direction of what follows or break the line.
bool mayNotReachTerminal(std::uint32_t c) {
  return c < 0x20 || (c >= 0x7f && c < 0xa0) || (c >= 0x2028 && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
}

void appendEscape(std::string& out, std::uint32_t c) {
  std::array<char, 12> text{};
  if (c == '\n' || c == '\t' || c == '\r') {
    out += c == '\n' ? "\\n" : c == '\t' ? "\\t" : "\\r";
    return;
  }
  std::snprintf(text.data(), text.size(), c < 0x100 ? "\\x%02x" : "\\u%04x", c);
  out += text.data();
}

// Optimal string alignment: a swap of neighbours costs as much as one wrong letter.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  std::iota(d[0].begin(), d[0].end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      std::size_t change = d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, change});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    std::uint32_t codePoint = 0;
    std::size_t length = decode(text, codePoint);
    if (length == 0) {
      appendEscape(out, static_cast<unsigned char>(text[0]));
      length = 1;
    } else if (mayNotReachTerminal(codePoint)) {
      appendEscape(out, codePoint);
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return out;
}

std::size_t displayWidth(std::string_view text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

std::string nearest(std::string_view word, std::span<const std::string> words) {
  // Farther than this and a proposal is a guess.
  std::size_t best = std::max<std::size_t>(2, word.size() / 3) + 1;
  std::string result;
  for (const std::string& candidate : words) {
    std::size_t d = candidate.starts_with(word) && word.size() > 1 ? 1 : distance(word, candidate);
    if (d < best && d < candidate.size()) {
      best = d;
      result = candidate;
    }
  }
  return result;
}

void Table::add(std::vector<std::string> cells) {
  for (std::string& cell : cells) cell = escaped(cell);
  rows_.push_back(std::move(cells));
}

std::string Table::text(bool withHeader, bool bold) const {
  std::vector<std::size_t> widths(header_.size(), 0);
  auto measure = [&](const std::vector<std::string>& row) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));
  };
  if (withHeader) measure(header_);
  std::ranges::for_each(rows_, measure);
  std::string out;
  auto print = [&](const std::vector<std::string>& row) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      out += row[i];
      if (i + 1 < row.size()) out.append(widths[i] - displayWidth(row[i]) + 2, ' ');
    }
    out += '\n';
  };
  if (withHeader) {
    if (bold) out += "\x1b[1m";
    print(header_);
    if (bold) out.insert(out.size() - 1, "\x1b[0m");
  }
  std::ranges::for_each(rows_, print);
  return out;
}

}  // namespace vkctl
