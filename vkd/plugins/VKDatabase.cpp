#include "vkd/plugins/VKDatabase.h"

#include <algorithm>
#include <bitset>
#include <charconv>
#include <string_view>
#include <utility>

#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "vkd/plugins/RecordText.h"

namespace vkd {

namespace {

// Elections are pre-selected by their low byte.
constexpr std::int64_t kElectionByte = 0xFF;

// Whether the text begins with a letter or digit. Beyond ASCII every character counts as a letter: no election begins
// with one, so the rules that are tested afterwards come to the same.
bool beginsAlphanumeric(std::string_view text) {
  const char c = text.front();
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c & 0x80) != 0;
}

// The text that an election must equal for a pattern, or nothing when the pattern has to stay open.
std::optional<std::string_view> normalizedPattern(const PlistValue& pattern) {
  const std::string_view text = pattern.stringValue();
  if (text.empty()) return std::nullopt;
  if (text.front() == '=') return text.substr(1);
  if (beginsAlphanumeric(text)) return text;
  return std::nullopt;
}

}  // namespace

// Which elections a query keeps: of all that can be asked for, only the decimal texts of a byte can be met.
class VKDatabase::ElectionFilter {
 public:
  // Nothing when the query leaves elections open.
  static std::optional<ElectionFilter> ofQuery(const PlistValue& query) {
    const PlistValue election = query[kVKRuleUserElection];
    ElectionFilter filter;
    if (election.isString()) return filter.add(election) ? std::optional(filter) : std::nullopt;
    if (!election.isArray()) return std::nullopt;
    for (const PlistValue& pattern : election.elements()) {
      if (!filter.add(pattern)) return std::nullopt;
    }
    return filter;
  }

  bool keeps(std::int64_t election) const { return kept_[static_cast<std::size_t>(election & kElectionByte)]; }

 private:
  bool add(const PlistValue& pattern) {
    const auto text = normalizedPattern(pattern);
    if (!text) return false;
    unsigned number = kElectionByte + 1;
    std::from_chars(text->data(), text->data() + text->size(), number);
    if (number <= kElectionByte && std::to_string(number) == *text) kept_.set(number);
    return true;
  }

  std::bitset<kElectionByte + 1> kept_;
};

// --- Construction ---------------------------------------------------------------------------------------------------

std::shared_ptr<VKDatabase> VKDatabase::initWithDatabase(const Services& services,
                                                         const std::optional<std::string>& path) {
  std::shared_ptr<VKDatabase> database(new VKDatabase(services));
  database->setUp(path);
  return database;
}

VKDatabase::VKDatabase(const Services& services) : surroundings_{services, this}, workspace_(services.registry) {}

void VKDatabase::setUp(const std::optional<std::string>& path) {
  annotations_ = VKDAnnotationStore::initWithDatabase(surroundings_.services, path);
  _sync = surroundings_.services.queues->serial("VKDatabase", WorkQueue::Order::Leaf);
  workspace_->addObserver(this);
  observing_ = true;
}

VKDatabase::~VKDatabase() {
  if (observing_) workspace_->removeObserver(this);
}

void VKDatabase::setDelegate(std::weak_ptr<VKDatabaseDelegate> delegate) {
  _sync->sync([&] { delegate_ = std::move(delegate); });
}

// --- Cache ----------------------------------------------------------------------------------------------------------

std::shared_ptr<VKDPlugIn> VKDatabase::plugInForProxy(const std::shared_ptr<RegistryPlugInRecord>& record) {
  return plugInForProxy(record, uninstalls_.load());
}

std::shared_ptr<VKDPlugIn> VKDatabase::plugInForProxy(const std::shared_ptr<RegistryPlugInRecord>& record,
                                                      std::uint64_t uninstallsBefore) {
  return _sync->sync([&]() -> std::shared_ptr<VKDPlugIn> {
    const auto uuid = record->plugInUUID();
    const auto found = uuid ? cache_.find(*uuid) : cache_.end();
    return found != cache_.end() ? found->second.plugIn : createPlugInForProxy(record, uninstallsBefore);
  });
}

