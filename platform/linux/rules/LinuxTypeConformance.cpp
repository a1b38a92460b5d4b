#include "platform/linux/rules/LinuxTypeConformance.h"

#include <fcntl.h>

#include <algorithm>
#include <ctime>
#include <unordered_map>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/files/Directory.h"
#include "platform/linux/files/Files.h"
#include "platform/linux/files/LinuxFileSystem.h"

namespace platform {
namespace {

constexpr std::string_view kTypesFolder = "/System/Library/Types/";
// More declaration files are not looked at: each costs a look at every recheck.
constexpr std::size_t kMaxTypeFiles = 256;

std::int64_t coarseNow() {
  timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
  return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

}  // namespace

struct LinuxTypeConformance::FileState {
  std::string path;
  std::optional<FileSystem::Stamp> stamp;
  friend bool operator==(const FileState&, const FileState&) = default;
};

struct LinuxTypeConformance::Table {
  using Index = std::uint32_t;
  std::unordered_map<std::string, Index, TextHash, std::equal_to<>> indexes;
  std::vector<std::vector<Index>> parents;

  Index indexOf(std::string_view type) {
    auto [at, isNew] = indexes.try_emplace(std::string(type), static_cast<Index>(parents.size()));
    if (isNew) parents.emplace_back();
    return at->second;
  }

  void declare(const PlistValue& declaration) {
    PlistValue identifier = declaration["identifier"];
    if (!identifier.isString()) return;
    Index type = indexOf(identifier.stringValue());
    PlistValue conformsTo = declaration["conforms-to"];
    if (conformsTo.isString()) parents[type].push_back(indexOf(conformsTo.stringValue()));
    for (const PlistValue& parent : conformsTo.elements()) {
      if (!parent.isString()) continue;
      Index index = indexOf(parent.stringValue());
      parents[type].push_back(index);
    }
  }

  // Breadth first, the list of the types seen being the list of those to visit: a circle ends by itself.
  bool descends(Index type, Index ancestor) const {
    std::vector<Index> seen{type};
    std::size_t steps = 0;
    for (std::size_t at = 0; at < seen.size(); ++at) {
      for (Index parent : parents[seen[at]]) {
        if (parent == ancestor) return true;
        if (++steps == kMaxTypeSteps) return false;
        if (std::find(seen.begin(), seen.end(), parent) == seen.end()) seen.push_back(parent);
      }
    }
    return false;
  }
};

LinuxTypeConformance::LinuxTypeConformance(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
LinuxTypeConformance::~LinuxTypeConformance() = default;

bool LinuxTypeConformance::conforms(std::string_view type, std::string_view parent) {
  if (type == parent) return true;
  std::shared_ptr<const Table> table = current();
  auto child = table->indexes.find(type);
  if (child == table->indexes.end()) return false;
  auto ancestor = table->indexes.find(parent);
  return ancestor != table->indexes.end() && table->descends(child->second, ancestor->second);
}

std::shared_ptr<const LinuxTypeConformance::Table> LinuxTypeConformance::current() {
  std::int64_t now = coarseNow();
  std::lock_guard lock(mutex_);
  if (table_ != nullptr && now < nextLook_) return table_;
  std::vector<FileState> files = look();
  if (table_ == nullptr || !settled_ || files != files_) {
    settled_ =
        std::all_of(files.begin(), files.end(), [](const FileState& f) { return !f.stamp || isSettled(*f.stamp); });
    table_ = read(files);
    files_ = std::move(files);
  }
  nextLook_ = now + std::chrono::nanoseconds(kTypesRecheckInterval).count();
  return table_;
}

std::vector<LinuxTypeConformance::FileState> LinuxTypeConformance::look() const {
  std::vector<FileState> files;
  UniqueFd folder = root_->open(kTypesFolder, O_RDONLY | O_DIRECTORY);
  if (!folder) return files;
  forEachEntry(folder.get(), kMaxTypeFiles, [&](std::string_view name) {
    if (!name.ends_with(".plist") || name.starts_with('.')) return;
    std::string path = std::string(kTypesFolder).append(name);
    std::optional<FileSystem::Stamp> stamp = stampOf(*root_, path);
    files.push_back({std::move(path), stamp});
  });
  std::sort(files.begin(), files.end(), [](const FileState& a, const FileState& b) { return a.path < b.path; });
  return files;
}

std::shared_ptr<const LinuxTypeConformance::Table> LinuxTypeConformance::read(
    const std::vector<FileState>& files) const {
  auto table = std::make_shared<Table>();
  for (const FileState& file : files) {
    DomainError error;
    PlistValue declarations = readPlistFile(*root_, file.path, &error);
    if (!declarations) {
      VK_LOG(defaultLog(), Error, "unable to read types from %{public}@ error:%{public}@", file.path, error);
    }
    for (const PlistValue& declaration : declarations.elements()) table->declare(declaration);
  }
  return table;
}

}  // namespace platform
