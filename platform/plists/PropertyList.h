// Property lists as files hold them: XML and binary form are read, XML is written.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/values/DomainError.h"
#include "platform/values/PlistValue.h"

namespace platform {

// A binary file says once what it means in many places. Written out, it may be so many times as large as it is, so that
// whoever brings a file pays for the work and the memory that it costs.
inline constexpr std::uint64_t kPlistMaxGrowth = 16;
// A file of at least so many bytes; a shorter one may grow as if it had them.
inline constexpr std::uint64_t kPlistGrowthFloor = std::uint64_t{4} << 10;

// Reads either form, told apart by the first bytes. Answers nothing and an error (PlistErrorDomain, code = byte offset,
// text with what was wrong there) for bytes that are no property list, or one nested deeper than maxDepth or larger
// than kPlistMaxBytes or than kPlistMaxGrowth allows. Memory that runs out says nothing of the bytes: FileErrorDomain,
// ENOMEM. Any document type line is accepted and not looked at. XML is UTF-8; of equal keys the last counts.
PlistValue parsePropertyList(std::string_view bytes, DomainError* error = nullptr,
                             std::size_t maxDepth = kPlistMaxInputDepth);

// The XML form, without a document type line; reading it gives an equal value, except that a date loses its fraction of
// a second (what the readers answer has none). Nothing (an empty string) and an error is answered for what XML cannot
// carry: a string or key that is no UTF-8 or has control characters, named by the error with the offset in it as code,
// and a date outside the years 1 to 9999. Who reads back what came in by message passes kPlistMaxDepth to the reader.
std::string serializePropertyListXML(const PlistValue& value, DomainError* error = nullptr);

// The XML of one value without head and <plist>, indented by `level` tabs: for who joins ready parts.
bool appendPropertyListXML(std::string& out, const PlistValue& value, std::size_t level, DomainError* error = nullptr);

}  // namespace platform
