// The daemon's error domain, its codes, and the two functions that make errors in it. The numbers are part of the
// protocol: clients test them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Vornik/VKStandard.h"
#include "platform/values/DomainError.h"
#include "platform/values/Format.h"

namespace Vornik {

using namespace platform;

// An error is of this domain when it points at this very text, so it is one object in the whole process, shared
// libraries included.
[[gnu::visibility("default")]] inline constexpr char VKErrorDomainText[] = "Vornik";
inline constexpr std::string_view VKErrorDomain{VKErrorDomainText};

enum VKErrorCode : std::int64_t {
  VKErrorRegistry = 2,        // the application registry refused, or knows no such plug-in
  VKErrorInvalidRequest = 4,  // the request is malformed or cannot be served; a transport failure seen by a client
  VKErrorVersion = 7,         // a protocol or file version that is not spoken here
  VKErrorPath = 9,            // a path that is relative, unresolvable, or names no plug-in
  VKErrorNotPermitted = 11,   // the caller may not do this
  VKErrorInvalidPlugIn = 12,  // the plug-in's manifest or placement is wrong
  VKErrorBusy = 14,           // running instances stand in the way
  VKErrorInvalidValue = 18,   // a value of the request is of the wrong kind
};

// The name of a code as it stands above; nothing for any other number.
std::optional<std::string_view> VKErrorName(std::int64_t code);

// An error of this domain; without message it has no description.
DomainError vk_error(std::int64_t code, std::optional<std::string> message = std::nullopt);

template <class... Args>
DomainError vk_errorf(std::int64_t code, FormatString<std::type_identity_t<Args>...> format, const Args&... args) {
  return vk_error(code, formatText<Args...>(format, args...));
}

}  // namespace Vornik
