// Names and parts of device paths that the files of the registry share. All paths here are canonical.
#pragma once

#include <string>
#include <string_view>

namespace platform {

inline constexpr std::string_view kApplicationEnding = ".app";
inline constexpr std::string_view kContentsFolder = "Contents";
inline constexpr std::string_view kExecutablesFolder = "Executables";
inline constexpr std::string_view kPlugInsFolder = "PlugIns";

// What a stored entry is of: the first character of its key, before the path.
inline constexpr char kBundleKey = 'p';
inline constexpr char kApplicationKey = 'a';

inline std::string joinPath(std::string_view folder, std::string_view name) {
  std::string path(folder);
  if (!path.ends_with('/') && !name.empty()) path += '/';
  return path.append(name);
}

// "/" for what lies in the root, and for the root itself.
inline std::string parentOf(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return std::string(slash == 0 || slash == std::string_view::npos ? "/" : path.substr(0, slash));
}

inline std::string_view nameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

}  // namespace platform
