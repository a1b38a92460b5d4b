#include "platform/linux/registry/RegistryIndex.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace platform {
namespace {

// Rule keys that have an index, in the order of the indexes.
constexpr std::string_view kIndexedKeys[] = {manifest_key::Point, manifest_key::Identifier, query_key::UUID,
                                             query_key::ContainingApp};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Of the text without the leading zeros of its digit runs; a run of zeros counts as one.
std::uint64_t versionDigest(std::string_view text) {
  constexpr std::uint64_t kBasis = 0xCBF29CE484222325;
  constexpr std::uint64_t kPrime = 0x100000001B3;
  std::uint64_t digest = kBasis;
  bool inNumber = false;  // behind a digit that counts
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    bool more = i + 1 < text.size() && isDigit(text[i + 1]);
    if (c == '0' && !inNumber && more) continue;
    inNumber = isDigit(c);
    digest = (digest ^ static_cast<unsigned char>(c)) * kPrime;
  }
  return digest;
}

// What a pattern wants a text to be equal to; nothing for a pattern of another kind.
std::optional<std::string_view> equalityOperand(std::string_view pattern) {
  if (pattern.starts_with('=')) return pattern.substr(1);
  if (pattern.starts_with('?') || pattern.starts_with('<') || pattern.starts_with('>')) return std::nullopt;
  return pattern;
}

void sortUnique(std::vector<std::uint64_t>& keys) {
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
}

// The keys of everything that a pattern can hold for; nothing when it says more than equality.
std::optional<std::vector<std::uint64_t>> keysOfPattern(const PlistValue& pattern) {
  std::vector<std::uint64_t> keys;
  auto add = [&keys](const PlistValue& value) {
    if (!value.isString()) return true;  // holds for nothing
    std::optional<std::string_view> operand = equalityOperand(value.stringValue());
    if (operand) keys.push_back(versionDigest(*operand));
    return operand.has_value();
  };
  if (pattern.isString()) return add(pattern) ? std::optional(std::move(keys)) : std::nullopt;
  if (!pattern.isArray()) return std::nullopt;
  for (const PlistValue& element : pattern.elements()) {
    if (!add(element)) return std::nullopt;
  }
  sortUnique(keys);
  return keys;
}

// What a rule of this key tests: the attribute, else the manifest's value.
std::vector<std::uint64_t> keysOfValue(const RegistryRecord& record, std::string_view key) {
  std::vector<std::uint64_t> keys;
  PlistValue value = record.objectForKey(key, RegistryPlugInRecord::Scope::Attributes);
  if (!value) value = record.objectForKey(key, RegistryPlugInRecord::Scope::Manifest);
  if (value.isString()) keys.push_back(versionDigest(value.stringValue()));
  if (!value.isArray()) return keys;
  for (const PlistValue& element : value.elements()) {
    if (element.isString()) keys.push_back(versionDigest(element.stringValue()));
  }
  sortUnique(keys);
  return keys;
}

}  // namespace

std::vector<RegistryIndex::Key> RegistryIndex::keysOf(const RegistryRecord& record, IndexKind kind) {
  switch (kind) {
    case Identifier:
      if (!record.identifier().empty()) return {versionDigest(record.identifier())};
      break;
    case Uuid:
      return {versionDigest(record.uuid().text())};
    case Application:
      // Without one it matches no rule of that key at all.
      if (record.application() == nullptr) return {};
      return {versionDigest(record.application()->path())};
    default:
      break;
  }
  return keysOfValue(record, kIndexedKeys[kind]);
}

void RegistryIndex::add(const std::shared_ptr<RegistryRecord>& record) {
  record->order_ = nextOrder_++;
  all_.push_back(record);
  byPath_.erase(record->path());  // with its key, which belongs to the record
  byPath_.emplace(record->path(), record);
  for (int kind = 0; kind < kIndexCount; ++kind) {
    for (Key key : keysOf(*record, static_cast<IndexKind>(kind))) indexes_[kind][key].push_back(record);
  }
}

void RegistryIndex::remove(const std::shared_ptr<RegistryRecord>& record) {
  auto before = [](const auto& a, std::uint64_t order) {
    return static_cast<const RegistryRecord&>(*a).order_ < order;
  };
  auto eraseFrom = [&](auto& records) {
    auto position = std::lower_bound(records.begin(), records.end(), record->order_, before);
    if (position != records.end() && *position == record) records.erase(position);
  };
  eraseFrom(all_);
  if (auto known = byPath_.find(record->path()); known != byPath_.end() && known->second == record) {
    byPath_.erase(known);
  }
  for (int kind = 0; kind < kIndexCount; ++kind) {
    for (Key key : keysOf(*record, static_cast<IndexKind>(kind))) {
      auto bucket = indexes_[kind].find(key);
      if (bucket == indexes_[kind].end()) continue;
      eraseFrom(bucket->second);
      if (bucket->second.empty()) indexes_[kind].erase(bucket);
    }
  }
}

