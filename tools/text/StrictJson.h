// JSON as it may be written here: nested to a bound, no key twice in an object, no integer beyond 64 bits (which would
// silently become a real). Also how JSON is printed.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vkctl {

// Nothing, and what is wrong at which byte, for any other text.
std::optional<nlohmann::json> parseStrictJson(std::string_view text, std::size_t maxDepth,
                                              std::string* error = nullptr);

// One line with sorted keys. Bytes that are no UTF-8 are replaced, and what a terminal could obey is escaped.
std::string printedJson(const nlohmann::json& json);

}  // namespace vkctl
