// Files in memory, and a number for the next failure of each kind of operation.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/FileSystem.h"

namespace vkd::testing {

using namespace platform;

struct FakeFileSystem : FileSystem {
  std::map<std::string, std::string> contents;
  std::map<std::string, unsigned> directories;
  std::int64_t readError = 0, writeError = 0, keepError = 0, directoryError = 0;  // what to fail with; 0: succeed
  int writes = 0;

  std::optional<std::string> readFile(const FileURL& url, DomainError* error, std::uint64_t) override {
    auto found = contents.find(url.path);
    if (found != contents.end() && readError == 0) return found->second;
    return fail(error, found == contents.end() ? FileErrorNoSuchFile : readError), std::nullopt;
  }
  bool writeFileAtomically(const FileURL& url, std::string_view bytes, DomainError* error) override {
    if (writeError != 0) return fail(error, writeError);
    ++writes;
    contents[url.path] = bytes;
    return true;
  }
  bool keepFile(const FileURL& from, const FileURL& to, DomainError* error) override {
    constexpr std::int64_t kExists = 17;
    if (keepError != 0) return fail(error, keepError);
    if (!contents.contains(from.path)) return fail(error, FileErrorNoSuchFile);
    if (contents.contains(to.path)) return fail(error, kExists);
    contents[to.path] = contents[from.path];
    return true;
  }
  bool createDirectory(const FileURL& url, unsigned permissions, DomainError* error) override {
    if (directoryError != 0) return fail(error, directoryError);
    directories.emplace(url.path, permissions);
    return true;
  }
  std::optional<Stamp> stampOfFile(const FileURL& url) override {
    auto found = contents.find(url.path);
    if (found == contents.end()) return std::nullopt;
    return Stamp{.size = found->second.size()};
  }
  bool exists(const FileURL& url) override { return contents.contains(url.path) || directories.contains(url.path); }
  std::optional<std::string> canonicalPath(std::string_view path) override {
    if (!exists(FileURL{std::string(path)})) return std::nullopt;
    return std::string(path);
  }

 private:
  static bool fail(DomainError* error, std::int64_t code) {
    if (error != nullptr) *error = DomainError{FileErrorDomain, code, "file error " + std::to_string(code)};
    return false;
  }
};

}  // namespace vkd::testing