void RegistryIndex::change(const Records& removed, const Records& installed) {
  std::unique_lock lock(mutex_);
  for (const auto& record : removed) remove(record);
  if (all_.empty()) {  // at start, when thousands may come at once
    all_.reserve(installed.size());
    byPath_.reserve(installed.size());
    for (IndexKind kind : {Identifier, Uuid}) indexes_[kind].reserve(installed.size());
  }
  for (const auto& record : installed) add(record);
}

void RegistryIndex::setApplication(const std::shared_ptr<RegistryApp>& application) {
  std::unique_lock lock(mutex_);
  applications_.insert_or_assign(application->path(), application);
}

void RegistryIndex::removeApplication(const std::string& path) {
  std::unique_lock lock(mutex_);
  applications_.erase(path);
}

void RegistryIndex::clear() {
  std::unique_lock lock(mutex_);
  all_.clear();
  byPath_.clear();
  applications_.clear();
  for (Index& index : indexes_) index.clear();
}

RegistryPlugInRecords RegistryIndex::all() const {
  std::shared_lock lock(mutex_);
  return all_;
}

std::vector<const RegistryIndex::Bucket*> RegistryIndex::buckets(IndexKind kind, const std::vector<Key>& keys) const {
  std::vector<const Bucket*> found;
  for (Key key : keys) {
    auto bucket = indexes_[kind].find(key);
    if (bucket != indexes_[kind].end()) found.push_back(&bucket->second);
  }
  return found;
}

RegistryPlugInRecords RegistryIndex::candidates(const PlistValue& query) const {
  std::shared_lock lock(mutex_);
  std::optional<std::vector<const Bucket*>> best;
  std::size_t bestSize = 0;
  for (int kind = 0; kind < kIndexCount; ++kind) {
    PlistValue pattern = query[kIndexedKeys[kind]];
    std::optional<std::vector<Key>> keys = pattern ? keysOfPattern(pattern) : std::nullopt;
    if (!keys) continue;
    std::vector<const Bucket*> found = buckets(static_cast<IndexKind>(kind), *keys);
    std::size_t size = 0;
    for (const Bucket* bucket : found) size += bucket->size();
    if (best && size >= bestSize) continue;
    best = std::move(found);
    bestSize = size;
  }
  if (!best) return all_;
  if (best->size() == 1) return {best->front()->begin(), best->front()->end()};
  Bucket merged;
  merged.reserve(bestSize);
  for (const Bucket* bucket : *best) merged.insert(merged.end(), bucket->begin(), bucket->end());
  std::sort(merged.begin(), merged.end(), [](const auto& a, const auto& b) { return a->order_ < b->order_; });
  // A record whose value is a list may stand under several keys.
  merged.erase(std::unique(merged.begin(), merged.end()), merged.end());
  return {merged.begin(), merged.end()};
}

RegistryPlugInRecords RegistryIndex::plugInsOf(const std::string& applicationPath) const {
  std::shared_lock lock(mutex_);
  RegistryPlugInRecords result;
  for (const Bucket* bucket : buckets(Application, {versionDigest(applicationPath)})) {
    for (const auto& record : *bucket) {
      if (record->application()->path() == applicationPath) result.push_back(record);
    }
  }
  return result;
}

std::shared_ptr<RegistryRecord> RegistryIndex::plugIn(const UUID& uuid) const {
  std::vector<Key> keys{versionDigest(uuid.text())};
  std::shared_lock lock(mutex_);
  for (const Bucket* bucket : buckets(Uuid, keys)) {
    for (const auto& record : *bucket) {
      if (record->uuid() == uuid) return record;
    }
  }
  return nullptr;
}

std::shared_ptr<RegistryRecord> RegistryIndex::plugIn(const std::string& path) const {
  std::shared_lock lock(mutex_);
  auto found = byPath_.find(path);
  return found == byPath_.end() ? nullptr : found->second;
}

std::shared_ptr<RegistryApp> RegistryIndex::application(const std::string& path) const {
  std::shared_lock lock(mutex_);
  auto found = applications_.find(path);
  return found == applications_.end() ? nullptr : found->second;
}

}  // namespace platform
