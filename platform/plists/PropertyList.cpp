#include "platform/plists/PropertyList.h"

#include <algorithm>
#include <new>
#include <system_error>
#include <utility>

#include "platform/plists/PropertyListReaders.h"

namespace platform {

PlistValue noPropertyList(DomainError* error, std::size_t offset, std::string text) {
  if (error != nullptr) *error = {PlistErrorDomain, static_cast<std::int64_t>(offset), std::move(text)};
  return {};
}

PlistValue parsePropertyList(std::string_view bytes, DomainError* error, std::size_t maxDepth) {
  maxDepth = std::min(maxDepth, kPlistMaxDepth);
  try {
    if (bytes.starts_with("bplist")) return readBinaryPropertyList(bytes, maxDepth, error);
    return readXMLPropertyList(bytes, maxDepth, error);
  } catch (const std::bad_alloc&) {
    if (error != nullptr) *error = {FileErrorDomain, static_cast<int>(std::errc::not_enough_memory), std::nullopt};
    return {};
  }
}

}  // namespace platform
