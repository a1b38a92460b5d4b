// The command line of vkd: "[-c LIMIT] [-d PATH] [-S NAME] [-v]", read as the standard option parser reads "c:d:S:v".
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vkd {

inline constexpr std::string_view kUsage = "Usage: vkd [-S servicename] [-v]\n";
inline constexpr int kUsageStatus = 2;

struct CommandLine {
  // So many plug-ins that only a runaway registry reaches it.
  static constexpr std::uint32_t kDefaultCacheLimit = 1'000'000;

  std::uint32_t verbose = 0;
  std::uint32_t cacheLimit = kDefaultCacheLimit;
  // None: the well-known name. Later occurrences replace earlier ones.
  std::optional<std::string> service;
  // None: the annotation store's own location.
  std::optional<std::string> database;

  // The words behind the program name. Nothing for words that are no proper command line; *diagnostic then holds the
  // parser's own line, if it has one, and the caller prints the usage text behind it.
  static std::optional<CommandLine> parse(std::span<const char* const> words, std::string* diagnostic);

 private:
  void apply(char option, const char* argument);
};

}  // namespace vkd
