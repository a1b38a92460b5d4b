// The kernel's notifications of changes in directories. A directory is watched as long as somebody holds it; events
// name it by the path under which it was last watched. Used by one thread at a time, but for fd().
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/linux/files/UniqueFd.h"

namespace platform {

class RegistryWatcher {
 public:
  // A hold on a directory; negative is none.
  using Hold = int;
  static constexpr Hold kNone = -1;
  // Which changes are told: of what lies in the directory, or also of the content of those files.
  enum class Changes { Names, Content };

  // Without the kernel's help (said once in the log) nothing is followed.
  RegistryWatcher();
  RegistryWatcher(const RegistryWatcher&) = delete;
  RegistryWatcher& operator=(const RegistryWatcher&) = delete;

  // To wait on for reading; negative without the kernel's help.
  int fd() const { return fd_.get(); }
  // Watches the directory that is open here, and lets go of the one that was held before. From now on each change is
  // told; true when it was not before, so that what was looked at already must be looked at again.
  bool hold(Hold& hold, const std::string& path, int directory, Changes changes);
  void release(Hold& hold);

  // Tells all that happened since: `name` is empty when the directory itself was moved, deleted or changed. False when
  // events were lost.
  using Visitor = std::function<void(const std::string& directory, std::string_view name)>;
  bool read(const Visitor& visit);

 private:
  struct Watch {
    std::string path;
    std::uint32_t holds = 0;
  };
  void complain(int errorNumber);

  UniqueFd fd_;
  std::unordered_map<int, Watch> watches_;
  bool complained_ = false;
};

}  // namespace platform
