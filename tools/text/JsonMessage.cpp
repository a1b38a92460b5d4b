#include "tools/text/JsonMessage.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/values/PlistEncoding.h"
#include "platform/values/PlistText.h"
#include "tools/text/StrictJson.h"

namespace vkctl {

using namespace platform;
using nlohmann::json;

namespace {

constexpr std::string_view kUint = "$uint";
constexpr std::string_view kUUID = "$uuid";
constexpr std::string_view kData = "$data";
constexpr std::string_view kPlist = "$plist";
constexpr std::string_view kError = "$error";
constexpr std::string_view kReal = "$real";
constexpr std::string_view kDate = "$date";

// A message, a property list at its bottom, and the objects that name the two innermost types.
constexpr std::size_t kJsonMaxDepth = kMessageMaxDepth + kPlistMaxMessageDepth + 2;

// ---- To JSON

std::string keyForJson(std::string_view key) {
  return key.starts_with('$') ? "$" + std::string(key) : std::string(key);
}

json form(std::string_view name, json content) {
  json object = json::object();
  object[std::string(name)] = std::move(content);
  return object;
}

json formOfData(std::string_view bytes) {
  std::string text;
  appendBase64(text, bytes);
  return form(kData, std::move(text));
}

json fromReal(double value) {
  if (std::isfinite(value)) return value;
  return form(kReal, std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf");
}

json fromDate(double seconds) {
  std::string text;
  if (wholeSecondDate(seconds) == seconds && appendISODate(text, seconds)) return form(kDate, std::move(text));
  return form(kDate, fromReal(seconds));
}

// ---- From JSON

struct Malformed {
  std::string text;
};

class TreeReader {
 public:
  Message message(const json& tree, std::size_t depth);
  PlistValue plist(const json& tree, std::size_t depth);

 private:
  Message messageForm(const std::string& name, const json& content);
  PlistValue plistForm(const std::string& name, const json& content);
  double real(const json& tree);
  std::string data(const json& content);
  double date(const json& content);
  std::string text(const json& content, std::string_view form);
  const json* soleForm(const json& object, std::string& name);
  template <class Read>
  void eachElement(const json& array, const Read& read);
  template <class Read>
  void eachEntry(const json& object, const Read& read);
  [[noreturn]] void refuse(const std::string& text) const;

  std::string path_;  // of the value that is read: "/key/index"
};

void TreeReader::refuse(const std::string& text) const {
  throw Malformed{"JSON at " + (path_.empty() ? "/" : path_) + ": " + text};
}

template <class Read>
void TreeReader::eachElement(const json& array, const Read& read) {
  const std::size_t length = path_.size();
  for (std::size_t i = 0; i < array.size(); ++i) {
    path_ += '/' + std::to_string(i);
    read(array[i]);
    path_.resize(length);
  }
}

template <class Read>
void TreeReader::eachEntry(const json& object, const Read& read) {
  const std::size_t length = path_.size();
  for (const auto& [key, value] : object.items()) {
    path_ += '/' + key;
    read(key.starts_with('$') ? key.substr(1) : key, value);
    path_.resize(length);
  }
}

// The content of an object like {"$uint": 3} and its name; null for a dictionary.
const json* TreeReader::soleForm(const json& object, std::string& name) {
  for (const auto& [key, value] : object.items()) {
    if (!key.starts_with('$') || key.starts_with("$$")) continue;
    if (object.size() > 1)
      refuse(quotedForError(key) + " among other keys; a key that starts with \"$\" needs two of them");
    name = key;
    path_ += '/' + key;
    return &value;
  }
  return nullptr;
}

std::string TreeReader::text(const json& content, std::string_view wanted) {
  if (!content.is_string()) refuse("wants " + std::string(wanted) + " as a string");
  return content.get<std::string>();
}

std::string TreeReader::data(const json& content) {
  std::optional<std::string> bytes = decodeBase64(text(content, "base64"));
  if (!bytes) refuse("wants padded base64");
  return *std::move(bytes);
}

Message TreeReader::message(const json& tree, std::size_t depth) {
  if (tree.is_string()) return tree.get<std::string>();
  if (tree.is_boolean()) return tree.get<bool>();
  if (tree.is_null()) refuse("a message has no null");
  if (tree.is_number_float()) refuse("a message has no reals but in {\"$plist\": …}");
  if (tree.is_number_unsigned() && tree.get<std::uint64_t>() > INT64_MAX) {
    refuse("beyond the signed integers; write {\"$uint\": …}");
  }
  if (tree.is_number()) return tree.get<std::int64_t>();
  const std::size_t length = path_.size();
  std::string name;
  if (const json* content = tree.is_object() ? soleForm(tree, name) : nullptr) {
    Message value = messageForm(name, *content);
    path_.resize(length);
    return value;
  }
  if (depth == kMessageMaxDepth) refuse("nested deeper than " + std::to_string(kMessageMaxDepth) + " levels");
  if (tree.is_array()) {
    Message::Array elements;
    eachElement(tree, [&](const json& element) { elements.push_back(message(element, depth + 1)); });
    return elements;
  }
  Message::Dictionary entries;  // in order: each key that starts with "$" loses one, and all those stand together
  eachEntry(tree, [&](std::string key, const json& value) {
    entries.emplace_back(std::move(key), message(value, depth + 1));
  });
  return Message::fromEntries(std::move(entries));
}

Message TreeReader::messageForm(const std::string& name, const json& content) {
  if (name == kUint) {
    if (!content.is_number_unsigned()) refuse("wants an unsigned integer");
    return content.get<std::uint64_t>();
  }
  if (name == kUUID) {
    const std::optional<UUID> uuid = UUID::parse(text(content, "a UUID"));
    if (!uuid) refuse("wants a UUID like 01234567-89AB-CDEF-0123-456789ABCDEF");
    return *uuid;
  }
  if (name == kData) return Message::data(data(content));
  if (name == kPlist) return encodePlist(plist(content, 0));
  if (name == kError) refuse("stands for an answer that did not come and is no message");
  refuse("not known here; a key that starts with \"$\" needs two of them");
}

PlistValue TreeReader::plist(const json& tree, std::size_t depth) {
  if (tree.is_string()) return tree.get<std::string>();
  if (tree.is_boolean()) return tree.get<bool>();
  if (tree.is_null()) refuse("a property list has no null");
  if (tree.is_number_float()) return tree.get<double>();
  if (tree.is_number_unsigned()) return tree.get<std::uint64_t>();
  if (tree.is_number()) return tree.get<std::int64_t>();
  const std::size_t length = path_.size();
  std::string name;
  if (const json* content = tree.is_object() ? soleForm(tree, name) : nullptr) {
    PlistValue value = plistForm(name, *content);
    path_.resize(length);
    return value;
  }
  if (depth == kPlistMaxMessageDepth) refuse("nested deeper than " + std::to_string(kPlistMaxMessageDepth) + " levels");
  if (tree.is_array()) {
    std::vector<PlistValue> elements;
    eachElement(tree, [&](const json& element) { elements.push_back(plist(element, depth + 1)); });
    return PlistValue::array(std::move(elements));
  }
  std::vector<std::pair<std::string, PlistValue>> entries;
  eachEntry(tree,
            [&](std::string key, const json& value) { entries.emplace_back(std::move(key), plist(value, depth + 1)); });
  return PlistValue::dictionary(std::move(entries));
}

PlistValue TreeReader::plistForm(const std::string& name, const json& content) {
  if (name == kData) return PlistValue::data(data(content));
  if (name == kDate) return PlistValue::date(date(content));
  if (name == kReal) return real(content);
  refuse("not known in a property list; a key that starts with \"$\" needs two of them");
}

double TreeReader::date(const json& content) {
  if (!content.is_string()) return real(content.is_object() ? content.value(std::string(kReal), json()) : content);
  const std::optional<double> seconds = parseISODate(content.get<std::string>());
  if (!seconds) refuse("wants a date like 2026-11-22T19:40:01Z");
  return *seconds;
}

double TreeReader::real(const json& tree) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  if (tree.is_number_float()) return tree.get<double>();
  if (tree == "nan") return std::numeric_limits<double>::quiet_NaN();
  if (tree == "inf") return kInfinity;
  if (tree == "-inf") return -kInfinity;
  refuse("wants \"nan\", \"inf\", \"-inf\" or a number with a decimal point");
}

// Runs a reader; what is refused is told, nothing is thrown.
template <class Read>
auto told(std::string* error, const Read& read) -> decltype(read()) {
  std::string text;
  try {
    return read();
  } catch (const Malformed& malformed) {
    text = malformed.text;
  } catch (const std::length_error& tooMuch) {
    text = tooMuch.what();
  }
  if (error != nullptr) *error = std::move(text);
  return {};
}

}  // namespace

json treeFromPlist(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::Nothing:
      return nullptr;
    case PlistValue::Kind::Boolean:
      return value.boolValue();
    case PlistValue::Kind::Integer:
      return value.isLargeUnsigned() ? json(value.uintValue()) : json(value.intValue());
    case PlistValue::Kind::Real:
      return fromReal(value.realValue());
    case PlistValue::Kind::Date:
      return fromDate(value.dateValue());
    case PlistValue::Kind::String:
      return std::string(value.stringValue());
    case PlistValue::Kind::Data:
      return formOfData(value.dataValue());
    case PlistValue::Kind::Array: {
      json array = json::array();
      for (const PlistValue& element : value.elements()) array.push_back(treeFromPlist(element));
      return array;
    }
    case PlistValue::Kind::Dictionary: {
      json object = json::object();
      for (const auto& [key, element] : value.entries()) object[keyForJson(key)] = treeFromPlist(element);
      return object;
    }
  }
  return nullptr;
}

