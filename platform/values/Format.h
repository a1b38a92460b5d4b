// The one formatter of log texts and messages. It knows %@ (any object), %d, %u, %s, %lx, %llu, %p and %%, each with an
// optional {public} as in %{public}@; format and arguments are checked when compiled.
//
//   std::string text = formatText("unsupported protocol version %d (current %d)", version, 3);
//
// In a text for clients everything is printed; in a log line what %@ and %s print without {public} is private.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/values/DomainError.h"
#include "platform/values/FileURL.h"
#include "platform/values/Message.h"
#include "platform/values/PlistValue.h"
#include "platform/values/UUID.h"

namespace platform {

// How an object prints as %@. Overloads for further types are found beside the type.
inline void describeTo(std::string& out, std::string_view value) { out += value; }
inline void describeTo(std::string& out, const std::string& value) { out += value; }
inline void describeTo(std::string& out, const FileURL& value) { out += value.path; }
inline void describeTo(std::string& out, const UUID& value) { out += value.text(); }
inline void describeTo(std::string& out, const DomainError& value) { out += value.localizedDescription(); }
inline void describeTo(std::string& out, const PlistValue& value) { out += value.description(); }
inline void describeTo(std::string& out, const Message& value) { out += value.description(); }
template <class T>
void describeTo(std::string& out, const std::optional<T>& value) {
  if (value) {
    describeTo(out, *value);
  } else {
    out += "(null)";
  }
}

template <class T>
concept Describable = requires(std::string& out, const T& value) {
  describeTo(out, value);
};

// One argument, type-erased for the length of a call.
struct FormatArgument {
  enum class Kind : std::uint8_t { Signed, Unsigned, Text, Pointer, Object };
  Kind kind;
  union {
    std::int64_t number;
    std::uint64_t unsignedNumber;
    const void* pointer;
  };
  std::string_view text;
  void (*describe)(std::string&, const void*) = nullptr;
};

namespace format_detail {

template <class T>
constexpr bool isText = std::convertible_to<const T&, std::string_view>;

// Whether an argument of type T may stand for the conversion ('@', 'd', 'u', 's', 'x', 'l', 'p').
template <class T>
consteval bool accepts(char conversion) {
  switch (conversion) {
    case '@':
      return isText<T> || Describable<T> || std::integral<T>;
    case 's':
      return isText<T>;
    case 'd':
      return std::integral<T>;
    case 'u':
    case 'x':
    case 'l':
      return std::integral<T>;
    case 'p':
      return std::is_pointer_v<T>;
    default:
      return false;
  }
}

// Reads one placeholder behind '%'; gives its conversion and moves `at` behind it. 'l' stands for llu, 'x' for lx.
constexpr char placeholder(std::string_view text, std::size_t& at, bool& isPublic) {
  isPublic = false;
  if (text.substr(at).starts_with("{public}")) {
    isPublic = true;
    at += 8;
  }
  if (text.substr(at).starts_with("llu")) {
    at += 3;
    return 'l';
  }
  if (text.substr(at).starts_with("lx")) {
    at += 2;
    return 'x';
  }
  return at < text.size() ? text[at++] : '\0';
}

void badFormat();  // not defined: reached only while compiling a wrong format

template <class T>
FormatArgument argument(const T& value) {
  FormatArgument result{};
  if constexpr (isText<T>) {
    result.kind = FormatArgument::Kind::Text;
    result.text = value;
  } else if constexpr (std::signed_integral<T>) {
    result.kind = FormatArgument::Kind::Signed;
    result.number = value;
  } else if constexpr (std::unsigned_integral<T>) {
    result.kind = FormatArgument::Kind::Unsigned;
    result.unsignedNumber = value;
  } else if constexpr (std::is_pointer_v<T>) {
    result.kind = FormatArgument::Kind::Pointer;
    result.pointer = value;
  } else {
    result.kind = FormatArgument::Kind::Object;
    result.pointer = &value;
    result.describe = [](std::string& out, const void* object) { describeTo(out, *static_cast<const T*>(object)); };
  }
  return result;
}

}  // namespace format_detail

template <class... Args>
class FormatString {
 public:
  template <std::size_t N>
  consteval FormatString(const char (&text)[N]) : text_(text, N - 1) {  // NOLINT(google-explicit-constructor)
    constexpr std::size_t count = sizeof...(Args);
    std::size_t used = 0;
    for (std::size_t at = 0; at < text_.size();) {
      if (text_[at++] != '%') continue;
      if (at < text_.size() && text_[at] == '%') {
        ++at;
        continue;
      }
      bool isPublic = false;
      char conversion = format_detail::placeholder(text_, at, isPublic);
      if (used >= count || !acceptsAt(used, conversion)) format_detail::badFormat();
      ++used;
    }
    if (used != count) format_detail::badFormat();
  }
  std::string_view text() const { return text_; }

 private:
  static consteval bool acceptsAt([[maybe_unused]] std::size_t index, [[maybe_unused]] char conversion) {
    std::size_t at = 0;
    bool result = false;
    ((result = at++ == index ? format_detail::accepts<std::remove_cvref_t<Args>>(conversion) : result), ...);
    return result;
  }
  std::string_view text_;
};

enum class Privacy { ShowAll, HidePrivate };

// The formatter itself; `arguments` fit the format.
std::string formatArguments(std::string_view format, const FormatArgument* arguments, Privacy privacy);

template <class... Args>
std::string formatText(FormatString<std::type_identity_t<Args>...> format, const Args&... args) {
  std::array<FormatArgument, sizeof...(Args) + 1> list{format_detail::argument(args)...};
  return formatArguments(format.text(), list.data(), Privacy::ShowAll);
}

}  // namespace platform
