#include "platform/linux/jobs/RunningInstances.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "platform/linux/files/Directory.h"
#include "platform/linux/files/Files.h"
#include "platform/linux/files/LinuxFileSystem.h"
#include "platform/linux/files/SharedFolders.h"
#include "platform/plists/PropertyList.h"

namespace platform {
namespace {

constexpr mode_t kRecordMode = 0644;
constexpr std::string_view kSuffix = ".plist";

std::string fileNameOf(const ProcessName& process) { return process.text().append(kSuffix); }

std::optional<ProcessName> processOf(std::string_view fileName) {
  if (!fileName.ends_with(kSuffix)) return std::nullopt;
  fileName.remove_suffix(kSuffix.size());
  return ProcessName::parse(fileName);
}

// Whether this file may speak of the process: see the header.
bool maySpeakOf(const struct stat& file, const ProcessName& process) {
  if (!S_ISREG(file.st_mode)) return false;
  if (file.st_uid == 0 || file.st_uid == ::geteuid()) return true;
  struct stat owner {};
  return ::stat(("/proc/" + std::to_string(process.pid)).c_str(), &owner) == 0 && owner.st_uid == file.st_uid;
}

UniqueFd openRecord(int folder, const std::string& name, const ProcessName& process) {
  UniqueFd path(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat state {};
  if (!path || ::fstat(path.get(), &state) != 0 || !maySpeakOf(state, process)) return {};
  return path;
}

std::optional<RunningInstance> read(int folder, const std::string& name, const ProcessName& process) {
  UniqueFd path = openRecord(folder, name, process);
  UniqueFd file = path ? reopenRegularFile(path.get()) : UniqueFd();
  std::optional<std::string> bytes = file ? readAll(file.get(), kMaxInstanceRecordBytes) : std::nullopt;
  PlistValue record = bytes ? parsePropertyList(*bytes) : PlistValue();
  if (!record.isDictionary()) return std::nullopt;
  return RunningInstance{process,
                         std::string(record["BundleIdentifier"].stringValue()),
                         std::string(record["BundleVersion"].stringValue()),
                         std::string(record["Executable"].stringValue()),
                         std::string(record["SandboxProfile"].stringValue()),
                         record["Recorded"].uintValue()};
}

}  // namespace

int RunningInstances::record(const RunningInstance& instance) const {
  PlistValue record = PlistBuilder()
                          .set("ProcessIdentifier", instance.process.pid)
                          .set("StartTime", instance.process.start)
                          .set("BundleIdentifier", instance.bundleIdentifier)
                          .set("BundleVersion", instance.bundleVersion)
                          .set("Executable", instance.executable)
                          .set("SandboxProfile", instance.sandboxProfile)
                          .set("Recorded", instance.recorded)
                          .take();
  std::string text = serializePropertyListXML(record);
  if (text.empty()) return EINVAL;
  if (text.size() > kMaxInstanceRecordBytes) return E2BIG;
  UniqueFd folder = openSharedFolder(*root_, kInstancesFolder);
  if (!folder) return errno;
  return replaceFile(folder.get(), fileNameOf(instance.process), text, kRecordMode, false) ? 0 : errno;
}

void RunningInstances::forget(const ProcessName& process) const {
  UniqueFd folder = root_->open(kInstancesFolder, O_PATH | O_DIRECTORY);
  if (folder) ::unlinkat(folder.get(), fileNameOf(process).c_str(), 0);
}

std::vector<RunningInstance> RunningInstances::select(const std::function<bool(const RunningInstance&)>& wanted) {
  std::vector<RunningInstance> selected;
  {
    std::lock_guard lock(mutex_);
    refresh();
    for (const auto& [name, instance] : known_) {
      if (wanted(instance) && instance.process.runs()) selected.push_back(instance);
    }
  }
  std::sort(selected.begin(), selected.end(), [](const RunningInstance& a, const RunningInstance& b) {
    return std::pair(a.process.start, a.process.pid) < std::pair(b.process.start, b.process.pid);
  });
  return selected;
}

void RunningInstances::refresh() {
  struct stat state {};
  UniqueFd folder = root_->open(kInstancesFolder, O_RDONLY | O_DIRECTORY);
  if (!folder || ::fstat(folder.get(), &state) != 0) {
    folderStamp_.reset();
    known_.clear();
    return;
  }
  FileSystem::Stamp stamp = stampOf(state);
  if (folderStamp_ == stamp && folderSettled_) return;
  folderSettled_ = isSettled(stamp);
  folderStamp_ = stamp;
  Known found;
  forEachEntry(folder.get(), kMaxInstanceEntries, [&](const char* name) {
    Known::node_type known = known_.extract(name);
    if (known) {
      found.insert(std::move(known));
      return;
    }
    std::optional<ProcessName> process = processOf(name);
    if (!process || !process->runs()) return;
    std::optional<RunningInstance> instance = read(folder.get(), name, *process);
    if (instance) {
      found.emplace(name, std::move(*instance));
    } else {
      folderSettled_ = false;  // perhaps only this process lacked something for a moment
    }
  });
  known_ = std::move(found);
}

bool RunningInstances::mayBeInstance(const ProcessName& process) const {
  UniqueFd folder = root_->open(kInstancesFolder, O_PATH | O_DIRECTORY);
  if (!folder) return errno != ENOENT;
  errno = 0;
  UniqueFd record = openRecord(folder.get(), fileNameOf(process), process);
  // Without an error the record is somebody else's, who has no say here.
  return record || (errno != 0 && errno != ENOENT);
}

void RunningInstances::sweep() const {
  UniqueFd folder = root_->open(kInstancesFolder, O_RDONLY | O_DIRECTORY);
  if (!folder) return;
  forEachEntry(folder.get(), kMaxInstanceEntries, [&](const char* name) {
    std::optional<ProcessName> process = processOf(name);
    if (process && !process->runs()) ::unlinkat(folder.get(), name, 0);
  });
}

}  // namespace platform
