// The two services that matching rules lean on. docs/activation-rules.md defines the activation-rule language.
#pragma once

#include <string_view>

#include "platform/values/PlistValue.h"

namespace platform {

class TypeConformance {
 public:
  virtual ~TypeConformance() = default;
  // Whether the first type equals the second or descends from it.
  virtual bool conforms(std::string_view type, std::string_view parent) = 0;
};

class ActivationRuleEvaluator {
 public:
  virtual ~ActivationRuleEvaluator() = default;
  // Whether the plug-in's rule (boolean, predicate string or dictionary) accepts the items a host describes. A rule
  // that cannot be understood accepts nothing.
  virtual bool evaluate(const PlistValue& rule, const PlistValue& itemsDescription) = 0;
};

}  // namespace platform
