// The code identity of a running process: what its executable's entitlements say.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/MessageConnection.h"
#include "platform/values/DomainError.h"
#include "platform/values/PlistValue.h"

namespace platform {

class CodeSigningTask {
 public:
  virtual ~CodeSigningTask() = default;
  // The value of the named entitlement, nothing when the process has none. *error is set when its entitlements could
  // not be read or the process is no longer the one that connected; nothing is answered then. From any thread.
  virtual PlistValue entitlement(std::string_view name, std::optional<DomainError>* error) = 0;
  // All of them as one dictionary, nothing when there are none; the check of the process is made once. For whoever asks
  // the same process about thousands of plug-ins in one request: whatever is asked of the result is not checked again.
  virtual PlistValue entitlements(std::optional<DomainError>* error) = 0;
};

class CodeSigning {
 public:
  virtual ~CodeSigning() = default;
  virtual std::unique_ptr<CodeSigningTask> task(std::shared_ptr<AuditToken> token) = 0;
  // The executable's device path (its plain path when it lies outside the device root); nothing when the process is
  // gone or the path is longer than 2047 bytes.
  virtual std::optional<std::string> executablePath(std::int32_t pid) = 0;
  // The same of the process that connected; nothing when it is no longer that one, whoever has its id by now.
  virtual std::optional<std::string> executablePathOfPeer(const AuditToken& peer) { return executablePath(peer.pid()); }
  // What the entitlement file of an executable says, whoever may run it: a dictionary or nothing, and *error when the
  // file does not count or cannot be read. For tools that look at a bundle.
  virtual PlistValue entitlementsOfExecutable(std::string_view /*path*/, std::optional<DomainError>* /*error*/) {
    return {};
  }
};

}  // namespace platform
