// The table of annotations by annotation key. Its owner changes it on one queue; a snapshot may be read on any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/values/PlistValue.h"
#include "platform/values/SharedBytes.h"

namespace vkd {

class AnnotationTable {
 public:
  struct Entry {
    platform::PlistValue key;         // a string
    platform::PlistValue annotation;  // a dictionary, or whatever else the file held
    // The entry's lines in the file, kept for the saves in which it does not change. Not for readers of a snapshot.
    platform::SharedSlice xml;
    bool unwritable = false;  // the file cannot hold it
  };

  AnnotationTable() = default;
  AnnotationTable(const AnnotationTable& other) : entries_(other.entries_), positions_(other.positions_) {}
  AnnotationTable& operator=(const AnnotationTable&) = delete;

  // A dictionary, or nothing.
  platform::PlistValue annotation(std::string_view key) const;
  const std::vector<Entry>& entries() const { return entries_; }

  // --- For the owner, while isRead() is false
  // --------------------------------------------------------------------------

  void set(std::string_view key, const platform::PlistValue& annotation);
  void remove(std::string_view key);
  std::vector<Entry>& entriesToWrite() { return entries_; }
  // Whether a snapshot is held.
  bool isRead() const { return readers_.load(std::memory_order_acquire) != 0; }
  // The table for reading, unchanged as long as it is held.
  static std::shared_ptr<const AnnotationTable> snapshot(const std::shared_ptr<AnnotationTable>& table);

 private:
  std::vector<Entry> entries_;                                   // in the order of the file
  std::unordered_map<std::string_view, std::size_t> positions_;  // the keys are those of the entries
  mutable std::atomic<std::uint32_t> readers_{0};
};

using AnnotationSnapshot = std::shared_ptr<const AnnotationTable>;

}  // namespace vkd
