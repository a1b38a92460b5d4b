// The two readers behind parsePropertyList. Private to the property-list files.
#pragma once

#include <string>
#include <string_view>

#include "platform/values/DomainError.h"
#include "platform/values/PlistValue.h"

namespace platform {

PlistValue readXMLPropertyList(std::string_view bytes, std::size_t maxDepth, DomainError* error);
PlistValue readBinaryPropertyList(std::string_view bytes, std::size_t maxDepth, DomainError* error);

// Answers nothing, and tells what is wrong at an offset.
PlistValue noPropertyList(DomainError* error, std::size_t offset, std::string text);

}  // namespace platform
