// Follows paths whose every part may come, go or be a link: all directories on the way, that of links included, are
// watched for the one name that matters. Used by one thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/registry/RegistryWatcher.h"

namespace platform {

class RegistryPathFollower {
 public:
  RegistryPathFollower(std::shared_ptr<const DeviceRoot> root, RegistryWatcher& watcher)
      : root_(std::move(root)), watcher_(watcher) {}

  // Why a path is followed: until no reason is left.
  enum Reason : unsigned { TopFolder = 1, FolderOfRequests = 2, Link = 4 };
  // Following a path again looks at the way anew.
  void follow(const std::string& path, Reason reason);
  void unfollow(const std::string& path, Reason reason);
  // After a change on the way of any of them.
  void refresh();
  // Whether this name in this directory is on the way of a path, or its end.
  bool concerns(const std::string& directory, std::string_view name) const;

 private:
  struct Step {
    std::string directory, name;
  };
  struct Followed {
    unsigned reasons = 0;
    std::vector<Step> steps;
  };
  struct Crossing {
    RegistryWatcher::Hold hold = RegistryWatcher::kNone;
    std::map<std::string, std::uint32_t, std::less<>> names;
  };
  std::vector<Step> walk(const std::string& followed);
  void enter(const Step& step);
  void leave(const Step& step);

  const std::shared_ptr<const DeviceRoot> root_;
  RegistryWatcher& watcher_;
  std::unordered_map<std::string, Followed> followed_;
  std::unordered_map<std::string, Crossing> crossings_;  // by directory
};

}  // namespace platform
