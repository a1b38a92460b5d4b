#include "vkd/annotations/VKDAnnotationStore.h"

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Vornik/VKError.h"
#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "platform/Trace.h"
#include "platform/plists/PropertyList.h"
#include "vkd/annotations/AnnotationXML.h"

namespace vkd {

using namespace Vornik;

namespace {

constexpr std::int64_t kStoreVersion = 16;
constexpr std::string_view kGlobalPath = "/var/db/Vornik-Annotations";
constexpr std::string_view kContainerIdentifier = "com.vantrel.vkd";
constexpr std::uint32_t kContainerClass = 10;
constexpr std::string_view kStorageDirectory = "com.vantrel.vornik";
constexpr std::string_view kStorageFile = "Annotations";
constexpr unsigned kStoragePermissions = 0700;
// A file that cannot be read back must not be written.
constexpr std::size_t kMaxFileBytes = kPlistMaxBytes;
// Names tried for a file that is moved aside; more than one within a second means that somebody is at play.
constexpr int kMaxAsideNames = 100;

void reportLoadFailure(const DomainError& error) {
  if (!trace::dbLoadEnabled()) return;
  trace::dbLoad(std::string(error.domain).c_str(), static_cast<std::uint64_t>(error.code));
}

FileURL storageFileIn(const FileURL& container) {
  return container.appending(kStorageDirectory).appending(kStorageFile);
}

// "20261122T194001Z".
std::string dateForName() {
  using namespace std::chrono;
  const auto now = floor<seconds>(system_clock::now());
  const auto today = floor<days>(now);
  const year_month_day date(today);
  const hh_mm_ss time(now - today);
  std::string text;
  const auto append = [&](std::int64_t number, std::size_t digits) {
    const std::string plain = std::to_string(number);
    if (plain.size() < digits) text.append(digits - plain.size(), '0');
    text += plain;
  };
  append(int{date.year()}, 4);
  append(unsigned{date.month()}, 2);
  append(unsigned{date.day()}, 2);
  text += 'T';
  append(time.hours().count(), 2);
  append(time.minutes().count(), 2);
  append(time.seconds().count(), 2);
  return text + 'Z';
}

// What of `base` and `over` is in force: the entries of `over`, and those of `base` that it does not mention.
PlistValue merged(const PlistValue& base, const PlistValue& over) {
  PlistBuilder builder(base);
  for (const auto& [key, value] : over.entries()) builder.set(key, value);
  return builder.take();
}

}  // namespace

// --- Location -------------------------------------------------------------------------------------------------------

FileURL VKDAnnotationStore::globalURL() { return FileURL{std::string(kGlobalPath)}; }

FileURL VKDAnnotationStore::containerURL(const Services& services) {
  std::uint64_t code = 0;
  auto container = services.containers->userDataContainer(kContainerClass, kContainerIdentifier, &code);
  if (container) return *container;
  VK_LOG(vk_ops(), Error, "failed to get storage container: error=%llu", code);
  throw StartupFailure(formatText("unable to locate user container: error %llu", code));
}

FileURL VKDAnnotationStore::defaultDatabaseURL(const Services& services) {
  if (!services.users->isMultiUser()) return globalURL();
  const FileURL container = containerURL(services);
  const FileURL directory = container.appending(kStorageDirectory);
  DomainError error;
  if (!services.files->createDirectory(directory, kStoragePermissions, &error)) {
    VK_LOG(vk_ops(), Error, "failed to create storage directory at %{public}@ - error=%{public}@", directory, error);
    throw StartupFailure(
        formatText("unable to create plugin annotations directory:%@ error:%@", directory.path, error));
  }
  FileURL file = storageFileIn(container);
  VK_LOG(vk_ops(), Debug, "annotations are stored at %{public}@", file);
  return file;
}

// --- Start ----------------------------------------------------------------------------------------------------------

VKDAnnotationStore::VKDAnnotationStore(const Services& services, FileURL url)
    : services_(services), annotationsURL_(std::move(url)), table_(std::make_shared<AnnotationTable>()) {}

std::unique_ptr<VKDAnnotationStore> VKDAnnotationStore::initWithDatabase(const Services& services,
                                                                         const std::optional<std::string>& path) {
  FileURL url = path ? FileURL{*path} : defaultDatabaseURL(services);
  std::unique_ptr<VKDAnnotationStore> store(new VKDAnnotationStore(services, std::move(url)));
  store->load();
  return store;
}

void VKDAnnotationStore::load() {
  DomainError error;
  if (loadDbError(annotationsURL_, &error)) return;
  const bool missing = error.isInDomain(FileErrorDomain) && error.code == FileErrorNoSuchFile;
  if (!missing) {
    unreadableFile_ = true;
    VK_LOG(vk_ops(), Error, "unable to load annotation database:%{public}@ error:%{public}@ (resetting)",
           annotationsURL_, error);
  }
  // The device may have been in the other user mode until now.
  const FileURL fallback = services_.users->isMultiUser() ? globalURL() : storageFileIn(containerURL(services_));
  if (!loadDbError(fallback, &error)) return;
  VK_LOG(vk_ops(), Info, "migrating shared annotations");
  if (!saveDb(&error)) {
    VK_LOG(vk_ops(), Error, "unable to save migrated annotations to %{public}@ error:%{public}@", annotationsURL_,
           error);
  }
}

bool VKDAnnotationStore::loadDbError(const FileURL& url, DomainError* error) {
  DomainError problem;
  const auto fail = [&] {
    reportLoadFailure(problem);
    if (error != nullptr) *error = std::move(problem);
    return false;
  };
  const auto bytes = services_.files->readFile(url, &problem);
  if (!bytes) return fail();
  // What was saved is deeper than what came in.
  const PlistValue file = parsePropertyList(*bytes, &problem, kPlistMaxDepth);
  if (!file) return fail();
  const std::int64_t version = file[kVKStoreVersion].intValue();
  if (version != kStoreVersion) {
    problem = vk_errorf(VKErrorVersion, "found database version %d needed version %d", version, kStoreVersion);
    return fail();
  }
  auto table = std::make_shared<AnnotationTable>();
  const PlistValue data = file[kVKStoreData];
  if (data.isDictionary()) {
    for (const auto& [key, annotation] : data.entries()) table->set(key, annotation);
  }
  table_ = std::move(table);
  return true;
}

// --- Annotations ----------------------------------------------------------------------------------------------------

PlistValue VKDAnnotationStore::annotationForPlugIn(const Annotated& plugIn) const {
  return annotationForIdentifier(plugIn.annotationKey());
}

AnnotationSnapshot VKDAnnotationStore::snapshot() const { return AnnotationTable::snapshot(table_); }

AnnotationTable& VKDAnnotationStore::writableTable() {
  if (table_->isRead()) table_ = std::make_shared<AnnotationTable>(*table_);
  return *table_;
}

void VKDAnnotationStore::setAnnotationForPlugIn(const PlistValue& annotation, const Annotated& plugIn) {
  const std::string_view key = plugIn.annotationKey();
  DomainError error;
  try {
    if (annotation) {
      writableTable().set(key, merged(annotationForIdentifier(key), annotation));
    } else {
      writableTable().remove(key);
    }
  } catch (const std::length_error& tooLarge) {
    // Together they are more than a property list can be: what is stored stays.
    VK_LOG(vk_ops(), Error, "unable to change annotation of %{public}@: %{public}s", key, tooLarge.what());
    return;
  }
  if (!saveDb(&error)) {
    VK_LOG(vk_ops(), Error, "unable to save annotations:%{public}@ error:%{public}@", annotationsURL_, error);
  }
}

// --- Saving ---------------------------------------------------------------------------------------------------------

bool VKDAnnotationStore::saveDb(DomainError* error) {
  const std::string text = fileText();
  if (text.size() > kMaxFileBytes) {
    if (error != nullptr) *error = vk_error(VKErrorInvalidValue, "the annotations are too large for one file");
    return false;
  }
  if (unreadableFile_ && !keepUnreadableFile(error)) return false;
  return services_.files->writeFileAtomically(annotationsURL_, text, error);
}

// The file's text around the entries is what the writer makes of a table without any; of the entries only those that
// changed are written anew.
std::string VKDAnnotationStore::fileText() {
  const PlistValue empty =
      PlistBuilder().set(kVKStoreVersion, kStoreVersion).set(kVKStoreData, PlistBuilder().take()).take();
  std::string frame = serializePropertyListXML(empty);
  constexpr std::string_view kEmptyTable = "<dict/>";
  const std::size_t gap = frame.find(kEmptyTable);

  std::size_t size = frame.size() + 2 * kEmptyTable.size();
  for (AnnotationTable::Entry& entry : table_->entriesToWrite()) {
    if (entry.xml.size() == 0 && !entry.unwritable) {
      if (auto xml = annotationXML(entry.key.stringValue(), entry.annotation)) {
        entry.xml = SharedSlice::take(*std::move(xml));
      } else {
        entry.unwritable = true;
        VK_LOG(vk_ops(), Error, "annotation of %{public}@ cannot be saved and is kept in memory only", entry.key);
      }
    }
    size += entry.xml.size();
  }
  if (size == frame.size() + 2 * kEmptyTable.size()) return frame;

  std::string text;
  text.reserve(size);
  text.append(frame, 0, gap) += "<dict>\n";
  for (const AnnotationTable::Entry& entry : table_->entries()) text += entry.xml.view();
  (text += "\t</dict>").append(frame, gap + kEmptyTable.size());
  return text;
}

bool VKDAnnotationStore::keepUnreadableFile(DomainError* error) {
  const std::string base = annotationsURL_.path + ".unreadable-" + dateForName();
  for (int attempt = 0; attempt < kMaxAsideNames; ++attempt) {
    const FileURL aside{attempt == 0 ? base : base + "-" + std::to_string(attempt)};
    if (services_.files->exists(aside)) continue;
    DomainError problem;
    if (services_.files->keepFile(annotationsURL_, aside, &problem)) {
      VK_LOG(vk_ops(), Error, "kept the annotation database that could not be loaded at %{public}@", aside);
    } else if (!problem.isInDomain(FileErrorDomain) || problem.code != FileErrorNoSuchFile) {
      if (error != nullptr) *error = std::move(problem);
      return false;
    }
    unreadableFile_ = false;
    return true;
  }
  if (error != nullptr) *error = vk_error(VKErrorPath, "no name is free for the file that could not be loaded");
  return false;
}

}  // namespace vkd
