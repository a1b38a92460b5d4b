#include "tools/PropertyFile.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>

#include "platform/plists/PropertyList.h"
#include "tools/ExitStatus.h"
#include "tools/text/JsonMessage.h"

namespace vkctl {
namespace {

std::optional<std::string> contentOf(const std::string& path) {
  using Bytes = std::istreambuf_iterator<char>;
  if (path == "-") return std::string(Bytes(std::cin), Bytes());
  std::ifstream file(path, std::ios::binary);
  std::string bytes(Bytes(file.rdbuf()), Bytes{});
  if (!file) return std::nullopt;
  return bytes;
}

}  // namespace

PlistValue readDictionaryFile(const std::string& path) {
  std::optional<std::string> bytes = contentOf(path);
  if (!bytes) throw Failure(ExitStatus::Usage, path, "cannot be read");
  std::string reason;
  PlistValue value;
  std::size_t first = bytes->find_first_not_of(" \t\r\n");
  if (first != std::string::npos && (*bytes)[first] == '{') {
    value = plistFromJson(*bytes, &reason);
  } else {
    DomainError error;
    value = parsePropertyList(*bytes, &error);
    reason = error.localizedDescription() + " at byte " + std::to_string(error.code);
  }
  if (!value) throw Failure(ExitStatus::Usage, path, "neither JSON nor a property list: " + reason);
  if (!value.isDictionary()) throw Failure(ExitStatus::Usage, path, "no dictionary");
  return value;
}

}  // namespace vkctl
