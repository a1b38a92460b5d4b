#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/plists/PropertyList.h"
#include "platform/plists/PropertyListReaders.h"
#include "platform/values/PlistText.h"

namespace platform {

namespace {

constexpr std::string_view kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
constexpr std::string_view kTail = "</plist>\n";
constexpr std::string_view kTabs = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
// Base64 is broken into lines that fit a terminal.
constexpr std::size_t kDataLineBytes = 54;
// Small values deep inside grow many times when they are indented; this keeps the largest value a finite burden.
constexpr std::size_t kXMLMaxBytes = std::size_t{1} << 30;

std::string_view escapeOf(char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '\r':
      return "&#13;";  // written out it would read back as a line feed
    default:
      return {};
  }
}

class XMLWriter {
 public:
  XMLWriter(std::string& out, DomainError* error) : out_(out), error_(error) {}
  bool value(const PlistValue& value, std::size_t level);

 private:
  bool dictionary(const PlistValue& value, std::size_t level);
  bool array(const PlistValue& value, std::size_t level);
  bool scalar(const PlistValue& value, std::size_t level);
  bool element(std::string_view name, std::string_view text);
  bool text(std::string_view text);
  void data(std::string_view bytes, std::size_t level);
  template <class Number>
  void number(std::string_view name, Number value);
  void indent(std::size_t level);
  bool fail(std::size_t offset, std::string text) {
    noPropertyList(error_, offset, std::move(text));
    return false;
  }

  std::string& out_;
  DomainError* error_;
};

void XMLWriter::indent(std::size_t level) {
  for (; level > kTabs.size(); level -= kTabs.size()) out_ += kTabs;
  out_ += kTabs.substr(0, level);
}

bool XMLWriter::value(const PlistValue& value, std::size_t level) {
  indent(level);
  const bool written = value.isDictionary() ? dictionary(value, level)
                       : value.isArray()    ? array(value, level)
                                            : scalar(value, level);
  if (!written) return false;
  out_ += '\n';
  return out_.size() <= kXMLMaxBytes || fail(0, "the property list is too large to be written");
}

bool XMLWriter::dictionary(const PlistValue& value, std::size_t level) {
  if (value.empty()) {
    out_ += "<dict/>";
    return true;
  }
  out_ += "<dict>\n";
  for (PlistCursor entry(value); !entry.atEnd(); entry.next()) {
    indent(level + 1);
    if (!element("key", entry.key())) return false;
    out_ += '\n';
    if (!this->value(entry.value(), level + 1)) return false;
  }
  indent(level);
  out_ += "</dict>";
  return true;
}

bool XMLWriter::array(const PlistValue& value, std::size_t level) {
  if (value.empty()) {
    out_ += "<array/>";
    return true;
  }
  out_ += "<array>\n";
  for (PlistCursor element(value); !element.atEnd(); element.next()) {
    if (!this->value(element.value(), level + 1)) return false;
  }
  indent(level);
  out_ += "</array>";
  return true;
}

bool XMLWriter::scalar(const PlistValue& value, std::size_t level) {
  switch (value.kind()) {
    case PlistValue::Kind::Boolean:
      out_ += value.boolValue() ? "<true/>" : "<false/>";
      return true;
    case PlistValue::Kind::Integer:
      if (value.isLargeUnsigned()) {
        number("integer", value.uintValue());
      } else {
        number("integer", value.intValue());
      }
      return true;
    case PlistValue::Kind::Real:
      number("real", value.realValue());
      return true;
    case PlistValue::Kind::Date:
      out_ += "<date>";
      if (!appendISODate(out_, value.dateValue())) return fail(0, "a date outside the years 1 to 9999");
      out_ += "</date>";
      return true;
    case PlistValue::Kind::String:
      return element("string", value.stringValue());
    case PlistValue::Kind::Data:
      data(value.dataValue(), level);
      return true;
    default:
      return fail(0, "there is no value to write");
  }
}

template <class Number>
void XMLWriter::number(std::string_view name, Number value) {
  char digits[32];  // the shortest form of a real that reads back exactly has at most 24 characters
  const char* end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  ((out_ += '<') += name) += '>';
  out_.append(digits, static_cast<std::size_t>(end - digits));
  ((out_ += "</") += name) += '>';
}

bool XMLWriter::element(std::string_view name, std::string_view text) {
  ((out_ += '<') += name) += '>';
  if (!this->text(text)) return false;
  ((out_ += "</") += name) += '>';
  return true;
}

bool XMLWriter::text(std::string_view text) {
  const std::size_t good = xmlTextPrefix(text);
  if (good < text.size()) {
    return fail(good, "XML cannot carry the text " + quotedForError(text) + " because of byte " + std::to_string(good));
  }
  std::size_t written = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::string_view escape = escapeOf(text[i]);
    if (escape.empty()) continue;
    (out_ += text.substr(written, i - written)) += escape;
    written = i + 1;
  }
  out_ += text.substr(written);
  return true;
}

void XMLWriter::data(std::string_view bytes, std::size_t level) {
  out_ += "<data>\n";
  for (; !bytes.empty(); bytes.remove_prefix(std::min(kDataLineBytes, bytes.size()))) {
    indent(level);
    appendBase64(out_, bytes.substr(0, kDataLineBytes));
    out_ += '\n';
  }
  indent(level);
  out_ += "</data>";
}

}  // namespace

bool appendPropertyListXML(std::string& out, const PlistValue& value, std::size_t level, DomainError* error) {
  const std::size_t start = out.size();
  if (XMLWriter(out, error).value(value, level)) return true;
  out.resize(start);
  return false;
}

std::string serializePropertyListXML(const PlistValue& value, DomainError* error) {
  std::string out(kHead);
  if (!appendPropertyListXML(out, value, 0, error)) return {};
  out += kTail;
  return out;
}

}  // namespace platform
