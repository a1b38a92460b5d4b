// How version strings are ordered: case-sensitively by character, but runs of ASCII digits at the same place by their
// numeric value, of any length. 1.9 < 1.10, 1.2 < 1.2.1, 1.2a < 1.2b. Leading zeros do not count: 1.01 and 1.1 are the
// same. Bytes compare as unsigned, which for UTF-8 is the order of code points. A weak order: it never contradicts
// itself.
#pragma once

#include <compare>
#include <string_view>

#include "Vornik/VKStandard.h"

namespace Vornik {

// less: `version` sorts before `other`. A pure function; allocates nothing.
std::weak_ordering compareVersionString(std::string_view version, std::string_view other);

}  // namespace Vornik
