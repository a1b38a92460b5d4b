// Text forms that the writings of property lists share: dates, base64, and what XML counts as a text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// "2026-11-22T19:40:01Z" as seconds since 1970, for the years 0001 to 9999; nothing for any other text.
std::optional<double> parseISODate(std::string_view text);
// Appends the date in that form. A fraction of a second is cut off, so that the instant lies within the second written.
// Appends nothing and answers false for a date outside those years or that is no number.
bool appendISODate(std::string& out, double secondsSince1970);
// The date as that form can hold it: without a fraction of a second; nothing outside the years it can express.
std::optional<double> wholeSecondDate(double secondsSince1970);

// Padded base64; white space anywhere in it does not count. Nothing for any other text.
std::optional<std::string> decodeBase64(std::string_view text);
void appendBase64(std::string& out, std::string_view bytes);

// Whether an XML document may contain this character, be it written out or as a reference.
bool isXMLCharacter(char32_t character);
// How many leading bytes of the text an XML document can carry: all of them when the text is valid UTF-8 and made of
// such characters only.
std::size_t xmlTextPrefix(std::string_view text);
// The character must be one that UTF-8 can express.
void appendUTF8(std::string& out, char32_t character);

// A text as an error shows it: in quotes, cut, and without anything that could disturb a terminal.
std::string quotedForError(std::string_view text);

}  // namespace platform
