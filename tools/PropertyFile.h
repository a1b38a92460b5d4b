// Property lists that a person hands over: a file, JSON or property list, told apart by how it begins.
#pragma once

#include <string>

#include "platform/values/PlistValue.h"

namespace vkctl {

using namespace platform;

// The dictionary in a host file; "-" is standard input. Throws Failure for anything else.
PlistValue readDictionaryFile(const std::string& path);

}  // namespace vkctl
