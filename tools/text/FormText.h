// How a property list and a plug-in form print for a person.
#pragma once

#include <string>

#include "platform/values/PlistValue.h"

namespace vkctl {

using namespace platform;

// One line: a text as it is, numbers, dates, the length of data; containers JSON-like. Not escaped.
std::string scalarText(const PlistValue& value);
// Lines of "key: value", containers indented below their key. Escaped.
std::string indentedText(const PlistValue& dictionary, std::size_t level = 0);

}  // namespace vkctl
