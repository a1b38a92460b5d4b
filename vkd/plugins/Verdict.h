// What one of discovery's filters says of a plug-in: let it pass, or leave it out, and then which filter and what
// decided. Cheap to make: nothing is formatted, what decided is referred to or shared. Whoever only wants yes or no
// reads it as a boolean; the log and the tools read the rest.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/values/PlistValue.h"
#include "platform/values/UUID.h"

namespace vkd {

struct Verdict {
  enum class Filter : std::uint8_t {
    None,                // passed
    Containment,         // neither on the system volume nor inside an application
    SystemOnly,          // not on the system volume, and only those were asked for
    Dedicated,           // serves only the application that contains it
    Hold,                // an installer holds it: uuid is the hold, when known
    Rules,               // key and value: the entry of the rules dictionary that did not hold
    Exclusion,           // excluded by the user
    BadHostRestriction,  // the host's allowed-plug-ins entitlement is no dictionary
    HostRestriction,     // key and value: the entry of the host's allowed-plug-ins rules that did not hold
    HostEntitlement,     // value: the name of the entitlement that the host lacks
    Export,              // it has no form
    Version,             // uuid: the rival of the same identifier that was kept
  };

  Filter filter = Filter::None;
  std::string_view key;  // valid as long as the rules it was tested against
  platform::PlistValue value;
  platform::UUID uuid;

  // Whether the plug-in passed.
  explicit operator bool() const { return filter == Filter::None; }
  static Verdict refused(Filter by) { return Verdict{by, {}, {}, {}}; }
  static Verdict refused(Filter by, std::string_view key, platform::PlistValue value) {
    return Verdict{by, key, std::move(value), {}};
  }
  static Verdict refused(Filter by, const platform::UUID& decidedBy) { return Verdict{by, {}, {}, decidedBy}; }
};

}  // namespace vkd
