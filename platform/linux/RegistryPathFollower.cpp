#include "platform/linux/RegistryPathFollower.h"

#include <fcntl.h>

#include <algorithm>
#include <optional>
#include <utility>

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
std::vector<RegistryPathFollower::Step> RegistryPathFollower::walk(const std::string& path) {
  std::vector<Step> steps;
  std::string directory = "/";
  for (std::size_t at = path.find_first_not_of('/'); at != std::string::npos;) {
    std::size_t end = std::min(path.find('/', at), path.size());
    steps.push_back({directory, path.substr(at, end - at)});
    enter(steps.back());
    std::optional<std::string> next = root_->canonicalPath(directory + "/" + steps.back().name);
    if (!next) break;
    directory = *std::move(next);
    at = path.find_first_not_of('/', end);
  }
  return steps;
}

void RegistryPathFollower::follow(const std::string& path) {
  std::vector<Step> steps = walk(path);
  std::swap(followed_[path], steps);
  for (const Step& step : steps) leave(step);
}

void RegistryPathFollower::unfollow(const std::string& path) {
  auto known = followed_.find(path);
  if (known == followed_.end()) return;
  for (const Step& step : known->second) leave(step);
  followed_.erase(known);
}

void RegistryPathFollower::refresh() {
  for (auto& [path, steps] : followed_) {
    std::vector<Step> old = std::exchange(steps, walk(path));
    for (const Step& step : old) leave(step);
  }
}

bool RegistryPathFollower::concerns(const std::string& directory, std::string_view name) const {
  auto crossing = crossings_.find(directory);
  return crossing != crossings_.end() && (name.empty() || crossing->second.names.contains(name));
}

}  // namespace platform
