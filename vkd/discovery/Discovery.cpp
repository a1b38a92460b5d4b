#include "vkd/discovery/Discovery.h"

#include <bit>
#include <compare>

#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "Vornik/VKProtocol.h"
#include "Vornik/VKVersionComparison.h"

namespace vkd {
namespace {

// What a reply needs beside its forms: the frame, the keys of the envelope, the heads of two containers.
constexpr std::uint64_t kReplyOverhead = 256;

// Whether a copy of the same version takes the place of one that was accepted. Being on the system volume speaks only
// for the later of the two.
bool isNewer(const PlugInForm& form, const PlugInForm& accepted) {
  if (form.systemResident() && !accepted.systemResident()) return true;
  return form.lastModified() > accepted.lastModified();
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The same for versions that compare as the same: leading zeros do not count.
std::size_t hashVersion(std::string_view version) {
  std::size_t hash = 0;
  bool inNumber = false;
  for (const char c : version) {
    if (c == '0' && !inNumber) continue;
    inNumber = isDigit(c);
    hash = hash * 31 + static_cast<unsigned char>(c);
  }
  return hash;
}

}  // namespace

Discovery::Discovery(const Surroundings& surroundings, const HostClient& client, const PlistValue& rules,
                     std::uint64_t flags, std::size_t candidateCount)
    : holds_(surroundings.holds),
      client_(client),
      flags_(flags),
      rules_(rules),
      exclusions_(surroundings.preferences.exclusionRules()),
      annotations_(surroundings.database.annotationSnapshot()),
      buckets_(std::bit_ceil(candidateCount + 1), kNone) {
  results_.reserve(candidateCount);
}

Verdict Discovery::consider(const std::shared_ptr<VKDPlugIn>& plugIn) {
  if (Verdict verdict = filter(*plugIn); !verdict) return verdict;
  std::optional<DomainError> error;
  const PlugInForm* form = plugIn->form(&error);
  if (error) {
    VK_LOG(vk_ops(), Error, "failed to export matching plug-in %{public}@: %{public}@", plugIn->uuid(), *error);
  }
  if (form == nullptr) return Verdict::refused(Verdict::Filter::Export);
  std::uint32_t& bucket = bucketOf(*form);
  if (Verdict verdict = selectVersion(*form, bucket); !verdict) return verdict;
  accept(plugIn, *form, bucket);
  return Verdict();
}

Verdict Discovery::filter(const VKDPlugIn& plugIn) {
  const bool restricted = !has(VKDiscoverAll);
  if (restricted) {
    if (Verdict verdict = filterContainment(plugIn); !verdict) return verdict;
    if (Verdict verdict = filterDedicated(plugIn); !verdict) return verdict;
    if (Verdict verdict = filterHold(plugIn); !verdict) return verdict;
  }
  if (Verdict verdict = plugIn.match(rules_); !verdict) return verdict;
  if (Verdict verdict = filterExclusions(plugIn); !verdict) return verdict;
  return restricted ? filterHost(plugIn) : Verdict();
}

Verdict Discovery::filterContainment(const VKDPlugIn& plugIn) const {
  if (plugIn.onSystemVolume()) return Verdict();
  if (!plugIn.containingUrl()) return Verdict::refused(Verdict::Filter::Containment);
  return has(VKDiscoverSystemOnly) ? Verdict::refused(Verdict::Filter::SystemOnly) : Verdict();
}

// A dedicated plug-in is found by the application that contains it and by nobody else.
Verdict Discovery::filterDedicated(const VKDPlugIn& plugIn) {
  if (!plugIn.isDedicated()) return Verdict();
  if (!ownPlugInsKnown_ && client_.bundle() != nullptr) ownPlugIns_ = client_.bundle()->plugInsPath();
  ownPlugInsKnown_ = true;
  if (ownPlugIns_ && plugIn.path().starts_with(*ownPlugIns_)) return Verdict();
  return Verdict::refused(Verdict::Filter::Dedicated);
}

Verdict Discovery::filterHold(const VKDPlugIn& plugIn) const {
  return holds_.holdOnPlugIn(plugIn) ? Verdict::refused(Verdict::Filter::Hold) : Verdict();
}

Verdict Discovery::filterExclusions(const VKDPlugIn& plugIn) const {
  for (const MatchRules& exclusion : exclusions_) {
    if (!plugIn.match(exclusion)) continue;
    VK_LOG(vk_ops(), Debug, "client %d plugin %{public}@ globally excluded", client_.pid(), plugIn.uuid());
    return Verdict::refused(Verdict::Filter::Exclusion, {}, exclusion.rules());
  }
  return Verdict();
}

Verdict Discovery::filterHost(const VKDPlugIn& plugIn) {
  if (!policy_) policy_.emplace(client_);
  Verdict verdict = policy_->allow(plugIn);
  if (!verdict) {
    VK_LOG(vk_ops(), Debug, "client %d cannot use plugin %{public}@: %{public}@", client_.pid(), plugIn.uuid(),
           HostPolicy::refusal(verdict));
  }
  return verdict;
}

// At most one rival is driven out.
Verdict Discovery::selectVersion(const PlugInForm& form, std::uint32_t& bucket) {
  const bool allVersions = has(VKDiscoverAllVersions);
  if (allVersions && has(VKDiscoverDuplicates)) return Verdict();
  std::uint32_t* rivalLink = rivalOf(form, bucket);
  if (rivalLink == nullptr) return Verdict();
  Result& rival = results_[*rivalLink];
  const auto order = compareVersionString(form.version(), rival.form->version());
  if (std::is_lt(order) || (std::is_eq(order) && !isNewer(form, *rival.form))) {
    return Verdict::refused(Verdict::Filter::Version, rival.plugIn->uuid());
  }
  *rivalLink = rival.next;
  rival.removed = true;
  --size_;
  return Verdict();
}

std::uint32_t* Discovery::rivalOf(const PlugInForm& form, std::uint32_t& bucket) {
  for (std::uint32_t* link = &bucket; *link != kNone; link = &results_[*link].next) {
    if (compete(form, *results_[*link].form)) return link;
  }
  return nullptr;
}

// Plug-ins of one identifier; when all its versions are wanted, those of one version.
bool Discovery::compete(const PlugInForm& form, const PlugInForm& other) const {
  if (form.identifier() != other.identifier()) return false;
  return !has(VKDiscoverAllVersions) || std::is_eq(compareVersionString(form.version(), other.version()));
}

std::uint32_t& Discovery::bucketOf(const PlugInForm& form) {
  std::size_t hash = std::hash<std::string_view>()(form.identifier());
  if (has(VKDiscoverAllVersions)) hash += hashVersion(form.version());
  return buckets_[hash & (buckets_.size() - 1)];
}

void Discovery::accept(const std::shared_ptr<VKDPlugIn>& plugIn, const PlugInForm& form, std::uint32_t& bucket) {
  const std::size_t at = results_.size();
  PlugInForm::Additions additions;
  additions.annotations = annotations_->annotation(plugIn->annotationKey());
  additions.extensions = plugIn->resourceExtensions();
  results_.push_back(Result{plugIn, &form, std::move(additions), false, bucket});
  bucket = static_cast<std::uint32_t>(at);
  ++size_;
  noteReplacements(*plugIn, at);
}

void Discovery::noteReplacements(const VKDPlugIn& plugIn, std::size_t result) {
  const PlistValue replaced = plugIn.valueForEntitlement(kVKEntitlementReplacePlugIn);
  if (replaced.isString()) {
    replacements_[std::string(replaced.stringValue())] = result;
  } else if (replaced.isArray()) {
    for (const PlistValue& identifier : replaced.elements()) {
      if (identifier.isString()) replacements_[std::string(identifier.stringValue())] = result;
    }
  }
}

void Discovery::applyOverrides() {
  if (replacements_.empty()) return;
  for (Result& result : results_) {
    if (result.removed) continue;
    auto found = replacements_.find(std::string(result.form->identifier()));
    if (found == replacements_.end()) continue;
    Result& replacement = results_[found->second];
    result.additions.overrider = replacement.form->uuid();
    replacement.additions.overriding = result.form->identifier();
    VK_LOG(vk_ops(), Info, "plug-in %{public}@ overrides %{public}@", replacement.form->uuid(), result.form->uuid());
  }
}

std::optional<Rope> Discovery::encodedForms() const {
  std::uint64_t contentSize = 0;
  for (const Result& result : results_) {
    if (!result.removed) contentSize += result.form->encodedSize(result.additions);
  }
  if (contentSize > kMaxMessageBytes - kReplyOverhead) return std::nullopt;
  PlistEncoder encoder;
  encoder.arrayHead(contentSize, static_cast<std::uint32_t>(size_));
  for (const Result& result : results_) {
    if (!result.removed) result.form->append(encoder, result.additions);
  }
  return encoder.take();
}

}  // namespace vkd