std::shared_ptr<VKDPlugIn> VKDatabase::createPlugInForProxy(const std::shared_ptr<RegistryPlugInRecord>& record,
                                                            std::uint64_t uninstallsBefore) {
  _sync->assertCurrent();
  auto plugIn = VKDPlugIn::initWithALData(record, surroundings_);
  if (plugIn == nullptr) return nullptr;
  if (plugIn->hasEntitlement(kVKEntitlementAutoElect)) autoElect(*plugIn);
  if (uninstalls_.load() != uninstallsBefore && !isInstalled(*plugIn)) return plugIn;
  purgeCachesToLimit(cacheLimit());
  cache_.insert_or_assign(plugIn->uuid(), Cached{plugIn});
  return plugIn;
}

void VKDatabase::purgeCachesToLimit(std::int64_t limit) {
  _sync->assertCurrent();
  if (cache_.size() <= static_cast<std::uint64_t>(limit)) return;
  VK_LOG(vk_ops(), Info, "purging cache for %d > %d", cache_.size(), limit);
  cache_.clear();
  ++removals_;
  workspace_->clearSchemaCaches();
}

// --- Lookup by query ------------------------------------------------------------------------------------------------

std::optional<VKDPlugIns> VKDatabase::findPlugIns(const PlistValue& query) {
  const std::uint64_t uninstallsBefore = uninstalls_.load();
  const auto records = recordsMatching(query);
  if (!records) return std::nullopt;
  return plugInsForRecords(*records, uninstallsBefore);
}

std::optional<RegistryPlugInRecords> VKDatabase::recordsMatching(const PlistValue& query) {
  if (query.empty()) {
    auto records = workspace_->installedPlugIns();
    VK_LOG(vk_al(), Debug, "%d installedPlugins: %@", records ? records->size() : 0, RecordsText{records});
    return records;
  }
  const auto elections = ElectionFilter::ofQuery(query);
  const AnnotationSnapshot annotations = elections ? annotationSnapshot() : nullptr;
  auto records = workspace_->plugInsMatching(query, [&](std::string_view identifier, const PlistValue& entitlements) {
    if (!elections) return true;
    const PlistValue replaced = entitlements[kVKEntitlementReplacePlugIn];
    const std::string_view key = replaced.isString() ? replaced.stringValue() : identifier;
    const PlistValue stored = annotations->annotation(key)[kVKAnnotationElection];
    const PlistValue automatic = entitlements[kVKEntitlementAutoElect];
    const bool keep = elections->keeps(stored ? stored.intValue() : automatic.isNumber() && automatic.boolValue());
    VK_LOG(vk_ops(), Debug, "al filter %@ -> %d", key, keep);
    return keep;
  });
  VK_LOG(vk_al(), Debug, "%d plugin(s) matching %@ = %@", records ? records->size() : 0, query, RecordsText{records});
  return records;
}

// What is cached is taken in one go: between two entries of `_sync` for two cached records nothing could happen that
// the result shows, but thousands of entries cost more than all the rest. Each object that has to be made is made on an
// entry of its own, since that reads files, and others want the queue meanwhile.
VKDPlugIns VKDatabase::plugInsForRecords(const RegistryPlugInRecords& records, std::uint64_t uninstallsBefore) {
  Batch batch{records, uninstallsBefore};
  batch.result.reserve(records.size());
  std::size_t cacheBefore = 0, cacheNow = 0;
  std::uint64_t removalsBefore = 0;
  bool removed = false;
  _sync->sync([&] {
    batch.number = ++batches_;
    cacheBefore = cache_.size();
    removalsBefore = removals_;
  });
  do {
    _sync->sync([&] {
      advance(batch);
      cacheNow = cache_.size();
      removed = removals_ != removalsBefore;
    });
  } while (batch.next < records.size());
  if (removed || batch.mayRepeat) eraseRepeated(batch.result);
  VK_LOG(vk_ops(), Debug, "AL reported %u plug-ins (cache %u/%u)", batch.result.size(), cacheBefore, cacheNow);
  return std::move(batch.result);
}

