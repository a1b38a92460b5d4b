// Files in memory, and what the next operations of a kind fail with.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/FileSystem.h"

namespace vkd::testing {

using namespace platform;

struct FakeFileSystem : FileSystem {
  std::map<std::string, std::string> contents, links;
  std::map<std::string, unsigned> directories;
  std::map<std::string_view, std::int64_t> errors;  // by operation: "read", "write", "keep", "create"
  int writes = 0;

  std::optional<std::string> readFile(const FileURL& url, DomainError* error, std::uint64_t) override {
    if (!contents.contains(url.path)) return fail(error, FileErrorNoSuchFile), std::nullopt;
    return fails("read", error) ? std::nullopt : std::optional(contents[url.path]);
  }
  bool writeFileAtomically(const FileURL& url, std::string_view bytes, DomainError* error) override {
    if (fails("write", error)) return false;
    ++writes;
    contents[url.path] = bytes;
    return true;
  }
  bool keepFile(const FileURL& from, const FileURL& to, DomainError* error) override {
    return !fails("keep", error) && contents.emplace(to.path, contents.at(from.path)).second;
  }
  bool createDirectory(const FileURL& url, unsigned permissions, DomainError* error) override {
    if (fails("create", error)) return false;
    directories.emplace(url.path, permissions);
    return true;
  }
  std::optional<Stamp> stampOfFile(const FileURL& url) override {
    auto found = contents.find(url.path);
    return found == contents.end() ? std::nullopt : std::optional(Stamp{.size = found->second.size()});
  }
  bool exists(const FileURL& url) override { return contents.contains(url.path) || directories.contains(url.path); }
  std::optional<std::string> canonicalPath(std::string_view path) override {
    const auto link = links.find(std::string(path));
    const std::string real = link == links.end() ? std::string(path) : link->second;
    return exists(FileURL{real}) ? std::optional(real) : std::nullopt;
  }

 private:
  static bool fail(DomainError* error, std::int64_t code) {
    if (error != nullptr) *error = DomainError{FileErrorDomain, code, "file error " + std::to_string(code)};
    return false;
  }
  bool fails(std::string_view operation, DomainError* error) {
    const auto found = errors.find(operation);
    return found != errors.end() && !fail(error, found->second);
  }
};

}  // namespace vkd::testing
