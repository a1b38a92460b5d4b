// Any three texts, separated by zero bytes, as versions: their order never contradicts itself, and no text sorts behind
// one that it begins.
#include <compare>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "Vornik/VKVersionComparison.h"

namespace {

// -1, 0 or 1.
int order(std::string_view a, std::string_view b) {
  const auto result = Vornik::compareVersionString(a, b);
  return static_cast<int>(std::is_gt(result)) - static_cast<int>(std::is_lt(result));
}

std::string_view takeText(std::string_view& rest) {
  std::string_view text = rest.substr(0, rest.find('\0'));
  rest.remove_prefix(text.size() < rest.size() ? text.size() + 1 : text.size());
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  std::string_view a = takeText(rest), b = takeText(rest), c = takeText(rest);
  const int ab = order(a, b), bc = order(b, c), ac = order(a, c);
  if (order(a, a) != 0 || order(b, a) != -ab) std::abort();
  if (ab <= 0 && bc <= 0 && ac > 0) std::abort();
  if (ab == 0 && ac != bc) std::abort();
  // A text is never greater than itself with more behind it.
  if (b.starts_with(a) && ab > 0) std::abort();
  return 0;
}
