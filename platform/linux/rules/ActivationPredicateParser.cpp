#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <utility>

#include "platform/linux/rules/ActivationPredicate.h"

namespace platform {
namespace {

using Operand = ActivationPredicate::Operand;
using Operator = ActivationPredicate::Operator;
using Condition = ActivationPredicate::Condition;

struct Token {
  enum class Kind : std::uint8_t { End, Name, Variable, String, Number, Symbol, Bad };
  Kind kind = Kind::End;
  std::size_t at = 0;
  std::string_view text;  // as written; of a variable without "$"
  PlistValue value;       // of a string or number
};

bool isNameStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '@'; }
bool isNamePart(char c) { return isNameStart(c) || std::isdigit(static_cast<unsigned char>(c)) != 0 || c == '-'; }

class Tokenizer {
 public:
  explicit Tokenizer(std::string_view text) : text_(text) {}

  Token next() {
    while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_])) != 0) ++at_;
    Token token;
    token.at = at_;
    if (at_ == text_.size()) return token;
    char c = text_[at_];
    if (c == '"' || c == '\'') return string(std::move(token), c);
    if (c == '$') {
      ++at_;
      return name(std::move(token), Token::Kind::Variable);
    }
    if (isNameStart(c)) return name(std::move(token), Token::Kind::Name);
    if (std::isdigit(static_cast<unsigned char>(c)) != 0 || c == '-') return number(std::move(token));
    return symbol(std::move(token));
  }

 private:
  Token name(Token token, Token::Kind kind) {
    std::size_t start = at_;
    while (at_ < text_.size() && isNamePart(text_[at_])) ++at_;
    token.kind = at_ > start ? kind : Token::Kind::Bad;
    token.text = text_.substr(start, at_ - start);
    return token;
  }

  // A backslash takes the character behind it as it is.
  Token string(Token token, char quote) {
    std::string value;
    for (++at_; at_ < text_.size() && text_[at_] != quote; ++at_) {
      if (text_[at_] == '\\' && at_ + 1 < text_.size()) ++at_;
      value += text_[at_];
    }
    if (at_ == text_.size()) {
      token.kind = Token::Kind::Bad;
      return token;
    }
    ++at_;
    token.kind = Token::Kind::String;
    token.value = PlistValue(value);
    return token;
  }

  Token number(Token token) {
    double value = 0;
    auto [end, error] = std::from_chars(text_.data() + at_, text_.data() + text_.size(), value);
    token.kind = error == std::errc() ? Token::Kind::Number : Token::Kind::Bad;
    token.value = PlistValue(value);
    at_ = static_cast<std::size_t>(end - text_.data());
    return token;
  }

  Token symbol(Token token) {
    constexpr std::array<std::string_view, 16> kSymbols = {"==", "!=", "<=", ">=", "=<", "=>", "<>", "&&",
                                                           "||", "=",  "<",  ">",  "!",  "(",  ")",  ","};
    for (std::string_view candidate : kSymbols) {
      if (!text_.substr(at_).starts_with(candidate)) continue;
      at_ += candidate.size();
      token.kind = Token::Kind::Symbol;
      token.text = candidate;
      return token;
    }
    token.kind = text_[at_] == '.' ? Token::Kind::Symbol : Token::Kind::Bad;
    token.text = text_.substr(at_++, 1);
    return token;
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

bool sameWord(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
  });
}

// Each rule answers false after setting the error; what it has built by then is thrown away.
class Parser {
 public:
  Parser(std::string_view text, std::string* error) : tokens_(text), error_(error) { advance(); }

  bool predicate(Condition* result) {
    return disjunction(result) && (token_.kind == Token::Kind::End || fail("unexpected text"));
  }

 private:
  // A level of nesting while it lives.
  class Level {
   public:
    explicit Level(int* depth) : depth_(depth) { ++*depth_; }
    ~Level() { --*depth_; }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;
    bool tooDeep() const { return *depth_ > kMaxPredicateDepth; }

   private:
    int* depth_;
  };

  void advance() { token_ = tokens_.next(); }
  bool fail(std::string_view what) {
    if (error_ != nullptr) *error_ = std::string(what).append(" at ").append(std::to_string(token_.at));
    return false;
  }
  bool isSymbol(std::string_view text) const { return token_.kind == Token::Kind::Symbol && token_.text == text; }
  bool isWord(std::string_view word) const { return token_.kind == Token::Kind::Name && sameWord(token_.text, word); }
  bool take(bool isNext) {
    if (isNext) advance();
    return isNext;
  }
  bool expect(std::string_view text) {
    return take(isSymbol(text)) || fail(std::string("expected \"").append(text).append("\""));
  }

  bool disjunction(Condition* result) { return joined(result, Condition::Kind::Or, "OR", "||", &Parser::conjunction); }
  bool conjunction(Condition* result) { return joined(result, Condition::Kind::And, "AND", "&&", &Parser::factor); }

