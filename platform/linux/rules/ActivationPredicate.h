// A parsed activation predicate; docs/activation-rules.md has the language.
//
//   std::unique_ptr<const ActivationPredicate> predicate = ActivationPredicate::parse(text, &error);
//   std::optional<bool> accepts = predicate->evaluate(items, types, kMaxActivationSteps);
//
// Immutable; evaluated from any thread. Texts and items come from strangers: reading and evaluating are bounded in
// depth and in steps.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Rules.h"
#include "platform/values/PlistValue.h"

namespace platform {

// A longer text is refused: it would be parsed and kept for every plug-in that brings one.
inline constexpr std::size_t kMaxPredicateBytes = std::size_t{16} << 10;
// Parentheses, NOT and SUBQUERY within each other: each level is a stack frame of the parser and of the evaluation.
inline constexpr int kMaxPredicateDepth = 24;

class ActivationPredicate {
 public:
  struct Condition;
  struct Subquery;
  enum class Operator : std::uint8_t {
    Equal,
    NotEqual,
    Less,
    LessOrEqual,
    Greater,
    GreaterOrEqual,
    BeginsWith,
    EndsWith,
    Contains,
    ConformsTo
  };

  // What stands on one side of a comparison: a base, and the keys that lead on from it.
  struct Operand {
    enum class Base : std::uint8_t { Items, Variable, Literal, Subquery };
    Base base = Base::Items;
    std::size_t variable = 0;  // which of the enclosing subqueries' variables, outermost 0
    PlistValue literal;
    std::unique_ptr<Subquery> subquery;
    std::vector<std::string> path;
    bool count = false;  // "@count" at the end
  };

  struct Condition {
    enum class Kind : std::uint8_t { Constant, Not, And, Or, Comparison };
    Kind kind = Kind::Constant;
    bool constant = false;
    std::vector<Condition> parts;
    bool any = false;
    Operand left, right;
    Operator comparison = Operator::Equal;
  };

  struct Subquery {
    Operand collection;
    Condition condition;
  };

  // Null and a text with the place of the mistake.
  static std::unique_ptr<const ActivationPredicate> parse(std::string_view text, std::string* error);

  // Nothing when the evaluation would take more than `maxSteps`.
  std::optional<bool> evaluate(const PlistValue& items, TypeConformance& types, std::uint64_t maxSteps) const;

 private:
  explicit ActivationPredicate(Condition root) : root_(std::move(root)) {}
  const Condition root_;
};

}  // namespace platform
