// The one thing the daemon persists: the user's annotations, by annotation key, in memory and in one XML property list
// that is rewritten whole after every change.
//
//   version   16
//   data      annotation key → annotation ("election", "extension", whatever else a writer supplied)
//
// Owned by VKDatabase. After construction everything runs on the registry's queue, except that a snapshot may be read
// anywhere.
//
// What a save cannot lose: a file that could not be read is moved aside, and the log says where, before the first save
// takes its place. While it cannot be moved, saves fail, and changes are kept in memory.
//
// What a client cannot break: XML carries no control characters. Text with such characters is kept in memory as it is,
// and saved with each of them replaced by U+FFFD; an annotation that cannot be written even so (its key cannot be
// written, or it is nested too deep) is kept in memory only, and all others are saved.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/DomainError.h"
#include "platform/FileURL.h"
#include "platform/PlistValue.h"
#include "platform/Services.h"
#include "platform/SharedBytes.h"

namespace vkd {

using namespace platform;

class VKDPlugIn;

// The table of annotations. Written by the store only, and only while no snapshot of it is held.
class AnnotationTable {
 public:
  struct Entry {
    PlistValue key;         // a string
    PlistValue annotation;  // a dictionary; whatever the file had, when it was loaded
    SharedSlice xml;        // its lines in the file, empty until the next save
    bool unwritable = false;
  };

  AnnotationTable() = default;
  AnnotationTable(const AnnotationTable& other);
  AnnotationTable& operator=(const AnnotationTable&) = delete;

  // A dictionary or nothing.
  PlistValue annotation(std::string_view key) const;
  const std::vector<Entry>& entries() const { return entries_; }

 private:
  friend class VKDAnnotationStore;
  void set(std::string_view key, PlistValue annotation);
  void remove(std::string_view key);

  std::vector<Entry> entries_;                                   // in the order of the file
  std::unordered_map<std::string_view, std::size_t> positions_;  // keys refer to entries
  mutable std::atomic<std::uint32_t> readers_{0};                // snapshots
};

// The table as it is at one moment, for reading from any thread. Holding one makes the next change copy the table.
using AnnotationSnapshot = std::shared_ptr<const AnnotationTable>;

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
  PlistValue annotationForPlugIn(const VKDPlugIn& plugIn) const;
  // Merges the entries of the dictionary into the plug-in's annotation, or removes it when given nothing; then saves. A
  // save that fails is logged, and the change stays in memory.
  void setAnnotationForPlugIn(const PlistValue& annotation, const VKDPlugIn& plugIn);
  AnnotationSnapshot snapshot() const;

  // Replaces the table by the file's, or leaves it alone and says why.
  bool loadDbError(const FileURL& url, DomainError* error);
  bool saveDb(DomainError* error);

 private:
  VKDAnnotationStore(const Services& services, FileURL url);
  void loadAtStart();
  bool keepUnreadableFile(DomainError* error);
  AnnotationTable& writableTable();
  std::string fileText();

  const Services& services_;
  const FileURL annotationsURL_;
  std::shared_ptr<AnnotationTable> table_;
  bool unreadableFile_ = false;  // at annotationsURL_ lies a file that could not be loaded
};

}  // namespace vkd
