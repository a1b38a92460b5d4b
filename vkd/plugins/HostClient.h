// What the policies for hosts and the preparation of plug-ins want to know of the process that asks. The daemon's
// client connection is one; a test's is another. Asked on the queue that serves the request.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Vornik/VKBundle.h"
#include "platform/values/PlistValue.h"

namespace vkd {

class HostClient {
 public:
  virtual ~HostClient() = default;
  virtual std::int32_t pid() const = 0;
  // The path of its executable, empty when unknown.
  virtual const std::string& path() const = 0;
  // Null when its executable belongs to none.
  virtual const std::shared_ptr<Vornik::VKBundle>& bundle() const = 0;
  // The value of one of its entitlements, or nothing.
  virtual platform::PlistValue entitlementValueForKey(std::string_view name) const = 0;
  // Whether it has the entitlement with any value that does not equal false.
  virtual bool hasEntitlement(std::string_view name) const = 0;
};

}  // namespace vkd
