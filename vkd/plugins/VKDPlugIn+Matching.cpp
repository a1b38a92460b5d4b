// Whether a plug-in matches rules. Reads the record, the stored election and two platform services; logs, and changes
// nothing.
#include <algorithm>
#include <compare>
#include <cstdint>
#include <string>

#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"
#include "Vornik/VKVersionComparison.h"
#include "vkd/plugins/VKDPlugIn.h"

namespace vkd {

namespace {

// Elections keep flags here that rules do not see.
constexpr std::int64_t kElectionFlagBits = 0xFF00;

// A text as a value for the length of a test: not copied, and not to be kept.
PlistValue borrowed(std::string_view text) { return PlistValue::string(SharedSlice(nullptr, text)); }

bool compares(std::weak_ordering order, StringPattern::Operator op) {
  using enum StringPattern::Operator;
  switch (op) {
    case NotSame:
      return std::is_neq(order);
    case NotGreater:
      return std::is_lteq(order);
    case NotLess:
      return std::is_gteq(order);
    case Same:
      return std::is_eq(order);
    case Less:
      return std::is_lt(order);
    case Greater:
      return std::is_gt(order);
    default:
      return false;
  }
}

}  // namespace

Verdict VKDPlugIn::match(const PlistValue& rules) const { return match(MatchRules(rules)); }

Verdict VKDPlugIn::match(const MatchRules& rules) const {
  for (const MatchRules::Entry& entry : rules.entries()) {
    if (!matchKeyPattern(entry)) return Verdict::refused(Verdict::Filter::Rules, entry.key, entry.pattern);
  }
  return {};
}

// The value that a rule tests. `text` holds it where it has to be written out first.
PlistValue VKDPlugIn::subjectValue(const MatchRules::Entry& entry, std::string& text) const {
  switch (entry.subject) {
    case MatchRules::Subject::Identifier:
      return borrowed(identifier());
    case MatchRules::Subject::UUID:
      text = uuid().text();
      return borrowed(text);
    case MatchRules::Subject::Entitlement:
      return valueForEntitlement(entry.name);
    case MatchRules::Subject::UserElection: {
      const PlistValue annotation = surroundings_.annotations->annotationForPlugIn(*this);
      text = std::to_string(annotation[kVKAnnotationElection].intValue() & ~kElectionFlagBits);
      return borrowed(text);
    }
    case MatchRules::Subject::ContainingApp:
      return containingUrl() ? borrowed(containingUrl()->path) : PlistValue();
    case MatchRules::Subject::Attribute:
      break;
  }
  PlistValue value = attribute(entry.key);
  return value ? value : infoKey(entry.key);
}

bool VKDPlugIn::matchKeyPattern(const MatchRules::Entry& entry) const {
  if (entry.subject == MatchRules::Subject::ContainingApp && !containingUrl()) return false;
  std::string text;
  const PlistValue value = subjectValue(entry, text);
  switch (entry.test) {
    case MatchRules::Test::True:
      return value && !value.equals(false);
    case MatchRules::Test::False:
      return !value || value.equals(false);
    case MatchRules::Test::Items:
      return value && matchDictionaryPattern(value, entry.pattern);
    case MatchRules::Test::Strings:
      break;
    case MatchRules::Test::Never:
      return false;
  }
  if (!value.isArray()) return matchValuePatterns(value, entry);
  for (const PlistValue& element : value.elements()) {
    if (matchValuePatterns(element, entry)) return true;
  }
  return false;
}

bool VKDPlugIn::matchValuePatterns(const PlistValue& value, const MatchRules::Entry& entry) const {
  if (!value.isString()) return false;
  return std::ranges::any_of(
      entry.strings, [&](const StringPattern& pattern) { return matchValuePattern(value.stringValue(), pattern); });
}

bool VKDPlugIn::matchValuePattern(std::string_view value, const StringPattern& pattern) const {
  switch (pattern.op) {
    case StringPattern::Operator::ConformsTo:
      return surroundings_.services.types->conforms(value, pattern.operand);
    case StringPattern::Operator::Is:
      return surroundings_.services.types->conforms(pattern.operand, value);
    case StringPattern::Operator::Unknown:
      VK_LOG(vk_ops(), Info, "unrecognized match operator:%@", pattern.operand);
      return false;
    default:
      return compares(compareVersionString(value, pattern.operand), pattern.op);
  }
}

bool VKDPlugIn::matchDictionaryPattern(const PlistValue& value, const PlistValue& pattern) const {
  VK_LOG(vk_extension(), Debug, "evaluating ZoExtension filter: %@ value: %@", pattern, value);
  return surroundings_.services.activationRules->evaluate(value, pattern);
}

}  // namespace vkd
