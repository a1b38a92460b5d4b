#include "platform/linux/registry/RegistryPathFollower.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <utility>

#include "platform/linux/files/PathWalk.h"
#include "platform/linux/registry/RegistryPaths.h"

namespace platform {

void RegistryPathFollower::enter(const Step& step) {
  Crossing& crossing = crossings_[step.directory];
  ++crossing.names[step.name];
  UniqueFd directory = root_->openWithoutLinks(step.directory, O_PATH | O_DIRECTORY);
  if (directory) {
    watcher_.hold(crossing.hold, step.directory, directory.get(), RegistryWatcher::Changes::Names);
  }
}

void RegistryPathFollower::leave(const Step& step) {
  auto crossing = crossings_.find(step.directory);
  auto name = crossing->second.names.find(step.name);
  if (--name->second != 0) return;
  crossing->second.names.erase(name);
  if (!crossing->second.names.empty()) return;
  watcher_.release(crossing->second.hold);
  crossings_.erase(crossing);
}

// As far as the way goes at present. A directory is watched before the next part is looked for.
std::vector<RegistryPathFollower::Step> RegistryPathFollower::walk(const std::string& followed) {
  std::vector<Step> steps;
  std::string directory = "/";
  std::string rest = followed;
  for (int links = 0; links <= kMaxLinksFollowed;) {
    std::size_t start = rest.find_first_not_of('/');
    if (start == std::string::npos) break;
    std::size_t end = std::min(rest.find('/', start), rest.size());
    std::string name = rest.substr(start, end - start);
    rest.erase(0, end);
    if (name == ".") continue;
    if (name == "..") {
      directory = parentOf(directory);
      continue;
    }
    steps.push_back({directory, name});
    enter(steps.back());
    std::string path = joinPath(directory, name);
    UniqueFd place = root_->open(path, O_PATH | O_NOFOLLOW);
    if (!place) break;
    char target[PATH_MAX];
    ssize_t length = ::readlinkat(place.get(), "", target, sizeof target);
    if (length < 0) {  // no link
      directory = std::move(path);
      continue;
    }
    ++links;
    if (length != 0 && target[0] == '/') directory = "/";
    rest.insert(0, target, static_cast<std::size_t>(length));
  }
  return steps;
}

void RegistryPathFollower::follow(const std::string& path, Reason reason) {
  std::vector<Step> steps = walk(path);
  Followed& followed = followed_[path];
  followed.reasons |= reason;
  std::swap(followed.steps, steps);
  for (const Step& step : steps) leave(step);
}

void RegistryPathFollower::unfollow(const std::string& path, Reason reason) {
  auto known = followed_.find(path);
  if (known == followed_.end() || (known->second.reasons &= ~static_cast<unsigned>(reason)) != 0) return;
  for (const Step& step : known->second.steps) leave(step);
  followed_.erase(known);
}

void RegistryPathFollower::refresh() {
  for (auto& [path, followed] : followed_) {
    std::vector<Step> old = std::exchange(followed.steps, walk(path));
    for (const Step& step : old) leave(step);
  }
}

bool RegistryPathFollower::concerns(const std::string& directory, std::string_view name) const {
  auto crossing = crossings_.find(directory);
  return crossing != crossings_.end() && (name.empty() || crossing->second.names.contains(name));
}

}  // namespace platform
