// The running instances of plug-ins: who started one records it before it executes any code of its own.
//
//   /run/jobd/instances/<pid>-<start>.plist
//
// Every user may record his own: a record counts only when its file belongs to the user whose process it names, to root
// or to this process's user. A record counts only while its process runs, so that a process id that was used again
// inherits nothing. Safe from any thread and from several processes.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/jobs/ProcessStart.h"

namespace platform {

inline constexpr std::uint64_t kMaxInstanceRecordBytes = std::uint64_t{64} << 10;
// No more entries of the folder are looked at; records of processes that do not run are not opened.
inline constexpr unsigned kMaxInstanceEntries = 65536;

struct RunningInstance {
  ProcessName process;
  std::string bundleIdentifier;
  std::string bundleVersion;
  std::string executable;
  std::string sandboxProfile;
  std::uint64_t recorded = 0;  // machineNow() of the service record that it was started from
};

class RunningInstances {
 public:
  explicit RunningInstances(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}

  // 0 or an error number.
  int record(const RunningInstance& instance) const;
  void forget(const ProcessName& process) const;

  // Those that run now and that `wanted` keeps, oldest first. The folder is read again only when it changed.
  std::vector<RunningInstance> select(const std::function<bool(const RunningInstance&)>& wanted);
  // Whether this running process is recorded; true also when that cannot be found out.
  bool mayBeInstance(const ProcessName& process) const;
  // Removes the records of processes that have ended.
  void sweep() const;

 private:
  using Known = std::unordered_map<std::string, RunningInstance>;
  void refresh();

  const std::shared_ptr<const DeviceRoot> root_;
  std::mutex mutex_;  // guards what follows
  std::optional<FileSystem::Stamp> folderStamp_;
  bool folderSettled_ = false;
  Known known_;  // by file name
};

}  // namespace platform