// Takes records up to and including the first whose plug-in has to be made.
void VKDatabase::advance(Batch& batch) {
  for (bool made = false; !made && batch.next < batch.records.size(); ++batch.next) {
    const auto& record = batch.records[batch.next];
    const auto uuid = record->plugInUUID();
    auto found = uuid ? cache_.find(*uuid) : cache_.end();
    const bool known = found != cache_.end() && found->second.plugIn->alproxy() == record;
    if (!isServable(*record, known)) continue;
    if (found == cache_.end()) {
      made = true;
      const auto plugIn = createPlugInForProxy(record, batch.uninstallsBefore);
      if (plugIn == nullptr) continue;
      found = cache_.find(plugIn->uuid());
      if (found == cache_.end()) {
        batch.result.push_back(plugIn);
        batch.mayRepeat = true;
        continue;
      }
    }
    if (std::exchange(found->second.batch, batch.number) != batch.number) batch.result.push_back(found->second.plugIn);
  }
}

// A record that is known to have a bundle URL is not asked for it again: records do not change.
bool VKDatabase::isServable(const RegistryPlugInRecord& record, bool known) {
  if (!known && !record.bundleURL()) {
    VK_LOG(vk_ops(), Info, "skipping al proxy %@ with nil bundleURL", RecordText{record});
    return false;
  }
  const auto bundle = record.containingBundle();
  if (bundle == nullptr) return true;
  if (!bundle->isApplication()) {
    VK_LOG(vk_ops(), Fault, "AL reported containingBundle is not an application (%s line %d)", "vkd/VKDatabase", 173);
    return false;
  }
  if (bundle->isPlaceholder()) {
    VK_LOG(vk_ops(), Info, "skipping al proxy %@ because its app is a placeholder", RecordText{record});
    return false;
  }
  return true;
}

// An object that left the cache took along the mark that it is in the result, so the plug-in may be there twice.
void VKDatabase::eraseRepeated(VKDPlugIns& plugIns) {
  std::ranges::sort(plugIns, {}, [](const auto& plugIn) { return plugIn->uuid(); });
  const auto same = [](const auto& a, const auto& b) { return a->uuid() == b->uuid(); };
  plugIns.erase(std::unique(plugIns.begin(), plugIns.end(), same), plugIns.end());
}

// --- Lookup of one, or of an application's ---------------------------------------------------------------------------

std::shared_ptr<VKDPlugIn> VKDatabase::findPlugIn(const UUID& uuid) {
  return _sync->sync([&]() -> std::shared_ptr<VKDPlugIn> {
    if (const auto found = cache_.find(uuid); found != cache_.end()) return found->second.plugIn;
    if (const auto record = workspace_->plugInRecord(uuid)) {
      return createPlugInForProxy(record, uninstalls_.load());
    }
    VK_LOG(vk_ops(), Info, "Catalon cannot find plug-in with UUID:%{public}@", uuid);
    return nullptr;
  });
}

std::shared_ptr<VKDPlugIn> VKDatabase::findPlugInAtPath(const FileURL& url) {
  const auto record = workspace_->plugInRecord(url);
  const auto uuid = record ? record->plugInUUID() : std::nullopt;
  if (uuid) return findPlugIn(*uuid);
  VK_LOG(vk_ops(), Info, "Catalon cannot find plug-in at path:%@", url.path);
  return nullptr;
}

std::optional<VKDPlugIns> VKDatabase::plugInsWithinApplication(const FileURL& url) {
  const std::uint64_t uninstallsBefore = uninstalls_.load();
  const auto application = workspace_->appRecord(url);
  const auto records = application ? application->plugIns() : RegistryPlugInRecords();
  if (records.empty()) return std::nullopt;
  VKDPlugIns plugIns;
  for (const auto& record : records) {
    if (auto plugIn = plugInForProxy(record, uninstallsBefore)) plugIns.push_back(std::move(plugIn));
  }
  return plugIns;
}

// --- Registration ---------------------------------------------------------------------------------------------------

std::optional<DomainError> VKDatabase::addPlugIn(const FileURL& url) {
  if (workspace_->registerPlugIn(url)) return std::nullopt;
  return vk_error(VKErrorRegistry, "Catalon failed to register the plug-in");
}

std::optional<DomainError> VKDatabase::removePlugIn(const FileURL& url) {
  if (workspace_->unregisterPlugIn(url)) return std::nullopt;
  return vk_error(VKErrorRegistry, "Catalon failed to deregister the plug-in");
}

}  // namespace vkd
