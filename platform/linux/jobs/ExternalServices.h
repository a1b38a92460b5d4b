// The records of the service manager: which host may start which executable as a service of its own.
//
//   /run/jobd/services/<host pid>-<host start>/<digest of the executable's path>.plist
//
// The daemon writes them, every process may read them; a record is replaced at once or not at all. Records of hosts
// that have ended are swept. Safe from any thread, and for other processes to read meanwhile.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/jobs/ProcessStart.h"
#include "platform/values/PlistValue.h"

namespace platform {

// A larger record is refused (E2BIG): it would not fit an environment either.
inline constexpr std::uint64_t kMaxServiceRecordBytes = std::uint64_t{1} << 20;
// No more entries of one folder of records are looked at.
inline constexpr unsigned kMaxServiceEntries = 65536;

struct ExternalService {
  ProcessName host;
  std::string executable;        // canonical device path
  std::string bundleIdentifier;  // empty when it is in no bundle
  std::string bundleVersion;
  PlistValue overlay;
  std::uint64_t recorded = 0;  // machineNow()
};

class ExternalServices {
 public:
  explicit ExternalServices(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}

  // 0 or an error number.
  int record(const ExternalService& service) const;
  std::optional<ExternalService> find(const ProcessName& host, std::string_view executable) const;

  // Of a bundle in one version, recorded before `before`.
  struct Selection {
    std::string bundleIdentifier;
    std::string bundleVersion;
    std::uint64_t before = 0;
    bool selects(std::string_view identifier, std::string_view version, std::uint64_t recorded) const {
      return identifier == bundleIdentifier && version == bundleVersion && recorded < before;
    }
  };
  // Forgets what each selection selects; answers for each how many there were.
  std::vector<unsigned> forget(const std::vector<Selection>& selections) const;
  // Forgets what belongs to hosts that have ended; answers whether there are others.
  bool sweep() const;

 private:
  const std::shared_ptr<const DeviceRoot> root_;
  mutable std::mutex changing_;  // a record that was just renewed is not forgotten for the old one
};

}  // namespace platform
