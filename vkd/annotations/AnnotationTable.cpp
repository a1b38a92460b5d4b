#include "vkd/annotations/AnnotationTable.h"

#include <utility>

#include "platform/values/PlistEncoding.h"

namespace vkd {

using namespace platform;

PlistValue AnnotationTable::annotation(std::string_view key) const {
  auto found = positions_.find(key);
  if (found == positions_.end()) return {};
  const PlistValue& value = entries_[found->second].annotation;
  return value.isDictionary() ? value : PlistValue();
}

void AnnotationTable::set(std::string_view key, const PlistValue& annotation) {
  // Compact: what came in a large message must not keep that message, and forms take it over byte by byte.
  PlistValue kept = compactPlist(annotation);
  auto found = positions_.find(key);
  if (found != positions_.end()) {
    Entry& entry = entries_[found->second];
    entry = Entry{std::move(entry.key), std::move(kept), {}, false};
    return;
  }
  entries_.push_back(Entry{PlistValue(key), std::move(kept), {}, false});
  positions_.emplace(entries_.back().key.stringValue(), entries_.size() - 1);
}

void AnnotationTable::remove(std::string_view key) {
  auto found = positions_.find(key);
  if (found == positions_.end()) return;
  const std::size_t position = found->second;
  positions_.erase(found);
  if (position + 1 < entries_.size()) {
    entries_[position] = std::move(entries_.back());
    positions_[entries_[position].key.stringValue()] = position;
  }
  entries_.pop_back();
}

std::shared_ptr<const AnnotationTable> AnnotationTable::snapshot(const std::shared_ptr<AnnotationTable>& table) {
  table->readers_.fetch_add(1, std::memory_order_relaxed);
  // What a reader did happens before the owner's next change: released here, acquired in isRead.
  return {table.get(), [table](const AnnotationTable*) { table->readers_.fetch_sub(1, std::memory_order_release); }};
}

}  // namespace vkd
