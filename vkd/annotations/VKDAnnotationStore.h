// The one thing the daemon persists: the user's annotations, by annotation key, in memory and in one XML property list
// that is rewritten whole after every change.
//
//   version   16
//   data      annotation key → annotation ("election", "extension", whatever else a writer supplied)
//
// Owned by VKDatabase. After construction everything runs on the registry's queue, except that a snapshot may be read
// anywhere.
//
// What a save cannot lose: a file that could not be read gets a second name, and the log says which, before the first
// save takes its place. While it cannot get one, saves fail and changes are kept in memory only.
//
// What a client cannot break: an annotation that a file cannot hold as it is (AnnotationXML.h) is saved as far as
// possible, or kept in memory only; all others are saved.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Services.h"
#include "platform/values/DomainError.h"
#include "platform/values/FileURL.h"
#include "platform/values/PlistValue.h"
#include "vkd/annotations/Annotated.h"
#include "vkd/annotations/AnnotationTable.h"
#include "vkd/annotations/StartupFailure.h"

namespace vkd {

using namespace platform;

class VKDAnnotationStore {
 public:
  // Where the table is kept unless the command line says otherwise. In multi-user mode this makes the directory; throws
  // StartupFailure when that or the container cannot be had.
  static FileURL defaultDatabaseURL(const Services& services);
  static FileURL globalURL();
  static FileURL containerURL(const Services& services);

  // The store with its table loaded: from its file, else from where the other user mode keeps it, else empty. Needs
  // files, users and containers. Throws StartupFailure. The services must outlive the store.
  static std::unique_ptr<VKDAnnotationStore> initWithDatabase(const Services& services,
                                                              const std::optional<std::string>& path);

  const FileURL& annotationsURL() const { return annotationsURL_; }

  // A dictionary or nothing.
  PlistValue annotationForIdentifier(std::string_view key) const { return table_->annotation(key); }
  PlistValue annotationForPlugIn(const Annotated& plugIn) const;
  // Merges the entries of the dictionary into the plug-in's annotation, or removes it when given nothing; then saves. A
  // save that fails is logged, and the change stays in memory.
  void setAnnotationForPlugIn(const PlistValue& annotation, const Annotated& plugIn);
  AnnotationSnapshot snapshot() const;

  // Replaces the table by the file's, or leaves it alone and says why.
  bool loadDbError(const FileURL& url, DomainError* error);
  bool saveDb(DomainError* error);

 private:
  VKDAnnotationStore(const Services& services, FileURL url);
  void load();
  bool keepUnreadableFile(DomainError* error);
  // The table to change: a copy when a snapshot of the present one is held.
  AnnotationTable& writableTable();
  std::string fileText();

  const Services& services_;
  const FileURL annotationsURL_;
  std::shared_ptr<AnnotationTable> table_;
  bool unreadableFile_ = false;  // at annotationsURL_ lies a file that could not be loaded
};

}  // namespace vkd
