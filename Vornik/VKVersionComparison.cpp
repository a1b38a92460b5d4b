#include "Vornik/VKVersionComparison.h"

#include <cstddef>

namespace Vornik {

namespace {

bool isDigit(char character) { return character >= '0' && character <= '9'; }

// Takes the run of digits at the start of `text` off it and answers it without leading zeros: of two such runs the
// longer one is the larger number, and equally long ones compare as texts.
std::string_view takeNumber(std::string_view& text) {
  std::size_t end = 0;
  while (end < text.size() && isDigit(text[end])) ++end;
  std::string_view number = text.substr(0, end);
  text.remove_prefix(end);
  while (number.starts_with('0')) number.remove_prefix(1);
  return number;
}

std::weak_ordering compareNumbers(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return a.size() <=> b.size();
  return a <=> b;
}

std::weak_ordering compareCharacters(char a, char b) {
  return static_cast<unsigned char>(a) <=> static_cast<unsigned char>(b);
}

}  // namespace

std::weak_ordering compareVersionString(std::string_view version, std::string_view other) {
  while (!version.empty() && !other.empty()) {
    std::weak_ordering order = std::weak_ordering::equivalent;
    if (isDigit(version.front()) && isDigit(other.front())) {
      std::string_view number = takeNumber(version);
      order = compareNumbers(number, takeNumber(other));
    } else {
      order = compareCharacters(version.front(), other.front());
      version.remove_prefix(1);
      other.remove_prefix(1);
    }
    if (std::is_neq(order)) return order;
  }
  return !version.empty() <=> !other.empty();
}

}  // namespace Vornik
