#include "platform/linux/rules/ActivationRules.h"

#include <array>
#include <utility>

namespace platform {
namespace {

constexpr std::string_view kKeyPrefix = "ZoExtensionActivationSupports";

// What an attachment can count as, tried in this order.
struct Category {
  std::string_view name;
  std::string_view type;
};
constexpr std::array<Category, 5> kCategories = {{{"WebURL", "public.url"},
                                                  {"Image", "public.image"},
                                                  {"Movie", "public.movie"},
                                                  {"Text", "public.text"},
                                                  {"File", "public.data"}}};
constexpr std::string_view kAllAttachments = "Attachments";

struct Bounds {
  bool named = false;
  std::int64_t least = 0;
  std::int64_t most = INT64_MAX;
  std::int64_t found = 0;
  bool hold() const { return found >= least && found <= most; }
};

struct CountRule {
  std::array<Bounds, kCategories.size()> categories;
  Bounds all;

  Bounds* named(std::string_view name) {
    if (name == kAllAttachments) return &all;
    for (std::size_t i = 0; i < kCategories.size(); ++i) {
      if (kCategories[i].name == name) return &categories[i];
    }
    return nullptr;
  }

  // One entry of the rule; false when it cannot be understood.
  bool read(std::string_view key, const PlistValue& value) {
    if (!key.starts_with(kKeyPrefix) || !value.isNumber()) return false;
    key.remove_prefix(kKeyPrefix.size());
    bool isMost = key.ends_with("WithMaxCount");
    bool isLeast = key.ends_with("WithMinCount");
    if (isMost || isLeast) key.remove_suffix(std::string_view("WithMaxCount").size());
    Bounds* bounds = named(key);
    if (bounds == nullptr) return false;
    bounds->named = true;
    if (isLeast) {
      bounds->least = value.intValue();
    } else {
      bounds->most = isMost ? value.intValue() : (value.boolValue() ? INT64_MAX : 0);
    }
    return true;
  }
};

}  // namespace

LinuxActivationRules::LinuxActivationRules(std::shared_ptr<TypeConformance> types)
    : types_(std::move(types)), log_(makeLogger("com.vantrel.Vornik", "extension")) {}

bool LinuxActivationRules::evaluate(const PlistValue& rule, const PlistValue& itemsDescription) {
  if (rule.isNumber()) return rule.boolValue();
  if (rule.isString()) return evaluatePredicate(rule.stringValue(), itemsDescription);
  if (rule.isDictionary()) return evaluateCounts(rule, itemsDescription);
  return false;
}

bool LinuxActivationRules::evaluatePredicate(std::string_view text, const PlistValue& items) {
  Parsed predicate = parsed(text);
  if (predicate == nullptr) return false;
  std::optional<bool> result = predicate->evaluate(items, *types_, kMaxActivationSteps);
  if (!result) VK_LOG(log(), Info, "activation rule takes too many steps: %@", text);
  return result.value_or(false);
}

LinuxActivationRules::Parsed LinuxActivationRules::parsed(std::string_view text) {
  std::lock_guard lock(mutex_);
  auto found = cache_.find(text);
  if (found != cache_.end()) return found->second;
  std::string error;
  Parsed predicate = ActivationPredicate::parse(text, &error);
  if (predicate == nullptr) VK_LOG(log(), Info, "activation rule not understood: %{public}@ in: %@", error, text);
  if (cache_.size() >= kMaxCachedPredicates) cache_.clear();
  // A text too long to be parsed is too long to be kept, too.
  if (text.size() <= kMaxPredicateBytes) cache_.emplace(text, predicate);
  return predicate;
}

bool LinuxActivationRules::evaluateCounts(const PlistValue& rule, const PlistValue& items) {
  CountRule counts;
  counts.all.least = 1;
  for (auto [key, value] : rule.entries()) {
    if (counts.read(key, value)) continue;
    VK_LOG(log(), Info, "activation rule not understood: %{public}@", key);
    return false;
  }
  std::uint64_t steps = 0;
  auto isOf = [&](const PlistValue& attachment, std::string_view type) {
    for (const PlistValue& identifier : attachment["registeredTypeIdentifiers"].elements()) {
      if (++steps > kMaxActivationSteps) return false;
      if (identifier.isString() && types_->conforms(identifier.stringValue(), type)) return true;
    }
    return false;
  };
  for (const PlistValue& item : items["extensionItems"].elements()) {
    for (const PlistValue& attachment : item["attachments"].elements()) {
      std::size_t category = 0;
      while (category < kCategories.size() &&
             !(counts.categories[category].named && isOf(attachment, kCategories[category].type))) {
        ++category;
      }
      if (category == kCategories.size() || ++steps > kMaxActivationSteps) return false;
      ++counts.categories[category].found;
      ++counts.all.found;
    }
  }
  bool all = counts.all.hold();
  for (const Bounds& bounds : counts.categories) all = all && bounds.hold();
  return all;
}

}  // namespace platform
