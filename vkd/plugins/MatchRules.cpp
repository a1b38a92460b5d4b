#include "vkd/plugins/MatchRules.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>

#include "Vornik/VKKeys.h"

namespace vkd {

using namespace platform;
using namespace Vornik;

namespace {

struct OperatorText {
  std::string_view text;
  StringPattern::Operator op;
};

// In the order in which they are looked for.
constexpr std::array kOperators{
    OperatorText{"<>", StringPattern::Operator::NotSame}, OperatorText{"<=", StringPattern::Operator::NotGreater},
    OperatorText{">=", StringPattern::Operator::NotLess}, OperatorText{"=", StringPattern::Operator::Same},
    OperatorText{"<", StringPattern::Operator::Less},     OperatorText{">", StringPattern::Operator::Greater},
};
constexpr std::array kTypeTests{
    OperatorText{kVKPatternConforms, StringPattern::Operator::ConformsTo},
    OperatorText{kVKPatternIs, StringPattern::Operator::Is},
};

MatchRules::Subject subjectOf(std::string_view key) {
  using enum MatchRules::Subject;
  if (key.starts_with(kVKRuleEntitlementPrefix)) return Entitlement;
  if (key == kVKRuleIdentifier) return Identifier;
  if (key == kVKRuleUUID) return UUID;
  if (key == kVKRuleUserElection) return UserElection;
  if (key == kVKRuleContainingApp) return ContainingApp;
  return Attribute;
}

MatchRules::Entry compile(std::string_view key, PlistValue pattern) {
  using enum MatchRules::Test;
  MatchRules::Entry entry{subjectOf(key), Never, key, key, std::move(pattern), {}};
  if (entry.subject == MatchRules::Subject::Entitlement) entry.name.remove_prefix(kVKRuleEntitlementPrefix.size());
  if (entry.pattern.equals(true)) {
    entry.test = True;
  } else if (entry.pattern.equals(false)) {
    entry.test = False;
  } else if (entry.pattern.isDictionary()) {
    entry.test = Items;
  } else if (entry.pattern.isString()) {
    entry.test = Strings;
    entry.strings.emplace_back(entry.pattern.stringValue());
  } else if (entry.pattern.isArray()) {
    entry.test = Strings;
    for (const PlistValue& element : entry.pattern.elements()) {
      if (element.isString()) entry.strings.emplace_back(element.stringValue());
    }
  }
  return entry;
}

}  // namespace

StringPattern::StringPattern(std::string_view pattern) : op(Operator::Same), operand(pattern) {
  const bool isTypeTest = pattern.starts_with(kVKPatternTypePrefix);
  if (isTypeTest) op = Operator::Unknown;
  const auto recognize = [&](const OperatorText& candidate) {
    if (!pattern.starts_with(candidate.text)) return false;
    op = candidate.op;
    operand.remove_prefix(candidate.text.size());
    return true;
  };
  if (isTypeTest) {
    std::ranges::any_of(kTypeTests, recognize);
  } else {
    std::ranges::any_of(kOperators, recognize);
  }
}

MatchRules::MatchRules(PlistValue rules) : rules_(std::move(rules)) {
  if (!rules_.isDictionary()) return;
  entries_.reserve(rules_.size());
  for (const auto& [key, pattern] : rules_.entries()) entries_.push_back(compile(key, pattern));
  std::ranges::stable_sort(entries_, {},
                           [](const Entry& entry) { return std::tuple(entry.test == Test::Items, entry.subject); });
}

}  // namespace vkd
