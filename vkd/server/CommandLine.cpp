#include "vkd/server/CommandLine.h"

#include <cstdlib>

#include "platform/Log.h"
#include "platform/values/Format.h"

namespace vkd {
namespace {

constexpr std::string_view kOptionsWithArgument = "cdS";
constexpr std::string_view kPlainOptions = "v";

}  // namespace

std::optional<CommandLine> CommandLine::parse(std::span<const char* const> words, std::string* diagnostic) {
  CommandLine result;
  std::size_t next = 0;
  while (next < words.size()) {
    std::string_view word = words[next];
    if (word == "--") {
      ++next;
      break;
    }
    if (word.size() < 2 || word[0] != '-') break;  // the first operand; "-" alone is one
    ++next;
    for (std::size_t at = 1; at < word.size(); ++at) {
      const char option = word[at];
      if (kPlainOptions.find(option) != std::string_view::npos) {
        result.apply(option, nullptr);
        continue;
      }
      if (kOptionsWithArgument.find(option) == std::string_view::npos) {
        *diagnostic = platform::formatText("vkd: invalid option -- '%s'\n", word.substr(at, 1));
        return std::nullopt;
      }
      const char* argument = nullptr;
      if (at + 1 < word.size()) {
        argument = word.data() + at + 1;
      } else if (next < words.size()) {
        argument = words[next++];
      } else {
        *diagnostic = platform::formatText("vkd: option requires an argument -- '%s'\n", word.substr(at, 1));
        return std::nullopt;
      }
      result.apply(option, argument);
      break;
    }
  }
  if (next < words.size()) return std::nullopt;
  return result;
}

void CommandLine::apply(char option, const char* argument) {
  switch (option) {
    case 'c':
      cacheLimit = static_cast<std::uint32_t>(std::strtol(argument, nullptr, 10));
      break;
    case 'd':
      database = argument;
      break;
    case 'S':
      service = argument;
      break;
    default:
      ++verbose;
      VK_LOG(platform::defaultLog(), Error,
             "verbose option -v is ineffective; use log config --subsystem com.vantrel.vornik");
  }
}

}  // namespace vkd
