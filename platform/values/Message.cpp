#include "platform/values/Message.h"

#include <algorithm>
#include <stdexcept>

namespace platform {

namespace {

// A description is for logs and probes: nobody reads more, and a message may be many megabytes.
constexpr std::size_t kDescriptionLimit = 4096;

Message::Dictionary::const_iterator position(const Message::Dictionary& entries, std::string_view key) {
  return std::lower_bound(entries.begin(), entries.end(), key,
                          [](const auto& entry, std::string_view k) { return entry.first < k; });
}

}  // namespace

const Message* Message::get(std::string_view key) const {
  const auto* entries = as<Dictionary>();
  if (entries == nullptr) return nullptr;
  auto at = position(*entries, key);
  return at != entries->end() && at->first == key ? &at->second : nullptr;
}

const std::string* Message::getString(std::string_view key) const {
  const Message* value = get(key);
  return value != nullptr ? value->as<std::string>() : nullptr;
}

std::uint64_t Message::getUnsigned(std::string_view key) const {
  const Message* value = get(key);
  const auto* number = value != nullptr ? value->as<std::uint64_t>() : nullptr;
  return number != nullptr ? *number : 0;
}

void Message::set(std::string_view key, Message value) {
  auto* entries = std::get_if<Dictionary>(&value_);
  if (entries == nullptr) throw std::logic_error("set on a message that is no dictionary");
  auto at = entries->begin() + (position(*entries, key) - entries->cbegin());
  bool found = at != entries->end() && at->first == key;
  if (!value) {
    if (found) entries->erase(at);
  } else if (found) {
    at->second = std::move(value);
  } else {
    entries->emplace(at, std::string(key), std::move(value));
  }
}

void Message::append(Message element) {
  auto* elements = std::get_if<Array>(&value_);
  if (elements == nullptr) throw std::logic_error("append to a message that is no array");
  elements->push_back(std::move(element));
}

PlistValue Message::toPlist() const {
  switch (kind()) {
    case Kind::Nothing:
    case Kind::Error:
      return {};
    case Kind::Boolean:
      return *as<bool>();
    case Kind::Integer:
      return *as<std::int64_t>();
    case Kind::Unsigned:
      return *as<std::uint64_t>();
    case Kind::String:
      return *as<std::string>();
    case Kind::Data:
      return PlistValue::data(as<Bytes>()->bytes);
    case Kind::UUID:
      return as<platform::UUID>()->text();
    case Kind::Plist:
      return decodePlist(as<Rope>()->flat(), nullptr, kPlistMaxDepth);
    case Kind::Array: {
      std::vector<PlistValue> elements;
      elements.reserve(as<Array>()->size());
      for (const Message& element : *as<Array>()) elements.push_back(element.toPlist());
      return PlistValue::array(std::move(elements));
    }
    case Kind::Dictionary: {
      std::vector<std::pair<std::string, PlistValue>> entries;
      entries.reserve(as<Dictionary>()->size());
      for (const auto& [key, value] : *as<Dictionary>()) entries.emplace_back(key, value.toPlist());
      return PlistValue::dictionary(std::move(entries));
    }
  }
  return {};
}

Message Message::fromPlist(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::Nothing:
      return {};
    case PlistValue::Kind::Boolean:
      return value.boolValue();
    case PlistValue::Kind::Integer:
      return value.isLargeUnsigned() ? Message(value.uintValue()) : Message(value.intValue());
    case PlistValue::Kind::Real:
    case PlistValue::Kind::Date:
      return encodePlist(value);
    case PlistValue::Kind::String:
      return value.stringValue();
    case PlistValue::Kind::Data:
      return data(value.dataValue());
    case PlistValue::Kind::Array: {
      Array elements;
      elements.reserve(value.size());
      for (const PlistValue& element : value.elements()) elements.push_back(fromPlist(element));
      return elements;
    }
    case PlistValue::Kind::Dictionary: {
      Dictionary entries;
      entries.reserve(value.size());
      for (auto [key, element] : value.entries()) entries.emplace_back(key, fromPlist(element));
      return Message(Value(std::move(entries)));
    }
  }
  return {};
}

Message Message::createReply(const Message& request) {
  Message reply = dictionary();
  reply.setRoute(request.route() == Route::Request ? Route::Reply : Route::NoReplyWanted, request.routeID());
  return reply;
}

bool operator==(const Message& a, const Message& b) {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case Message::Kind::Nothing:
      return true;
    case Message::Kind::Data:
      return a.as<Message::Bytes>()->bytes == b.as<Message::Bytes>()->bytes;
    case Message::Kind::Plist:
      return a.as<Rope>()->flat().view() == b.as<Rope>()->flat().view();
    case Message::Kind::Error:
      return a.as<Message::ErrorEvent>()->error == b.as<Message::ErrorEvent>()->error;
    case Message::Kind::Boolean:
      return *a.as<bool>() == *b.as<bool>();
    case Message::Kind::Integer:
      return *a.as<std::int64_t>() == *b.as<std::int64_t>();
    case Message::Kind::Unsigned:
      return *a.as<std::uint64_t>() == *b.as<std::uint64_t>();
    case Message::Kind::String:
      return *a.as<std::string>() == *b.as<std::string>();
    case Message::Kind::UUID:
      return *a.as<UUID>() == *b.as<UUID>();
    case Message::Kind::Array:
      return *a.as<Message::Array>() == *b.as<Message::Array>();
    case Message::Kind::Dictionary:
      return *a.as<Message::Dictionary>() == *b.as<Message::Dictionary>();
  }
  return false;
}

namespace {

void describe(std::string& out, const Message& message);

void describeArray(std::string& out, const Message::Array& elements) {
  out += '[';
  std::string_view separator;
  for (const Message& element : elements) {
    if (out.size() > kDescriptionLimit) break;
    out += separator;
    separator = ", ";
    describe(out, element);
  }
  out += ']';
}

void describeDictionary(std::string& out, const Message::Dictionary& entries) {
  out += '{';
  std::string_view separator;
  for (const auto& [key, value] : entries) {
    if (out.size() > kDescriptionLimit) break;
    out += separator;
    separator = ", ";
    out += '"';
    out += key.substr(0, kDescriptionLimit);
    out += "\": ";
    describe(out, value);
  }
  out += '}';
}

void describe(std::string& out, const Message& message) {
  switch (message.kind()) {
    case Message::Kind::Array:
      return describeArray(out, *message.as<Message::Array>());
    case Message::Kind::Dictionary:
      return describeDictionary(out, *message.as<Message::Dictionary>());
    case Message::Kind::String:
      out += '"';
      out += message.as<std::string>()->substr(0, kDescriptionLimit);
      out += '"';
      return;
    case Message::Kind::Error:
      out += message.as<Message::ErrorEvent>()->text;
      return;
    case Message::Kind::Plist:
      out += "<property list, ";
      out += std::to_string(message.as<Rope>()->size());
      out += " bytes>";
      return;
    default:
      out += message.toPlist().description();
  }
}

}  // namespace

std::string Message::description() const {
  std::string out;
  describe(out, *this);
  if (out.size() > kDescriptionLimit) {
    out.resize(kDescriptionLimit);
    out += "…";
  }
  return out;
}

const Message* zyp_dictionary_get_array(const Message& message, std::string_view key) {
  const Message* value = message.get(key);
  return value != nullptr && value->isArray() ? value : nullptr;
}

const Message* zyp_dictionary_get_dictionary(const Message& message, std::string_view key) {
  const Message* value = message.get(key);
  return value != nullptr && value->isDictionary() ? value : nullptr;
}

}  // namespace platform
