#include "platform/values/Format.h"

#include <charconv>

namespace platform {

namespace {

template <class Number>
void appendNumber(std::string& out, Number number, int base = 10) {
  char digits[24];
  auto [end, error] = std::to_chars(digits, digits + sizeof digits, number, base);
  out.append(digits, error == std::errc() ? end : digits);
}

std::uint64_t unsignedBits(const FormatArgument& argument) {
  return argument.kind == FormatArgument::Kind::Signed ? static_cast<std::uint64_t>(argument.number)
                                                       : argument.unsignedNumber;
}

void appendInteger(std::string& out, char conversion, const FormatArgument& argument) {
  if (conversion == 'x') {
    appendNumber(out, unsignedBits(argument), 16);
  } else if (argument.kind == FormatArgument::Kind::Signed) {
    appendNumber(out, argument.number);
  } else {
    appendNumber(out, argument.unsignedNumber);
  }
}

void appendArgument(std::string& out, char conversion, const FormatArgument& argument) {
  switch (argument.kind) {
    case FormatArgument::Kind::Text:
      out += argument.text;
      break;
    case FormatArgument::Kind::Object:
      argument.describe(out, argument.pointer);
      break;
    case FormatArgument::Kind::Pointer:
      out += "0x";
      appendNumber(out, reinterpret_cast<std::uintptr_t>(argument.pointer), 16);
      break;
    case FormatArgument::Kind::Signed:
    case FormatArgument::Kind::Unsigned:
      appendInteger(out, conversion, argument);
      break;
  }
}

}  // namespace

std::string formatArguments(std::string_view format, const FormatArgument* arguments, Privacy privacy) {
  std::string out;
  out.reserve(format.size() + 64);
  std::size_t at = 0;
  while (at < format.size()) {
    std::size_t percent = format.find('%', at);
    out += format.substr(at, percent - at);
    if (percent == std::string_view::npos) break;
    at = percent + 1;
    if (at < format.size() && format[at] == '%') {
      out += '%';
      ++at;
      continue;
    }
    bool isPublic = false;
    char conversion = format_detail::placeholder(format, at, isPublic);
    bool hidden = privacy == Privacy::HidePrivate && !isPublic && (conversion == '@' || conversion == 's');
    if (hidden) {
      out += "<private>";
    } else {
      appendArgument(out, conversion, *arguments);
    }
    ++arguments;
  }
  return out;
}

}  // namespace platform
