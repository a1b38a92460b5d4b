#include <algorithm>
#include <utility>

#include "platform/linux/rules/ActivationPredicate.h"

namespace platform {
namespace {

using Operand = ActivationPredicate::Operand;
using Operator = ActivationPredicate::Operator;
using Condition = ActivationPredicate::Condition;

// What one step of evaluation may walk over: entries of a dictionary, bytes of a text.
constexpr std::uint64_t kEntriesPerStep = 16;
constexpr std::uint64_t kBytesPerStep = 64;

// A value, or the elements that a path through an array leads to.
struct Found {
  bool isList = false;
  PlistValue value;
  std::vector<PlistValue> list;
};

class Evaluation {
 public:
  Evaluation(const PlistValue& items, TypeConformance& types, std::uint64_t steps)
      : items_(items), types_(types), steps_(steps) {}

  bool exhausted() const { return exhausted_; }

  // False as soon as the steps are used up; the result counts only when they were not.
  bool holds(const Condition& condition) {
    if (!charge(1)) return false;
    switch (condition.kind) {
      case Condition::Kind::Constant:
        return condition.constant;
      case Condition::Kind::Not:
        return !holds(condition.parts.front());
      case Condition::Kind::And:
        return std::all_of(condition.parts.begin(), condition.parts.end(),
                           [&](const Condition& c) { return holds(c); });
      case Condition::Kind::Or:
        return std::any_of(condition.parts.begin(), condition.parts.end(),
                           [&](const Condition& c) { return holds(c); });
      case Condition::Kind::Comparison:
        return compares(condition);
    }
    return false;
  }

 private:
  bool charge(std::uint64_t steps) {
    if (exhausted_ || steps > steps_) {
      exhausted_ = true;
      return false;
    }
    steps_ -= steps;
    return true;
  }

  bool compares(const Condition& condition) {
    Found left = find(condition.left);
    Found right = find(condition.right);
    if (condition.any && left.isList) {
      return std::any_of(left.list.begin(), left.list.end(),
                         [&](const PlistValue& element) { return compare(element, condition.comparison, right); });
    }
    if (!left.isList) return compare(left.value, condition.comparison, right);
    return condition.comparison == Operator::Contains && contains(left.list, asOne(right));
  }

  static PlistValue asOne(const Found& found) { return found.isList ? PlistValue() : found.value; }

  bool contains(const std::vector<PlistValue>& list, const PlistValue& value) {
    return value &&
           std::any_of(list.begin(), list.end(), [&](const PlistValue& element) { return equal(element, value); });
  }

  bool equal(const PlistValue& a, const PlistValue& b) {
    return charge(1 + std::min(a.encodedSize(), b.encodedSize()) / kBytesPerStep) && a == b;
  }

  bool compare(const PlistValue& left, Operator comparison, const Found& rightFound) {
    if (rightFound.isList) return false;
    const PlistValue& right = rightFound.value;
    if (comparison == Operator::Equal) return equal(left, right);
    if (comparison == Operator::NotEqual) return !equal(left, right);
    if (left.isNumber() && right.isNumber())
      return charge(1) && ordered(left.realValue(), comparison, right.realValue());
    if (left.isString() && right.isString()) return compareTexts(left.stringValue(), comparison, right.stringValue());
    return false;
  }

  template <class T>
  static bool ordered(const T& left, Operator comparison, const T& right) {
    switch (comparison) {
      case Operator::Less:
        return left < right;
      case Operator::LessOrEqual:
        return left <= right;
      case Operator::Greater:
        return left > right;
      case Operator::GreaterOrEqual:
        return left >= right;
      default:
        return false;
    }
  }

  bool compareTexts(std::string_view left, Operator comparison, std::string_view right) {
    std::uint64_t shorter = std::min(left.size(), right.size());
    // Searching may compare the whole of the one at each place of the other.
    std::uint64_t work = comparison == Operator::Contains ? left.size() * (1 + right.size()) : shorter;
    if (!charge(1 + work / kBytesPerStep)) return false;
    switch (comparison) {
      case Operator::BeginsWith:
        return left.starts_with(right);
      case Operator::EndsWith:
        return left.ends_with(right);
      case Operator::Contains:
        return left.find(right) != std::string_view::npos;
      case Operator::ConformsTo:
        return types_.conforms(left, right);
      default:
        return ordered(left, comparison, right);
    }
  }

  Found find(const Operand& operand) {
    Found found;
    switch (operand.base) {
      case Operand::Base::Items:
        found.value = items_;
        break;
      case Operand::Base::Variable:
        found.value = variables_[operand.variable];
        break;
      case Operand::Base::Literal:
        found.value = operand.literal;
        break;
      case Operand::Base::Subquery:
        found = select(*operand.subquery);
        break;
    }
    spread(&found);
    for (const std::string& key : operand.path) follow(&found, key);
    if (!operand.count) return found;
    std::size_t count = found.isList ? found.list.size() : (found.value ? 1 : 0);
    return Found{false, PlistValue(count), {}};
  }

  // An array is the list of its elements.
  void spread(Found* found) {
    if (found->isList || !found->value.isArray()) return;
    found->isList = true;
    append(&found->list, std::exchange(found->value, {}));
  }

  void append(std::vector<PlistValue>* list, const PlistValue& array) {
    if (!charge(array.size())) return;
    for (const PlistValue& element : array.elements()) list->push_back(element);
  }

  PlistValue entry(const PlistValue& dictionary, const std::string& key) {
    return charge(1 + dictionary.size() / kEntriesPerStep) ? dictionary[key] : PlistValue();
  }

  // The values under a key of every element; those that are arrays give their elements.
  void follow(Found* found, const std::string& key) {
    if (!found->isList) {
      found->value = entry(found->value, key);
      return spread(found);
    }
    std::vector<PlistValue> list;
    for (const PlistValue& element : found->list) {
      PlistValue value = entry(element, key);
      if (value.isArray()) {
        append(&list, value);
      } else if (value) {
        list.push_back(std::move(value));
      }
    }
    found->list = std::move(list);
  }

  Found select(const ActivationPredicate::Subquery& subquery) {
    Found collection = find(subquery.collection);
    if (!collection.isList && collection.value) collection.list.push_back(std::move(collection.value));
    Found result;
    result.isList = true;
    for (PlistValue& element : collection.list) {
      variables_.push_back(element);
      if (holds(subquery.condition)) result.list.push_back(std::move(element));
      variables_.pop_back();
    }
    return result;
  }

  const PlistValue& items_;
  TypeConformance& types_;
  std::uint64_t steps_;
  bool exhausted_ = false;
  std::vector<PlistValue> variables_;  // of the subqueries under way, outermost first
};

}  // namespace

std::optional<bool> ActivationPredicate::evaluate(const PlistValue& items, TypeConformance& types,
                                                  std::uint64_t maxSteps) const {
  Evaluation evaluation(items, types, maxSteps);
  bool result = evaluation.holds(root_);
  if (evaluation.exhausted()) return std::nullopt;
  return result;
}

}  // namespace platform
