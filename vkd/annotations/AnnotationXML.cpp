#include "vkd/annotations/AnnotationXML.h"

#include <utility>
#include <vector>

#include "platform/plists/PropertyList.h"
#include "platform/values/PlistText.h"

namespace vkd {

using namespace platform;

namespace {

constexpr char32_t kReplacementCharacter = 0xFFFD;
// Each element is indented by its depth, so small deep ones grow most. No annotation is as large before that shows.
constexpr std::uint64_t kMaxIndentedBytes = kMaxAnnotationXMLBytes * 16;

// The bytes of the character at the front of a text that xmlTextPrefix stopped at: one, but for valid UTF-8 of a
// character that XML lacks.
std::size_t refusedBytes(std::string_view text) {
  std::size_t length = 1;
  while (length < text.size() && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80) ++length;
  return length;
}

std::string writableText(std::string_view text) {
  std::string result;
  while (true) {
    const std::size_t good = xmlTextPrefix(text);
    result += text.substr(0, good);
    text.remove_prefix(good);
    if (text.empty()) return result;
    appendUTF8(result, kReplacementCharacter);
    text.remove_prefix(refusedBytes(text));
  }
}

// The value with all that XML cannot carry replaced or, where nothing can stand for it, left out.
PlistValue writableValue(const PlistValue& value) {
  if (value.isString()) return writableText(value.stringValue());
  if (value.isDate()) return wholeSecondDate(value.dateValue()) ? value : PlistValue();
  if (value.isArray()) {
    std::vector<PlistValue> elements;
    for (const PlistValue& element : value.elements()) elements.push_back(writableValue(element));
    return PlistValue::array(std::move(elements));
  }
  if (value.isDictionary()) {
    std::vector<std::pair<std::string, PlistValue>> entries;
    for (const auto& [key, entry] : value.entries()) entries.emplace_back(writableText(key), writableValue(entry));
    return PlistValue::dictionary(std::move(entries));
  }
  return value;
}

// The lines of a dictionary's entries, which stand between the lines of its own tags.
std::string withoutDictionaryTags(std::string xml) {
  xml.erase(0, xml.find('\n') + 1);
  xml.erase(xml.rfind('\n', xml.size() - 2) + 1);
  return xml;
}

}  // namespace

std::optional<std::string> annotationXML(std::string_view key, const PlistValue& annotation) {
  if (xmlTextPrefix(key) < key.size() || annotation.depth() + kAnnotationXMLLevel > kPlistMaxDepth ||
      annotation.encodedSize() > kMaxAnnotationXMLBytes ||
      annotation.encodedSize() * annotation.depth() > kMaxIndentedBytes) {
    return std::nullopt;
  }
  const auto entry = [&](const PlistValue& value) { return PlistBuilder().set(key, value).take(); };
  std::string xml;
  if (!appendPropertyListXML(xml, entry(annotation), kAnnotationXMLLevel - 1) &&
      !appendPropertyListXML(xml, entry(writableValue(annotation)), kAnnotationXMLLevel - 1)) {
    return std::nullopt;
  }
  xml = withoutDictionaryTags(std::move(xml));
  if (xml.size() > kMaxAnnotationXMLBytes) return std::nullopt;
  return xml;
}

}  // namespace vkd
