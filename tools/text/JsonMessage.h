// Messages and property lists as JSON, for shells. The JSON stands for the value exactly:
//
//   in a message          dictionary, array, string, boolean   object, array, string, true and false
//                         signed 64-bit integer                a plain integer
//                         unsigned 64-bit integer              {"$uint": 3}
//                         UUID                                 {"$uuid": "8-4-4-4-12"}
//                         data                                 {"$data": "base64"}
//                         property list in its encoding        {"$plist": …}
//                         no answer                            {"$error": "text"}, printed only
//   in a property list    integer                              a plain integer, up to the largest unsigned one
//                         real                                 a number with point or exponent, or
//                                                              {"$real": "nan"} ("inf", "-inf")
//                         date                                 {"$date": "2026-11-22T19:40:01Z"}; where that cannot
//                                                              tell it, {"$date": -0.25}, seconds since 1970 as a real
//                         the rest                             as in a message
//
// A key of a dictionary that starts with "$" is written with a second "$" before it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "platform/values/Message.h"
#include "platform/values/PlistValue.h"

namespace vkctl {

// Nothing, with what is wrong and where, for a text that is no JSON or stands for no message / property list. What is
// said may quote keys of the text as they are.
std::optional<platform::Message> messageFromJson(std::string_view text, std::string* error = nullptr);
platform::PlistValue plistFromJson(std::string_view text, std::string* error = nullptr);

// One line, keys sorted. A message or value of nothing is null.
std::string jsonFromMessage(const platform::Message& message);
std::string jsonFromPlist(const platform::PlistValue& value);

// The same by way of JSON in memory, for who makes it a part of something larger (StrictJson.h prints it).
std::optional<platform::Message> messageFromTree(const nlohmann::json& tree, std::string* error = nullptr);
platform::PlistValue plistFromTree(const nlohmann::json& tree, std::string* error = nullptr);
nlohmann::json treeFromMessage(const platform::Message& message);
nlohmann::json treeFromPlist(const platform::PlistValue& value);

}  // namespace vkctl
