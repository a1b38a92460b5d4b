// Walking an open directory.
#pragma once

#include <dirent.h>
#include <fcntl.h>

#include <memory>
#include <string_view>

#include "platform/linux/files/UniqueFd.h"

namespace platform {

// Calls visit(const char* name) for at most `most` entries, "." and ".." left out. False and errno when the directory
// cannot be read. `directory` stays open, and its position is not used.
template <class Visit>
bool forEachEntry(int directory, unsigned most, Visit visit) {
  UniqueFd own(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!own) return false;
  struct Close {
    void operator()(DIR* stream) const { ::closedir(stream); }
  };
  std::unique_ptr<DIR, Close> stream(::fdopendir(own.get()));
  if (stream == nullptr) return false;
  static_cast<void>(own.release());
  while (const dirent* entry = ::readdir(stream.get())) {
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (most-- == 0) break;
    visit(entry->d_name);
  }
  return true;
}

}  // namespace platform
