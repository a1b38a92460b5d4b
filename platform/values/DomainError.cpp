#include "platform/values/DomainError.h"

namespace platform {

std::string DomainError::localizedDescription() const {
  if (description) return *description;
  std::string text(domain);
  text += " error ";
  text += std::to_string(code);
  return text;
}

}  // namespace platform
