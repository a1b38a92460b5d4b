// An error that one operation hands to another: who says so (domain), what (code), and a text for people.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

struct DomainError {
  // A text with one address in the whole process, so a named array: two errors are of one domain when they point at the
  // same text, and what a literal points at may differ from file to file.
  std::string_view domain;
  std::int64_t code = 0;
  std::optional<std::string> description;

  bool isInDomain(std::string_view constant) const { return domain.data() == constant.data(); }
  // What a person is shown: the description, else domain and code.
  std::string localizedDescription() const;
};

// Errors of reading and writing files. The code is the system's error number, except for a file that is not there.
[[gnu::visibility("default")]] inline constexpr char FileErrorDomainText[] = "File";
inline constexpr std::string_view FileErrorDomain{FileErrorDomainText};
inline constexpr std::int64_t FileErrorNoSuchFile = 260;

// Errors of the property-list readers; the code is the byte offset at which reading stopped.
[[gnu::visibility("default")]] inline constexpr char PlistErrorDomainText[] = "PropertyList";
inline constexpr std::string_view PlistErrorDomain{PlistErrorDomainText};

}  // namespace platform
