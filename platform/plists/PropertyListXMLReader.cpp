#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <utility>

#include "platform/plists/PropertyListReaders.h"
#include "platform/plists/XMLScanner.h"
#include "platform/values/EncodingBuilder.h"
#include "platform/values/PlistEncoding.h"
#include "platform/values/PlistText.h"

namespace platform {

namespace {

using Tag = XMLScanner::Tag;

class XMLReader {
 public:
  XMLReader(std::string_view bytes, std::size_t maxDepth) : bytes_(bytes), scanner_(bytes), maxDepth_(maxDepth) {}
  PlistValue read(DomainError* error);

 private:
  bool readDocument();
  bool readValue(const Tag& tag, std::size_t depth);
  bool readDictionary(const Tag& tag, std::size_t depth);
  bool readArray(const Tag& tag, std::size_t depth);
  bool readScalar(const Tag& tag);
  bool addScalar(const Tag& tag, std::string_view text);
  bool addInteger(const Tag& tag, std::string_view text);
  bool addReal(const Tag& tag, std::string_view text);
  bool checkDepth(const Tag& tag, std::size_t depth);
  bool malformed(const Tag& tag, std::string_view text);

  std::string_view bytes_;
  XMLScanner scanner_;
  EncodingBuilder builder_;
  std::size_t maxDepth_;
};

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Whether the whole text is a number.
template <class Number, class... Form>
bool parseNumber(std::string_view text, Number& number, Form... form) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, form...);
  return error == std::errc() && end == text.data() + text.size();
}

PlistValue XMLReader::read(DomainError* error) {
  if (!readDocument()) {
    const auto& [offset, text] = scanner_.error();
    const auto line = 1 + std::count(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(offset), '\n');
    return noPropertyList(error, offset, "property list, line " + std::to_string(line) + ": " + text);
  }
  return decodePlist(SharedSlice::take(builder_.take()), error, maxDepth_);
}

bool XMLReader::readDocument() {
  Tag root, tag;
  if (!scanner_.readRoot(root)) return false;
  if (root.closing || root.name != "plist") return scanner_.fail(root.offset, "<plist> expected");
  if (root.empty) return scanner_.fail(root.offset, "no value in <plist>");
  if (!scanner_.readTag(tag)) return false;
  if (tag.closing) return scanner_.fail(tag.offset, "no value in <plist>");
  if (!readValue(tag, 0) || !scanner_.readTag(tag)) return false;
  if (!tag.closing || tag.name != "plist") return scanner_.fail(tag.offset, "</plist> expected");
  return scanner_.readEnd();
}

bool XMLReader::readValue(const Tag& tag, std::size_t depth) {
  const bool read = tag.name == "dict"    ? readDictionary(tag, depth)
                    : tag.name == "array" ? readArray(tag, depth)
                                          : readScalar(tag);
  if (!read) return false;
  return builder_.size() <= kPlistMaxBytes || scanner_.fail(tag.offset, "the property list is too large");
}

bool XMLReader::checkDepth(const Tag& tag, std::size_t depth) {
  if (depth < maxDepth_) return true;
  return scanner_.fail(tag.offset, "nested deeper than " + std::to_string(maxDepth_) + " levels");
}

bool XMLReader::readDictionary(const Tag& start, std::size_t depth) {
  if (!checkDepth(start, depth)) return false;
  const EncodingBuilder::Mark mark = builder_.begin();
  Tag tag;
  while (!start.empty) {
    if (!scanner_.readTag(tag)) return false;
    if (tag.closing && tag.name == start.name) break;
    if (tag.closing || tag.name != "key") return scanner_.fail(tag.offset, "<key> or </dict> expected");
    std::string_view key;
    if (!scanner_.readText(tag, key)) return false;
    builder_.addKey(key);
    if (!scanner_.readTag(tag)) return false;
    if (tag.closing) return scanner_.fail(tag.offset, "a key without a value");
    if (!readValue(tag, depth + 1)) return false;
  }
  builder_.endDictionary(mark);
  return true;
}

bool XMLReader::readArray(const Tag& start, std::size_t depth) {
  if (!checkDepth(start, depth)) return false;
  const EncodingBuilder::Mark mark = builder_.begin();
  Tag tag;
  while (!start.empty) {
    if (!scanner_.readTag(tag)) return false;
    if (tag.closing && tag.name == start.name) break;
    if (tag.closing) return scanner_.fail(tag.offset, "</array> expected");
    builder_.addElement();
    if (!readValue(tag, depth + 1)) return false;
  }
  builder_.endArray(mark);
  return true;
}

bool XMLReader::readScalar(const Tag& tag) {
  constexpr std::array<std::string_view, 7> kScalars = {"string", "integer", "true", "false", "real", "date", "data"};
  if (std::find(kScalars.begin(), kScalars.end(), tag.name) == kScalars.end()) {
    return scanner_.fail(tag.offset, "no value is called " + quotedForError(tag.name));
  }
  std::string_view text;
  return scanner_.readText(tag, text) && addScalar(tag, text);
}

bool XMLReader::addScalar(const Tag& tag, std::string_view text) {
  if (tag.name == "string") {
    builder_.addString(text);
    return true;
  }
  if (tag.name == "data") {
    const std::optional<std::string> bytes = decodeBase64(text);
    if (!bytes) return malformed(tag, text);
    builder_.addData(*bytes);
    return true;
  }
  text = trimmed(text);
  if (tag.name == "integer") return addInteger(tag, text);
  if (tag.name == "real") return addReal(tag, text);
  if (tag.name == "date") {
    const std::optional<double> date = parseISODate(text);
    if (!date) return malformed(tag, text);
    builder_.addDate(*date);
    return true;
  }
  if (!text.empty()) return malformed(tag, text);
  builder_.addBoolean(tag.name == "true");
  return true;
}

bool XMLReader::addInteger(const Tag& tag, std::string_view text) {
  std::string_view digits = text;
  const bool negative = digits.starts_with('-');
  if (negative || digits.starts_with('+')) digits.remove_prefix(1);
  const bool hex = digits.starts_with("0x") || digits.starts_with("0X");
  if (hex) digits.remove_prefix(2);
  std::uint64_t magnitude = 0;
  const std::uint64_t largest = negative ? std::uint64_t{1} << 63 : std::numeric_limits<std::uint64_t>::max();
  if (!parseNumber(digits, magnitude, hex ? 16 : 10) || magnitude > largest) return malformed(tag, text);
  if (negative) {
    builder_.addInteger(static_cast<std::int64_t>(0 - magnitude));
  } else {
    builder_.addUnsigned(magnitude);
  }
  return true;
}

bool XMLReader::addReal(const Tag& tag, std::string_view text) {
  std::string_view digits = text;
  if (digits.starts_with('+')) {
    digits.remove_prefix(1);
    if (digits.starts_with('-')) return malformed(tag, text);
  }
  double number = 0;
  if (!parseNumber(digits, number)) return malformed(tag, text);
  // All that are no number are the same one, so that what is written reads back as the same value.
  builder_.addReal(number == number ? number : std::numeric_limits<double>::quiet_NaN());
  return true;
}

bool XMLReader::malformed(const Tag& tag, std::string_view text) {
  return scanner_.fail(tag.offset, quotedForError(text) + " is no " + std::string(tag.name));
}

}  // namespace

PlistValue readXMLPropertyList(std::string_view bytes, std::size_t maxDepth, DomainError* error) {
  return XMLReader(bytes, maxDepth).read(error);
}

}  // namespace platform
