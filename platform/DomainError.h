// An error that one operation hands to another: who says so (domain), what (code), and a text for people.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

struct DomainError {
  // A constant with static storage: two errors are of one domain when they point at the same constant.
  std::string_view domain;
  std::int64_t code = 0;
  std::optional<std::string> description;

  bool isInDomain(std::string_view constant) const { return domain.data() == constant.data(); }
  // What a person is shown: the description, else domain and code.
  std::string localizedDescription() const;
};

// Errors of reading and writing files. The code is the system's error number, except for a file that is not there.
inline constexpr std::string_view FileErrorDomain = "File";
inline constexpr std::int64_t FileErrorNoSuchFile = 260;

// Errors of the property-list readers; the code is the byte offset at which reading stopped.
inline constexpr std::string_view PlistErrorDomain = "PropertyList";

}  // namespace platform
