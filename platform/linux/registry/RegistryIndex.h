// Every record of Catalon, and the indexes that spare a narrow query the others: a query costs what it finds. Safe from
// any thread; a change never waits for a filter, since candidates are handed out as copies of pointers.
//
// The rules of which a query pre-selects compare texts as versions: leading zeros of a run of ASCII digits do not
// count. An index key is therefore the digest of a text without such zeros. Two texts may share a digest; candidates
// are a superset anyway.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/Registry.h"
#include "platform/linux/registry/RegistryRecord.h"

namespace platform {

class RegistryIndex {
 public:
  using Records = std::vector<std::shared_ptr<RegistryRecord>>;

  // At once: nobody sees the registry without the old and the new record of a changed bundle.
  void change(const Records& removed, const Records& installed);
  void setApplication(const std::shared_ptr<RegistryApp>& application);
  void removeApplication(const std::string& path);
  void clear();

  // In the order of installation.
  RegistryPlugInRecords all() const;
  RegistryPlugInRecords candidates(const PlistValue& query) const;
  RegistryPlugInRecords plugInsOf(const std::string& applicationPath) const;
  std::shared_ptr<RegistryRecord> plugIn(const UUID& uuid) const;
  std::shared_ptr<RegistryRecord> plugIn(const std::string& path) const;
  std::shared_ptr<RegistryApp> application(const std::string& path) const;

 private:
  using Key = std::uint64_t;
  using Bucket = std::vector<std::shared_ptr<RegistryRecord>>;  // by ascending order
  using Index = std::unordered_map<Key, Bucket>;
  enum IndexKind { Point, Identifier, Uuid, Application, kIndexCount };

  // The keys under which a record stands in an index.
  static std::vector<Key> keysOf(const RegistryRecord& record, IndexKind kind);
  void add(const std::shared_ptr<RegistryRecord>& record);
  void remove(const std::shared_ptr<RegistryRecord>& record);
  std::vector<const Bucket*> buckets(IndexKind kind, const std::vector<Key>& keys) const;

  mutable std::shared_mutex mutex_;
  std::uint64_t nextOrder_ = 0;
  RegistryPlugInRecords all_;  // by ascending order
  Index indexes_[kIndexCount];
  std::unordered_map<std::string_view, std::shared_ptr<RegistryRecord>> byPath_;  // keys are the records'
  std::unordered_map<std::string, std::shared_ptr<RegistryApp>> applications_;
};

}  // namespace platform
