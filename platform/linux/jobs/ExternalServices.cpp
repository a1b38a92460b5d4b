#include "platform/linux/jobs/ExternalServices.h"

#include <fcntl.h>

#include <cerrno>

#include "platform/linux/files/Directory.h"
#include "platform/linux/files/Files.h"
#include "platform/plists/PropertyList.h"
#include "platform/values/SHA.h"

namespace platform {
namespace {

constexpr std::string_view kFolder = "/run/jobd/services";
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kRecordMode = 0644;
constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::string fileNameFor(std::string_view executable) { return hexText(sha256(executable)) + ".plist"; }

PlistValue toPlist(const ExternalService& service) {
  return PlistBuilder()
      .set("HostProcessIdentifier", service.host.pid)
      .set("HostStartTime", service.host.start)
      .set("Executable", service.executable)
      .set("BundleIdentifier", service.bundleIdentifier)
      .set("BundleVersion", service.bundleVersion)
      .set("Overlay", service.overlay)
      .set("Recorded", service.recorded)
      .take();
}

std::optional<ExternalService> read(int directory, const char* name, const ProcessName& host) {
  UniqueFd path(::openat(directory, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  UniqueFd file = path ? reopenRegularFile(path.get()) : UniqueFd();
  std::optional<std::string> bytes = file ? readAll(file.get(), kMaxServiceRecordBytes) : std::nullopt;
  // An overlay wraps what a manifest may have nested as deeply as a file can.
  PlistValue record = bytes ? parsePropertyList(*bytes, nullptr, kPlistMaxDepth) : PlistValue();
  if (!record.isDictionary()) return std::nullopt;
  return ExternalService{host,
                         std::string(record["Executable"].stringValue()),
                         std::string(record["BundleIdentifier"].stringValue()),
                         std::string(record["BundleVersion"].stringValue()),
                         record["Overlay"],
                         record["Recorded"].uintValue()};
}

// Calls visit(folder of the host, its name, host) for each.
template <class Visit>
void forEachHost(int services, Visit visit) {
  forEachEntry(services, kMaxServiceEntries, [&](const char* name) {
    std::optional<ProcessName> host = ProcessName::parse(name);
    UniqueFd folder(host ? ::openat(services, name, kDirectory) : -1);
    if (folder) visit(folder.get(), name, *host);
  });
}

}  // namespace

int ExternalServices::record(const ExternalService& service) const {
  std::string text = serializePropertyListXML(toPlist(service));
  if (text.empty()) return EINVAL;
  if (text.size() > kMaxServiceRecordBytes) return E2BIG;
  UniqueFd folder = root_->makeDirectories(std::string(kFolder).append("/").append(service.host.text()), kFolderMode);
  if (!folder) return errno;
  std::lock_guard lock(changing_);
  return replaceFile(folder.get(), fileNameFor(service.executable), text, kRecordMode, false) ? 0 : errno;
}

std::optional<ExternalService> ExternalServices::find(const ProcessName& host, std::string_view executable) const {
  UniqueFd folder = root_->open(std::string(kFolder).append("/").append(host.text()), O_PATH | O_DIRECTORY);
  if (!folder) return std::nullopt;
  return read(folder.get(), fileNameFor(executable).c_str(), host);
}

std::vector<unsigned> ExternalServices::forget(const std::vector<Selection>& selections) const {
  std::vector<unsigned> forgotten(selections.size());
  UniqueFd services = root_->open(kFolder, O_RDONLY | O_DIRECTORY);
  if (!services) return forgotten;
  forEachHost(services.get(), [&](int folder, const char*, const ProcessName& host) {
    forEachEntry(folder, kMaxServiceEntries, [&](const char* name) {
      std::optional<ExternalService> service = read(folder, name, host);
      if (!service) return;
      bool selected = false;
      for (std::size_t i = 0; i < selections.size(); ++i) {
        if (!selections[i].selects(service->bundleIdentifier, service->bundleVersion, service->recorded)) continue;
        ++forgotten[i];
        selected = true;
      }
      if (!selected) return;
      std::lock_guard lock(changing_);
      std::optional<ExternalService> now = read(folder, name, host);
      if (now && now->recorded == service->recorded) ::unlinkat(folder, name, 0);
    });
  });
  return forgotten;
}

bool ExternalServices::sweep() const {
  UniqueFd services = root_->open(kFolder, O_RDONLY | O_DIRECTORY);
  if (!services) return false;
  bool left = false;
  forEachHost(services.get(), [&](int folder, const char* folderName, const ProcessName& host) {
    if (host.runs()) {
      left = true;
      return;
    }
    forEachEntry(folder, kMaxServiceEntries, [&](const char* name) { ::unlinkat(folder, name, 0); });
    ::unlinkat(services.get(), folderName, AT_REMOVEDIR);
  });
  return left;
}

}  // namespace platform
