// The activation rules of plug-ins: booleans, predicate strings and dictionaries of counts. docs/activation-rules.md
// defines both languages and the form of an items description. Safe from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Log.h"
#include "platform/Rules.h"
#include "platform/linux/rules/ActivationPredicate.h"

namespace platform {

// A rule that takes more accepts nothing. A step is well below a microsecond; discovery evaluates a rule for each of
// thousands of plug-ins.
inline constexpr std::uint64_t kMaxActivationSteps = 20'000;
// Parsed predicates that are kept; a device has far fewer different ones.
inline constexpr std::size_t kMaxCachedPredicates = 512;

class LinuxActivationRules final : public ActivationRuleEvaluator {
 public:
  explicit LinuxActivationRules(std::shared_ptr<TypeConformance> types);
  bool evaluate(const PlistValue& rule, const PlistValue& itemsDescription) override;

 private:
  using Parsed = std::shared_ptr<const ActivationPredicate>;
  bool evaluatePredicate(std::string_view text, const PlistValue& items);
  bool evaluateCounts(const PlistValue& rule, const PlistValue& items);
  // Null for a text that is no predicate, which is said once in the log.
  Parsed parsed(std::string_view text);
  const Logger& log() const { return log_ == nullptr ? defaultLog() : *log_; }

  const std::shared_ptr<TypeConformance> types_;
  const std::unique_ptr<Logger> log_;
  std::mutex mutex_;  // guards cache_
  std::map<std::string, Parsed, std::less<>> cache_;
};

}  // namespace platform