  bool joined(Condition* result, Condition::Kind kind, std::string_view word, std::string_view symbol,
              bool (Parser::*part)(Condition*)) {
    Condition first;
    if (!(this->*part)(&first)) return false;
    if (!isWord(word) && !isSymbol(symbol)) {
      *result = std::move(first);
      return true;
    }
    result->kind = kind;
    result->parts.push_back(std::move(first));
    while (take(isWord(word) || isSymbol(symbol))) {
      if (!(this->*part)(&result->parts.emplace_back())) return false;
    }
    return true;
  }

  bool factor(Condition* result) {
    Level level(&depth_);
    if (level.tooDeep()) return fail("nested too deep");
    if (take(isWord("NOT") || isSymbol("!"))) {
      result->kind = Condition::Kind::Not;
      return factor(&result->parts.emplace_back());
    }
    if (take(isSymbol("("))) return disjunction(result) && expect(")");
    if (isWord("TRUEPREDICATE") || isWord("FALSEPREDICATE")) {
      result->constant = isWord("TRUEPREDICATE");
      advance();
      return true;
    }
    return comparison(result);
  }

  bool comparison(Condition* result) {
    result->kind = Condition::Kind::Comparison;
    result->any = take(isWord("ANY"));
    return operand(&result->left) && comparisonOperator(&result->comparison) && operand(&result->right);
  }

  bool comparisonOperator(Operator* result) {
    struct Named {
      std::string_view text;
      Operator value;
    };
    constexpr std::array<Named, 13> kOperators = {{{"==", Operator::Equal},
                                                   {"=", Operator::Equal},
                                                   {"!=", Operator::NotEqual},
                                                   {"<>", Operator::NotEqual},
                                                   {"<", Operator::Less},
                                                   {"<=", Operator::LessOrEqual},
                                                   {"=<", Operator::LessOrEqual},
                                                   {">", Operator::Greater},
                                                   {">=", Operator::GreaterOrEqual},
                                                   {"=>", Operator::GreaterOrEqual},
                                                   {"BEGINSWITH", Operator::BeginsWith},
                                                   {"ENDSWITH", Operator::EndsWith},
                                                   {"CONTAINS", Operator::Contains}}};
    for (const Named& named : kOperators) {
      if (!isSymbol(named.text) && !isWord(named.text)) continue;
      *result = named.value;
      advance();
      return true;
    }
    *result = Operator::ConformsTo;
    return take(isWord("UTI-CONFORMS-TO")) || fail("expected an operator");
  }

  bool operand(Operand* result) {
    if (token_.kind == Token::Kind::String || token_.kind == Token::Kind::Number || isWord("TRUE") || isWord("FALSE")) {
      result->base = Operand::Base::Literal;
      result->literal = token_.value ? token_.value : PlistValue(isWord("TRUE"));
      advance();
      return true;
    }
    if (token_.kind == Token::Kind::Variable) return variable(result) && path(result);
    if (take(isWord("SUBQUERY"))) return subquery(result) && path(result);
    if (token_.kind != Token::Kind::Name) return fail("expected a value");
    return name(result) && path(result);
  }

  bool variable(Operand* result) {
    auto found = std::find(variables_.rbegin(), variables_.rend(), token_.text);
    if (found == variables_.rend()) return fail("unknown variable");
    result->base = Operand::Base::Variable;
    result->variable = static_cast<std::size_t>(variables_.rend() - found) - 1;
    advance();
    return true;
  }

  bool subquery(Operand* result) {
    Level level(&depth_);
    if (level.tooDeep()) return fail("nested too deep");
    result->base = Operand::Base::Subquery;
    result->subquery = std::make_unique<ActivationPredicate::Subquery>();
    if (!expect("(") || !operand(&result->subquery->collection) || !expect(",")) return false;
    if (token_.kind != Token::Kind::Variable) return fail("expected a variable");
    std::string_view variableName = token_.text;
    advance();
    if (!expect(",")) return false;
    variables_.push_back(variableName);
    bool read = disjunction(&result->subquery->condition) && expect(")");
    variables_.pop_back();
    return read;
  }

  bool name(Operand* result) {
    if (token_.text.starts_with('@')) {
      if (token_.text != "@count") return fail("unknown function");
      result->count = true;
    } else {
      result->path.emplace_back(token_.text);
    }
    advance();
    return true;
  }

  bool path(Operand* result) {
    while (take(isSymbol("."))) {
      if (token_.kind != Token::Kind::Name || result->count) return fail("expected a key");
      if (!name(result)) return false;
    }
    return true;
  }

  Tokenizer tokens_;
  Token token_;
  std::string* error_;
  int depth_ = 0;
  std::vector<std::string_view> variables_;  // of the enclosing subqueries, outermost first
};

}  // namespace

std::unique_ptr<const ActivationPredicate> ActivationPredicate::parse(std::string_view text, std::string* error) {
  if (text.size() > kMaxPredicateBytes) {
    if (error != nullptr) *error = "too long";
    return nullptr;
  }
  Condition root;
  if (!Parser(text, error).predicate(&root)) return nullptr;
  return std::unique_ptr<const ActivationPredicate>(new ActivationPredicate(std::move(root)));
}

}  // namespace platform
