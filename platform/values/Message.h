// One IPC message value. A message is a dictionary; a request carries with it whom a reply goes to.
//
//   Message reply = Message::createReply(request);
//   reply.set("uuids", hold->uuid());
//   connection.send(reply);
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/values/DomainError.h"
#include "platform/values/PlistEncoding.h"
#include "platform/values/PlistValue.h"
#include "platform/values/UUID.h"

namespace platform {

// Bounds of what is decoded: each level is a stack frame, each element some 64 bytes of memory.
inline constexpr std::size_t kMessageMaxDepth = 32;
inline constexpr std::size_t kMessageMaxElements = std::size_t{1} << 20;

// Events of a connection that are not messages of the peer.
enum class ConnectionError : std::uint8_t {
  Invalid,              // the connection is gone for good
  Interrupted,          // the peer went away while something was pending; a later send connects anew
  TerminationImminent,  // the peer, or this process, is about to end
  Other,
};

class Message {
 public:
  enum class Kind : std::uint8_t {
    Nothing,
    Boolean,
    Integer,
    Unsigned,
    String,
    Data,
    UUID,
    Array,
    Dictionary,
    Plist,
    Error
  };
  using Array = std::vector<Message>;
  using Dictionary = std::vector<std::pair<std::string, Message>>;  // by ascending key
  struct Bytes {
    std::string bytes;
  };
  struct ErrorEvent {
    ConnectionError error;
    std::string text;
  };

  Message() = default;
  Message(bool value) : value_(value) {}                                  // NOLINT(google-explicit-constructor)
  Message(std::int64_t value) : value_(value) {}                          // NOLINT
  Message(int value) : value_(static_cast<std::int64_t>(value)) {}        // NOLINT
  Message(std::uint64_t value) : value_(value) {}                         // NOLINT
  Message(unsigned value) : value_(static_cast<std::uint64_t>(value)) {}  // NOLINT
  Message(std::string value) : value_(std::move(value)) {}                // NOLINT
  Message(std::string_view value) : value_(std::string(value)) {}         // NOLINT
  Message(const char* value) : value_(std::string(value)) {}              // NOLINT
  Message(const platform::UUID& value) : value_(value) {}                 // NOLINT
  Message(Array value) : value_(std::move(value)) {}                      // NOLINT
  Message(Rope encodedPlist) : value_(std::move(encodedPlist)) {}         // NOLINT
  static Message data(std::string_view bytes) { return Message(Value(Bytes{std::string(bytes)})); }
  static Message dictionary() { return Message(Value(Dictionary())); }
  static Message array() { return Message(Value(Array())); }
  // The entries must stand by ascending key, each key once.
  static Message fromEntries(Dictionary entries) { return Message(Value(std::move(entries))); }
  static Message error(ConnectionError error, std::string text) {
    return Message(Value(ErrorEvent{error, std::move(text)}));
  }

  Kind kind() const { return static_cast<Kind>(value_.index()); }
  explicit operator bool() const { return kind() != Kind::Nothing; }
  bool isString() const { return kind() == Kind::String; }
  bool isArray() const { return kind() == Kind::Array; }
  bool isDictionary() const { return kind() == Kind::Dictionary; }
  bool isError() const { return kind() == Kind::Error; }

  // The content when the value has that kind, else null.
  template <class T>
  const T* as() const {
    return std::get_if<T>(&value_);
  }

  // The value under a key of a dictionary, null when there is none or this is no dictionary.
  const Message* get(std::string_view key) const;
  // Typed lookups: null / 0 when absent or of another kind.
  const std::string* getString(std::string_view key) const;
  std::uint64_t getUnsigned(std::string_view key) const;
  // Sets an entry of a dictionary; a value of nothing removes it. This must be a dictionary.
  void set(std::string_view key, Message value);
  // Appends to an array. This must be an array.
  void append(Message element);

  // The direct conversion. A UUID becomes its canonical text, an encoded property list is decoded; nothing and error
  // events convert to nothing.
  PlistValue toPlist() const;
  // Reals and dates, which a message lacks, travel as a one-value property list.
  static Message fromPlist(const PlistValue& value);

  // A text for logs and probes, cut at about 4 KiB.
  std::string description() const;
  friend bool operator==(const Message& a, const Message& b);

  // An empty dictionary bound to the sender of the request. When the sender expects no reply, sending it does nothing.
  static Message createReply(const Message& request);
  // Whom this message answers, or asks for an answer; set by the connection.
  enum class Route : std::uint8_t { None, Request, Reply, NoReplyWanted };
  Route route() const { return route_; }
  std::uint64_t routeID() const { return routeID_; }
  void setRoute(Route route, std::uint64_t id) {
    route_ = route;
    routeID_ = id;
  }

 private:
  using Value = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, std::string, Bytes, platform::UUID,
                             Array, Dictionary, Rope, ErrorEvent>;
  explicit Message(Value value) : value_(std::move(value)) {}

  Value value_;
  Route route_ = Route::None;
  std::uint64_t routeID_ = 0;
};

// The value under `key` only when it is an array / a dictionary, else null.
const Message* zyp_dictionary_get_array(const Message& message, std::string_view key);
const Message* zyp_dictionary_get_dictionary(const Message& message, std::string_view key);

// The wire form of a message value: the tags of PlistEncoding.h without reals and dates, and
//   'g' 16 bytes                UUID
//   'p' u32 length, one value   property list in its message encoding
Rope encodeMessage(const Message& message);
// Reads exactly one value; nothing and an error with the offset for anything else. Encoded property lists inside stay
// slices of `bytes` and have been checked.
Message decodeMessage(const SharedSlice& bytes, DomainError* error = nullptr);

}  // namespace platform
