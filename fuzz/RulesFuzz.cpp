// Any rules against a plug-in made of any section: the verdict is that of the plainest possible evaluation, names an
// entry of the rules, and is the same every time; what becomes of a rule does not depend on the others.
//
// u16 length, the encoded rules; the rest is the encoded plug-in section with an entry "entitlements".
#include <compare>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Vornik/VKVersionComparison.h"
#include "platform/values/PlistEncoding.h"
#include "tests/Support/Fakes.h"
#include "vkd/plugins/VKDPlugIn.h"

using namespace vkd;
using namespace vkd::testing;

namespace {

struct Annotations : AnnotationSource {
  PlistValue annotation;
  PlistValue annotationForPlugIn(const VKDPlugIn&) override { return annotation; }
};

// Types conform when they begin alike.
struct Prefixes : TypeConformance {
  bool conforms(std::string_view type, std::string_view parent) override { return type.starts_with(parent); }
};

bool comparisonHolds(std::string_view value, std::string_view pattern) {
  const auto holds = [&](std::size_t operatorLength, auto test) {
    return test(compareVersionString(value, pattern.substr(operatorLength)));
  };
  if (pattern.starts_with("<>")) return holds(2, std::is_neq);
  if (pattern.starts_with("<=")) return holds(2, std::is_lteq);
  if (pattern.starts_with(">=")) return holds(2, std::is_gteq);
  if (pattern.starts_with("=")) return holds(1, std::is_eq);
  if (pattern.starts_with("<")) return holds(1, std::is_lt);
  if (pattern.starts_with(">")) return holds(1, std::is_gt);
  return holds(0, std::is_eq);
}

bool textHolds(const PlistValue& value, const PlistValue& pattern) {
  if (pattern.isArray() && value.isString()) {
    for (const PlistValue& element : pattern.elements()) {
      if (element.isString() && textHolds(value, element)) return true;
    }
  }
  if (!value.isString() || !pattern.isString()) return false;
  const std::string_view text = value.stringValue(), test = pattern.stringValue();
  if (test.starts_with("?UT-CONFORMS:")) return text.starts_with(test.substr(13));
  if (test.starts_with("?UT-IS:")) return test.substr(7).starts_with(text);
  return !test.starts_with("?") && comparisonHolds(text, test);
}

PlistValue valueFor(const VKDPlugIn& plugIn, std::string_view key, const PlistValue& annotation) {
  if (key.starts_with("ENTITLEMENT:")) return plugIn.valueForEntitlement(key.substr(12));
  if (key == "ZoExtensionIdentifier") return plugIn.identifier();
  if (key == "com.vantrel.uuid") return plugIn.uuid().text();
  if (key == "ZoUserElection") return std::to_string(annotation["election"].intValue() & ~std::int64_t{0xFF00});
  if (key == "ZoExtensionContainingApp") return plugIn.containingUrl()->path;
  PlistValue value = plugIn.attribute(key);
  return value ? value : plugIn.infoKey(key);
}

bool entryHolds(const PlistValue& value, const PlistValue& pattern) {
  if (pattern == PlistValue(true)) return value && !(value == PlistValue(false));
  if (pattern == PlistValue(false)) return !value || value == PlistValue(false);
  if (!value) return false;
  if (pattern.isDictionary()) return true;  // as the evaluator answers here
  if (!value.isArray()) return textHolds(value, pattern);
  for (const PlistValue& element : value.elements()) {
    if (textHolds(element, pattern)) return true;
  }
  return false;
}

void check(const VKDPlugIn& plugIn, const PlistValue& rules, const PlistValue& annotation) {
  bool expected = true;
  for (const auto& [key, pattern] : rules.entries()) {
    const bool holds = entryHolds(valueFor(plugIn, key, annotation), pattern);
    if (static_cast<bool>(plugIn.match(PlistBuilder().set(key, pattern).take())) != holds) std::abort();
    expected = expected && holds;
  }
  const MatchRules compiled(rules);
  for (int time = 0; time < 2; ++time) {
    const Verdict verdict = plugIn.match(compiled);
    if (static_cast<bool>(verdict) != expected) std::abort();
    // As bytes, since what is no number does not equal itself.
    const auto bytes = [](const PlistValue& value) { return encodePlist(value).flat(); };
    if (!verdict && bytes(rules[verdict.key]).view() != bytes(verdict.value).view()) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::uint16_t length;
  // Every pattern of a list meets every element of another, and keys are looked up from the start: quadratic both.
  if (size < sizeof length || size > 4096) return 0;
  std::memcpy(&length, data, sizeof length);
  const SharedSlice bytes = SharedSlice::take(std::string(reinterpret_cast<const char*>(data), size));
  const SharedSlice rest = bytes.part(sizeof length, size - sizeof length);
  if (length > rest.size()) return 0;
  const PlistValue rules = decodePlist(rest.part(0, length));
  const PlistValue section = decodePlist(rest.part(length, rest.size() - length));
  if (!rules || !section.isDictionary()) return 0;

  setLogSink([](const LogLine&) {});
  FakeServices device;
  Annotations annotations;
  VKDPlugIn::Surroundings surroundings{device.services(), &annotations};
  surroundings.services.types = std::make_shared<Prefixes>();
  const auto record = FakeRecord::appex("plugin");
  record->uuid->bytes.fill(0x11);
  record->setSection(section);
  record->rights = section["entitlements"];
  annotations.annotation = section["annotation"];
  // Not every section is one of a plug-in.
  if (const auto plugIn = VKDPlugIn::initWithALData(record, surroundings)) {
    check(*plugIn, rules, annotations.annotation);
  }
  return 0;
}
