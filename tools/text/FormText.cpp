#include "tools/text/FormText.h"

#include "tools/text/Text.h"

namespace vkctl {
namespace {

void appendValue(std::string& out, const PlistValue& value, std::size_t level) {
  bool nested = (value.isDictionary() || value.isArray()) && !value.empty();
  if (!nested) {
    out += ' ' + escaped(scalarText(value)) + '\n';
  } else if (value.isDictionary()) {
    out += '\n' + indentedText(value, level + 1);
  } else {
    out += '\n';
    for (const PlistValue& element : value.elements()) {
      out.append(2 * (level + 1), ' ').append("-");
      appendValue(out, element, level + 1);
    }
  }
}

}  // namespace

std::string scalarText(const PlistValue& value) {
  if (value.isString()) return std::string(value.stringValue());
  if (value.isData()) return "(" + std::to_string(value.dataValue().size()) + " bytes)";
  return value.description();
}

std::string indentedText(const PlistValue& dictionary, std::size_t level) {
  std::string out;
  for (auto [key, value] : dictionary.entries()) {
    out.append(2 * level, ' ').append(escaped(key)).append(":");
    appendValue(out, value, level);
  }
  return out;
}

}  // namespace vkctl
