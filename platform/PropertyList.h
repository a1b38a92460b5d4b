// Property lists as files hold them: XML and binary form are read, XML is written.
#pragma once

#include <string>
#include <string_view>

#include "platform/DomainError.h"
#include "platform/PlistValue.h"

namespace platform {

// Reads either form, told apart by the first bytes. Answers nothing and an error (PlistErrorDomain, code = byte offset,
// text with what was wrong there) for bytes that are no property list, or one nested deeper than maxDepth or larger
// than kPlistMaxBytes. Any document type line is accepted and not looked at.
PlistValue parsePropertyList(std::string_view bytes, DomainError* error = nullptr,
                             std::size_t maxDepth = kPlistMaxInputDepth);

// The XML form, without a document type line; reading it gives an equal value. Characters that XML cannot carry
// cannot be written: nothing is answered (empty string) with an error naming the text.
std::string serializePropertyListXML(const PlistValue& value, DomainError* error = nullptr);

// The XML of one value without head and <plist>, indented by `level` tabs: for who joins ready parts.
bool appendPropertyListXML(std::string& out, const PlistValue& value, std::size_t level, DomainError* error = nullptr);

}  // namespace platform
