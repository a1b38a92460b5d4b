#include "Vornik/VKError.h"

namespace Vornik {

std::optional<std::string_view> VKErrorName(std::int64_t code) {
  switch (code) {
    case VKErrorRegistry:
      return "VKErrorRegistry";
    case VKErrorInvalidRequest:
      return "VKErrorInvalidRequest";
    case VKErrorVersion:
      return "VKErrorVersion";
    case VKErrorPath:
      return "VKErrorPath";
    case VKErrorNotPermitted:
      return "VKErrorNotPermitted";
    case VKErrorInvalidPlugIn:
      return "VKErrorInvalidPlugIn";
    case VKErrorBusy:
      return "VKErrorBusy";
    case VKErrorInvalidValue:
      return "VKErrorInvalidValue";
    default:
      return std::nullopt;
  }
}

DomainError vk_error(std::int64_t code, std::optional<std::string> message) {
  return DomainError{VKErrorDomain, code, std::move(message)};
}

}  // namespace Vornik
