// One annotation as the lines it has in the annotation file. A client may store anything a message can carry, and a
// file cannot hold all of that:
//
//   a character that XML cannot carry (U+0000, …)      saved as U+FFFD
//   a value that XML cannot carry (a date of year 0)   left out
//   a key that XML cannot carry, too deep, too large   the whole annotation is left out: nothing is answered
//
// so that no annotation keeps the others from being saved.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/values/PlistValue.h"

namespace vkd {

// The file is written whole at every change, and read whole at start: one plug-in must not fill it.
inline constexpr std::size_t kMaxAnnotationXMLBytes = std::size_t{16} << 20;
// Levels of the file around an annotation.
inline constexpr std::size_t kAnnotationXMLLevel = 2;

// Complete lines, or nothing when the file cannot hold the annotation.
std::optional<std::string> annotationXML(std::string_view key, const platform::PlistValue& annotation);

}  // namespace vkd
