// The device's files: FileSystem served from under the device root. Safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/FileSystem.h"
#include "platform/linux/files/DeviceRoot.h"

namespace platform {

class LinuxFileSystem final : public FileSystem {
 public:
  explicit LinuxFileSystem(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}

  std::optional<std::string> readFile(const FileURL& url, DomainError* error, std::uint64_t limit) override;
  // A new file may be read by everybody; one that is replaced keeps its permissions.
  bool writeFileAtomically(const FileURL& url, std::string_view bytes, DomainError* error) override;
  bool keepFile(const FileURL& file, const FileURL& secondName, DomainError* error) override;
  bool createDirectory(const FileURL& url, unsigned permissions, DomainError* error) override;
  std::optional<Stamp> stampOfFile(const FileURL& url) override;
  bool exists(const FileURL& url) override;
  std::optional<std::string> canonicalPath(std::string_view path) override;

 private:
  bool flushAbove(int folder, std::string_view path);

  const std::shared_ptr<const DeviceRoot> root_;
  std::mutex mutex_;                                   // guards flushed_
  std::pair<std::uint64_t, std::uint64_t> flushed_{};  // device and inode of a folder whose own name is flushed
};

// What tells one content of a regular file from another; nothing and errno when there is no regular file.
std::optional<FileSystem::Stamp> stampOf(const DeviceRoot& root, std::string_view devicePath);
FileSystem::Stamp stampOf(const struct stat& state);
// Whether the file was left alone long enough that a further change would show in its stamp: what was read of a file
// that is not settled must be read again.
bool isSettled(const FileSystem::Stamp& stamp);

}  // namespace platform
