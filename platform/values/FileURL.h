// The location of a file or bundle: an absolute device path.
#pragma once

#include <string>
#include <string_view>

namespace platform {

struct FileURL {
  std::string path;

  FileURL appending(std::string_view component) const {
    std::string joined = path;
    if (!joined.ends_with('/')) joined += '/';
    joined += component;
    return FileURL{std::move(joined)};
  }
  // The last path component, trailing slashes left aside.
  std::string_view lastComponent() const {
    std::string_view view = path;
    while (view.size() > 1 && view.ends_with('/')) view.remove_suffix(1);
    return view.substr(view.rfind('/') + 1);
  }
  friend bool operator==(const FileURL&, const FileURL&) = default;
};

}  // namespace platform
