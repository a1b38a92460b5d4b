// One-key changes of immutable dictionaries.
#pragma once

#include <string_view>
#include <utility>

#include "Vornik/VKStandard.h"
#include "platform/values/PlistValue.h"

namespace Vornik {

using namespace platform;

// A copy of `dictionary` in which `key` holds `value`; without `key` when the value is nothing. Anything but a
// dictionary counts as an empty one.
inline PlistValue dictionaryChangingTo(const PlistValue& dictionary, std::string_view key, PlistValue value) {
  return PlistBuilder(dictionary).set(key, std::move(value)).take();
}

}  // namespace Vornik
