// Files of the device, by device path. No link leads out of the device root. From any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/DomainError.h"
#include "platform/values/FileURL.h"

namespace platform {

class FileSystem {
 public:
  // A regular file's state, to see whether it changed.
  struct Stamp {
    std::uint64_t device = 0, inode = 0, size = 0;
    std::int64_t modifiedNanoseconds = 0, changedNanoseconds = 0;
    friend bool operator==(const Stamp&, const Stamp&) = default;
  };

  virtual ~FileSystem() = default;
  // The whole of a regular file of at most `limit` bytes. On failure nothing and *error (FileErrorDomain).
  virtual std::optional<std::string> readFile(const FileURL& url, DomainError* error,
                                              std::uint64_t limit = std::uint64_t{256} << 20) = 0;
  // Writes aside, flushes, moves over the old file and flushes the directory and those above it: after true the new
  // content survives a power cut, before it the old or the new one does. A missing directory is made. Never follows a
  // link in the last component.
  virtual bool writeFileAtomically(const FileURL& url, std::string_view bytes, DomainError* error) = 0;
  // What lies under a name survives a power cut under a second one, which must be free and in the same file system. It
  // keeps its first name until that is written anew, unless it can only have one: then it is moved.
  virtual bool keepFile(const FileURL& file, const FileURL& secondName, DomainError* error) = 0;
  // With missing parents, all with these permissions; an existing directory is success.
  virtual bool createDirectory(const FileURL& url, unsigned permissions, DomainError* error) = 0;
  // Nothing when there is no regular file.
  virtual std::optional<Stamp> stampOfFile(const FileURL& url) = 0;
  virtual bool exists(const FileURL& url) = 0;
  // The canonical device path (links, "." and ".." resolved); nothing when it does not exist or exceeds 1024 bytes.
  virtual std::optional<std::string> canonicalPath(std::string_view path) = 0;
};

}  // namespace platform
