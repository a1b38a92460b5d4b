// The code identity of a plug-in: a code-directory hash and a designated requirement. A placeholder: it reads nothing
// from disk, and every object has a hash of its own. Immutable, so safe from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Vornik/VKStandard.h"
#include "platform/values/DomainError.h"
#include "platform/values/FileURL.h"

namespace Vornik {

using namespace platform;

class VKDPlugInSignature {
 public:
  using Hash = std::array<std::uint8_t, 20>;

  // Never fails and never sets *error.
  static std::shared_ptr<VKDPlugInSignature> initWithURLError(const FileURL& url, std::optional<DomainError>* error);

  const Hash& cdhash() const { return cdhash_; }
  const std::string& requirement() const { return requirement_; }

 private:
  VKDPlugInSignature(const Hash& cdhash, std::string requirement)
      : cdhash_(cdhash), requirement_(std::move(requirement)) {}

  const Hash cdhash_;
  const std::string requirement_;
};

}  // namespace Vornik
