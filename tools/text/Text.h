// Texts for people: what somebody else wrote is made safe for a terminal, columns are aligned, a mistyped word gets the
// nearest one proposed.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vkctl {

// Control characters, direction marks and bytes that are no UTF-8 as escapes (\n, \x1b, \u202e); all else as it is.
std::string escaped(std::string_view text);
// Columns that the escaped text takes, a code point each.
std::size_t displayWidth(std::string_view text);
// The word that most likely was meant; empty when none is near.
std::string nearest(std::string_view word, std::span<const std::string> words);

// Rows of aligned columns, the last one as long as it is.
class Table {
 public:
  explicit Table(std::vector<std::string> header) : header_(std::move(header)) {}
  void add(std::vector<std::string> cells);
  bool empty() const { return rows_.empty(); }
  // With a header line when a person reads; `bold` makes it stand out.
  std::string text(bool withHeader, bool bold) const;

 private:
  std::vector<std::string> header_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace vkctl
