// Property lists and messages, written down shortly.
#pragma once

#include <initializer_list>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/values/Message.h"
#include "platform/values/PlistValue.h"

namespace platform {

// Readable in failing tests.
inline void PrintTo(const Message& message, std::ostream* out) { *out << message.description(); }

}  // namespace platform

namespace support {

using platform::Message;
using platform::PlistValue;

inline PlistValue dictionary(std::vector<std::pair<std::string, PlistValue>> entries) {
  return PlistValue::dictionary(std::move(entries));
}
inline PlistValue list(std::vector<PlistValue> elements) { return PlistValue::array(std::move(elements)); }

using Body = std::initializer_list<std::pair<std::string_view, Message>>;

inline Message messageOf(Body body) {
  Message message = Message::dictionary();
  for (const auto& [key, value] : body) message.set(key, value);
  return message;
}
inline Message requestOf(std::string_view type, Body body = {}) {
  Message message = messageOf(body);
  message.set("request", type);
  message.set("version", std::uint64_t{3});
  return message;
}
inline Message listOf(std::initializer_list<Message> elements) { return Message::Array(elements); }

}  // namespace support
