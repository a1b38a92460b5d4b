// One "match" request at work: takes candidates one after another, keeps those that the host may use and that win over
// other versions of themselves, and encodes their forms for the reply.
//
//   Discovery discovery({database, holds, preferences}, client, rules, flags, candidates.size());
//   for (const auto& plugIn : candidates) discovery.consider(plugIn);
//   discovery.applyOverrides();
//   reply.set("matches", *discovery.encodedForms());
//
// Lives for one request, on the service queue; its surroundings and the client must outlive it. Each filter answers
// with a Verdict that names what decided.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/values/PlistEncoding.h"
#include "vkd/discovery/HoldSource.h"
#include "vkd/discovery/VKDUserPrefs.h"
#include "vkd/plugins/HostPolicy.h"
#include "vkd/plugins/MatchRules.h"
#include "vkd/plugins/PlugInForm.h"
#include "vkd/plugins/VKDatabase.h"
#include "vkd/plugins/Verdict.h"

namespace vkd {

class Discovery {
 public:
  struct Surroundings {
    VKDatabase& database;
    HoldSource& holds;
    VKDUserPrefs& preferences;
  };

  // Rules are a dictionary or nothing. Annotations are read as they are now: after the candidates were looked up, since
  // that may elect some of them.
  Discovery(const Surroundings& surroundings, const HostClient& client, const PlistValue& rules, std::uint64_t flags,
            std::size_t candidateCount);

  // Passed, or which filter left the candidate out.
  Verdict consider(const std::shared_ptr<VKDPlugIn>& plugIn);
  // After the last candidate: links the plug-ins that replace others with those they replace.
  void applyOverrides();

  // How many plug-ins are left, and their forms in the order in which they were accepted, as one encoded array. Nothing
  // when they exceed what one message can carry.
  std::size_t size() const { return size_; }
  std::optional<Rope> encodedForms() const;

 private:
  // A plug-in that was accepted, with what its form gets beside its own entries. Those that a rival has driven out stay
  // where they are: they may still replace others.
  struct Result {
    std::shared_ptr<VKDPlugIn> plugIn;
    const PlugInForm* form;
    PlugInForm::Additions additions;
    bool removed;
    std::uint32_t next;  // in its bucket
  };
  static constexpr std::uint32_t kNone = UINT32_MAX;

  bool has(std::uint64_t flag) const { return (flags_ & flag) != 0; }

  // --- Filters, in their order ---------------------------------------------------------------------------------------

  Verdict filter(const VKDPlugIn& plugIn);
  Verdict filterContainment(const VKDPlugIn& plugIn) const;
  Verdict filterDedicated(const VKDPlugIn& plugIn);
  Verdict filterHold(const VKDPlugIn& plugIn) const;
  Verdict filterExclusions(const VKDPlugIn& plugIn) const;
  Verdict filterHost(const VKDPlugIn& plugIn);

  // --- Choice among versions -----------------------------------------------------------------------------------------

  // Of the accepted plug-ins at most one competes with a candidate: they competed with each other when they came. This
  // is where it is referred to, or null.
  std::uint32_t* rivalOf(const PlugInForm& form, std::uint32_t& bucket);
  bool compete(const PlugInForm& form, const PlugInForm& other) const;
  std::uint32_t& bucketOf(const PlugInForm& form);
  Verdict selectVersion(const PlugInForm& form, std::uint32_t& bucket);
  void accept(const std::shared_ptr<VKDPlugIn>& plugIn, const PlugInForm& form, std::uint32_t& bucket);
  void noteReplacements(const VKDPlugIn& plugIn, std::size_t result);

  HoldSource& holds_;
  const HostClient& client_;
  const std::uint64_t flags_;
  const MatchRules rules_;
  const std::vector<MatchRules>& exclusions_;
  const AnnotationSnapshot annotations_;
  // Made when first wanted.
  std::optional<HostPolicy> policy_;
  std::optional<std::string> ownPlugIns_;  // the folder of plug-ins in the host's bundle; empty: none
  bool ownPlugInsKnown_ = false;

  std::vector<Result> results_;
  std::size_t size_ = 0;  // of results_, the removed left aside
  // The first result of each bucket, by what competitors have in common.
  std::vector<std::uint32_t> buckets_;
  std::unordered_map<std::string, std::size_t> replacements_;  // replaced identifier → result that replaces it
};

}  // namespace vkd
