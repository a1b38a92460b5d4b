// The service manager jobd: external services of hosts; and assurd, which knows the running instances.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/WorkQueue.h"
#include "platform/values/Message.h"

namespace platform {

// The key under which both services put a bundle identifier.
inline constexpr std::string_view kJobdExtensionBundleIdentifierKey = "BundleIdentifier";
inline constexpr std::string_view kAssurdBundleIdentifierKey = "BundleIdentifier";
// The key under which assurd puts the process of an instance, a signed integer.
inline constexpr std::string_view kAssurdProcessIdentifierKey = "ProcessIdentifier";

class ServiceManager {
 public:
  virtual ~ServiceManager() = default;
  // Lets the host start the executable as a service of its own: 0, else the error number of what is wrong.
  virtual int addExternalService(std::int32_t hostPid, std::string_view executablePath, const Message& overlay) = 0;
  // Ends running instances and forgets the records, without making the caller wait; the completion runs on `queue`:
  // 0 done, 3 nothing on record, else an error number.
  virtual void removeExternalService(std::string_view bundleIdentifier, std::string_view bundleVersion,
                                     std::shared_ptr<WorkQueue> queue, std::function<void(int)> completion) = 0;
};

class AssertionService {
 public:
  virtual ~AssertionService() = default;
  // A dictionary for each running instance of these bundles, oldest first.
  virtual std::vector<Message> busyExtensionInstances(const std::set<std::string>& bundleIdentifiers) = 0;
};

}  // namespace platform
