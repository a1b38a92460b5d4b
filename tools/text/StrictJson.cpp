#include "tools/text/StrictJson.h"

#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "platform/values/PlistText.h"

namespace vkctl {

namespace {

using nlohmann::json;

// Reads the text for the parser and lets others see how far that has come.
class CountedInput {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  CountedInput(const char* at, const char** reached) : at_(at), reached_(reached) {}
  reference operator*() const { return *at_; }
  CountedInput& operator++() {
    *reached_ = ++at_;
    return *this;
  }
  CountedInput operator++(int) {
    CountedInput before = *this;
    ++*this;
    return before;
  }
  bool operator==(const CountedInput& other) const { return at_ == other.at_; }
  bool operator!=(const CountedInput& other) const { return at_ != other.at_; }

 private:
  const char* at_;
  const char** reached_;
};

// Builds the tree from the parser's events, and stops it at what is not accepted.
class TreeBuilder {
 public:
  explicit TreeBuilder(std::size_t maxDepth) : maxDepth_(maxDepth) {}

  bool null() { return add(nullptr) != nullptr; }
  bool boolean(bool value) { return add(value) != nullptr; }
  bool number_integer(json::number_integer_t value) { return add(value) != nullptr; }
  bool number_unsigned(json::number_unsigned_t value) { return add(value) != nullptr; }
  bool number_float(json::number_float_t value, const std::string& digits) {
    if (digits.find_first_of(".eE") == std::string::npos) return refuse("integer beyond 64 bits");
    return add(value) != nullptr;
  }
  bool string(std::string& value) { return add(std::move(value)) != nullptr; }
  bool binary(json::binary_t& /*value*/) { return refuse("binary value"); }
  bool key(std::string& key) {
    if (open_.back()->contains(key)) return refuse("key " + platform::quotedForError(key) + " stands twice");
    key_ = std::move(key);
    return true;
  }
  bool start_object(std::size_t /*size*/) { return open(json::object()); }
  bool start_array(std::size_t /*size*/) { return open(json::array()); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }
  bool parse_error(std::size_t /*position*/, const std::string& /*token*/, const json::exception& exception) {
    // "[id] parse error at line 1, column 2: what" or "[id] what": identifier and position are told in another form.
    std::string_view text = exception.what();
    text.remove_prefix(std::min(text.find("] ") + 2, text.size()));
    if (text.starts_with("parse error at")) text.remove_prefix(std::min(text.find(": ") + 2, text.size()));
    return refuse(std::string(text));
  }

  json take() { return std::move(root_); }
  const std::string& error() const { return error_; }

 private:
  bool refuse(std::string text) {
    error_ = std::move(text);
    return false;
  }
  json* add(json value) {
    if (open_.empty()) return &(root_ = std::move(value));
    if (open_.back()->is_object()) return &((*open_.back())[key_] = std::move(value));
    open_.back()->push_back(std::move(value));
    return &open_.back()->back();
  }
  bool open(json container) {
    if (open_.size() >= maxDepth_) return refuse("nested deeper than " + std::to_string(maxDepth_) + " levels");
    open_.push_back(add(std::move(container)));
    return true;
  }
  bool close() {
    open_.pop_back();
    return true;
  }

  std::size_t maxDepth_;
  json root_;
  std::vector<json*> open_;  // from the root to the innermost container
  std::string key_;          // of the value that comes next
  std::string error_;
};

}  // namespace

std::optional<json> parseStrictJson(std::string_view text, std::size_t maxDepth, std::string* error) {
  const char* reached = text.data();
  TreeBuilder builder(maxDepth);
  if (json::sax_parse(CountedInput(text.data(), &reached), CountedInput(text.data() + text.size(), &reached),
                      &builder)) {
    return builder.take();
  }
  if (error != nullptr) *error = "JSON, byte " + std::to_string(reached - text.data()) + ": " + builder.error();
  return std::nullopt;
}

std::string printedJson(const json& json) {
  constexpr std::string_view kHex = "0123456789abcdef";
  const std::string text = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    // Control characters beyond ASCII stand in strings only, and JSON does not ask to escape them.
    const auto byte = static_cast<unsigned char>(text[i]);
    const unsigned char next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    const bool isControl = byte == 0xC2 && next < 0xA0;
    if (byte != 0x7F && !isControl) {
      out += text[i];
      continue;
    }
    const unsigned character = isControl ? next : byte;
    (out += "\\u00") += {kHex[character >> 4], kHex[character & 15]};
    i += isControl ? 1 : 0;
  }
  return out;
}

}  // namespace vkctl