json treeFromMessage(const Message& message) {
  switch (message.kind()) {
    case Message::Kind::Nothing:
      return nullptr;
    case Message::Kind::Boolean:
      return *message.as<bool>();
    case Message::Kind::Integer:
      return *message.as<std::int64_t>();
    case Message::Kind::Unsigned:
      return form(kUint, *message.as<std::uint64_t>());
    case Message::Kind::String:
      return *message.as<std::string>();
    case Message::Kind::Data:
      return formOfData(message.as<Message::Bytes>()->bytes);
    case Message::Kind::UUID:
      return form(kUUID, message.as<UUID>()->text());
    case Message::Kind::Plist:
      return form(kPlist, treeFromPlist(decodePlist(message.as<Rope>()->flat(), nullptr, kPlistMaxDepth)));
    case Message::Kind::Error:
      return form(kError, message.as<Message::ErrorEvent>()->text);
    case Message::Kind::Array: {
      json array = json::array();
      for (const Message& element : *message.as<Message::Array>()) array.push_back(treeFromMessage(element));
      return array;
    }
    case Message::Kind::Dictionary: {
      json object = json::object();
      for (const auto& [key, value] : *message.as<Message::Dictionary>())
        object[keyForJson(key)] = treeFromMessage(value);
      return object;
    }
  }
  return nullptr;
}

std::optional<Message> messageFromTree(const json& tree, std::string* error) {
  return told(error, [&]() -> std::optional<Message> { return TreeReader().message(tree, 0); });
}

PlistValue plistFromTree(const json& tree, std::string* error) {
  return told(error, [&] { return TreeReader().plist(tree, 0); });
}

std::optional<Message> messageFromJson(std::string_view text, std::string* error) {
  const std::optional<json> tree = parseStrictJson(text, kJsonMaxDepth, error);
  return tree ? messageFromTree(*tree, error) : std::nullopt;
}

PlistValue plistFromJson(std::string_view text, std::string* error) {
  const std::optional<json> tree = parseStrictJson(text, kJsonMaxDepth, error);
  return tree ? plistFromTree(*tree, error) : PlistValue();
}

std::string jsonFromMessage(const Message& message) { return printedJson(treeFromMessage(message)); }
std::string jsonFromPlist(const PlistValue& value) { return printedJson(treeFromPlist(value)); }

}  // namespace vkctl
