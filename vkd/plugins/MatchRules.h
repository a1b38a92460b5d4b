// A rules dictionary made ready for testing many plug-ins: keys that mean something special and the operators of string
// patterns are recognised once. A host's request, the user's exclusions and a host's allowed-plug-ins entitlement are
// such dictionaries. A plug-in matches when it matches every entry; VKDPlugIn::match tests it.
//
// Immutable, so safe from any thread. Anything a client may send is understood or never matches; nothing fails.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/values/PlistValue.h"

namespace vkd {

// One string pattern, taken apart.
struct StringPattern {
  enum class Operator : std::uint8_t {
    ConformsTo,  // "?UT-CONFORMS:" type
    Is,          // "?UT-IS:" type
    Unknown,     // "?" anything else: never holds
    NotSame,     // <>
    NotGreater,  // <=
    NotLess,     // >=
    Same,        // = or none
    Less,        // <
    Greater,     // >
  };

  // The first operator that is a prefix wins, in the order "<>", "<=", ">=", "=", "<", ">".
  explicit StringPattern(std::string_view pattern);

  Operator op;
  std::string_view operand;  // of Unknown: the whole pattern
};

class MatchRules {
 public:
  // What of the plug-in is tested.
  enum class Subject : std::uint8_t { Identifier, UUID, Attribute, Entitlement, ContainingApp, UserElection };
  enum class Test : std::uint8_t {
    True,     // present and not false
    False,    // absent or false
    Strings,  // one of the patterns holds
    Items,    // the plug-in's value, as an activation rule, accepts the items described
    Never,    // an unsupported kind of pattern
  };

  struct Entry {
    Subject subject;
    Test test;
    std::string_view key;   // as the rules have it
    std::string_view name;  // of the entitlement, else the key
    platform::PlistValue pattern;
    std::vector<StringPattern> strings;
  };

  // Matches every plug-in.
  MatchRules() = default;
  // Anything but a dictionary counts as an empty one. Keeps the dictionary.
  explicit MatchRules(platform::PlistValue rules);

  const platform::PlistValue& rules() const { return rules_; }
  // In an order of our own: what costs least to test first.
  const std::vector<Entry>& entries() const { return entries_; }
  bool empty() const { return entries_.empty(); }

 private:
  platform::PlistValue rules_;  // keeps alive what the entries refer to
  std::vector<Entry> entries_;
};

}  // namespace vkd
