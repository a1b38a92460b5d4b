#include "platform/plists/XMLScanner.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <utility>

#include "platform/values/PlistText.h"

namespace platform {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
// "&#x10FFFF;" and some leading zeros: nothing longer is a reference, so that none makes the reader search far.
constexpr std::size_t kReferenceMaxBytes = 16;

constexpr std::array<std::pair<std::string_view, char>, 5> kEntities = {
    {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}}};

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

constexpr std::array<bool, 256> makeNameEnds() {
  std::array<bool, 256> ends{};
  for (char c : std::string_view(" \t\r\n>/=<\"'")) ends[static_cast<unsigned char>(c)] = true;
  return ends;
}
constexpr std::array<bool, 256> kNameEnds = makeNameEnds();

bool endsName(char c) { return kNameEnds[static_cast<unsigned char>(c)]; }

std::string lowercase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

// The value of an attribute inside the text of an XML declaration.
std::string_view attribute(std::string_view declaration, std::string_view name) {
  const std::size_t found = declaration.find(name);
  if (found == std::string_view::npos) return {};
  std::string_view rest = declaration.substr(found + name.size());
  const std::size_t quote = rest.find_first_of("\"'");
  if (quote == std::string_view::npos) return {};
  const char mark = rest[quote];
  rest.remove_prefix(quote + 1);
  return rest.substr(0, rest.find(mark));
}

// The character that the inside of a reference, without '&' and ';', stands for; 0 for none.
char32_t referredCharacter(std::string_view name) {
  for (const auto& [entity, character] : kEntities) {
    if (name == entity) return static_cast<unsigned char>(character);
  }
  if (!name.starts_with('#')) return 0;
  name.remove_prefix(1);
  const bool hex = name.starts_with('x');
  if (hex) name.remove_prefix(1);
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number, hex ? 16 : 10);
  if (error != std::errc() || end != name.data() + name.size() || !isXMLCharacter(number)) return 0;
  return number;
}

}  // namespace

bool XMLScanner::fail(std::size_t offset, std::string text) {
  if (error_.text.empty()) error_ = {offset, std::move(text)};
  return false;
}

// ---- What stands around the root element

bool XMLScanner::checkCharacters() {
  const std::string_view head = document_.substr(0, 2);
  if (head == "\xFE\xFF" || head == "\xFF\xFE" || head == std::string_view("\0<", 2) ||
      head == std::string_view("<\0", 2)) {
    return fail(0, "UTF-16 is not supported, only UTF-8");
  }
  const std::size_t good = xmlTextPrefix(document_);
  if (good == document_.size()) return true;
  return fail(good, "not UTF-8, or a character that XML does not allow");
}

bool XMLScanner::readDeclaration() {
  if (!rest().starts_with("<?xml") || rest().size() == 5 || !isBlank(rest()[5])) return true;
  const std::size_t start = at_;
  if (!skip("<?", "?>")) return false;
  const std::string encoding = lowercase(attribute(document_.substr(start, at_ - start), "encoding"));
  if (encoding.empty() || encoding == "utf-8" || encoding == "utf8" || encoding == "us-ascii") return true;
  return fail(start, "encoding " + quotedForError(encoding) + " is not supported, only UTF-8");
}

bool XMLScanner::readRoot(Tag& root) {
  if (!checkCharacters()) return false;
  if (document_.starts_with(kByteOrderMark)) at_ = kByteOrderMark.size();
  if (!readDeclaration() || !skipIgnored()) return false;
  if (rest().starts_with("<!DOCTYPE") && !skipDocumentType()) return false;
  return readTag(root);
}

bool XMLScanner::readEnd() {
  if (!skipIgnored()) return false;
  return atEnd() || fail(at_, "something follows the document");
}

bool XMLScanner::skipDocumentType() {
  const std::size_t start = at_;
  while (!atEnd()) {
    const char c = document_[at_];
    if (c == '"' || c == '\'') {
      if (!skipQuoted()) return false;
      continue;
    }
    ++at_;
    if (c == '[' && !skipInternalSubset()) return false;
    if (c == '>') return true;
  }
  return fail(start, "unterminated document type");
}

bool XMLScanner::skipInternalSubset() {
  const std::size_t start = at_;
  while (!atEnd()) {
    const char c = document_[at_];
    if (c == ']') {
      ++at_;
      return true;
    }
    if (rest().starts_with("<!--")) {
      if (!skip("<!--", "-->")) return false;
    } else if (rest().starts_with("<?")) {
      if (!skip("<?", "?>")) return false;
    } else if (c == '"' || c == '\'') {
      if (!skipQuoted()) return false;
    } else {
      ++at_;
    }
  }
  return fail(start, "unterminated document type");
}

// ---- Between tags

bool XMLScanner::skip(std::string_view open, std::string_view close) {
  const std::size_t found = document_.find(close, at_ + open.size());
  if (found == std::string_view::npos) return fail(at_, "unterminated " + std::string(open));
  at_ = found + close.size();
  return true;
}

bool XMLScanner::skipQuoted() {
  const std::size_t end = document_.find(document_[at_], at_ + 1);
  if (end == std::string_view::npos) return fail(at_, "unterminated quotation");
  at_ = end + 1;
  return true;
}

void XMLScanner::skipBlanks() {
  while (!atEnd() && isBlank(document_[at_])) ++at_;
}

bool XMLScanner::skipIgnored() {
  for (;;) {
    skipBlanks();
    if (rest().starts_with("<!--")) {
      if (!skip("<!--", "-->")) return false;
    } else if (rest().starts_with("<?")) {
      if (!skip("<?", "?>")) return false;
    } else {
      return true;
    }
  }
}

// ---- Tags

bool XMLScanner::readTag(Tag& tag) {
  if (!skipIgnored()) return false;
  if (atEnd()) return fail(at_, "the document ends too early");
  if (document_[at_] != '<') return fail(at_, "text where only tags may be");
  tag = Tag{.name = {}, .offset = at_++};
  if (!atEnd() && document_[at_] == '/') {
    tag.closing = true;
    ++at_;
  }
  const std::size_t start = at_;
  while (!atEnd() && !endsName(document_[at_])) ++at_;
  tag.name = document_.substr(start, at_ - start);
  if (tag.name.empty()) return fail(tag.offset, "a tag without name");
  if (!atEnd() && document_[at_] == '>') {
    ++at_;
    return true;
  }
  return readAttributes(tag);
}

bool XMLScanner::readAttributes(Tag& tag) {
  for (;;) {
    const std::size_t blanks = at_;
    skipBlanks();
    if (rest().starts_with('>')) {
      ++at_;
      return true;
    }
    if (rest().starts_with("/>") && !tag.closing) {
      at_ += 2;
      tag.empty = true;
      return true;
    }
    const std::size_t start = at_;
    while (!atEnd() && !endsName(document_[at_])) ++at_;
    if (tag.closing || start == blanks || at_ == start) break;
    skipBlanks();
    if (!rest().starts_with('=')) break;
    ++at_;
    skipBlanks();
    if (!rest().starts_with('"') && !rest().starts_with('\'')) break;
    if (!skipQuoted()) return false;
  }
  return fail(tag.offset, "malformed tag " + quotedForError(tag.name));
}

// ---- Text

bool XMLScanner::readText(const Tag& element, std::string_view& text) {
  text = {};
  if (element.empty) return true;
  // Nearly every text is one piece without references, so it need not be copied.
  const std::size_t end = document_.find('<', at_);
  const std::string_view piece = document_.substr(at_, end - at_);
  if (end != std::string_view::npos && document_.substr(end, 2) == "</" && piece.find('&') == std::string_view::npos &&
      piece.find('\r') == std::string_view::npos) {
    bool ended = false;
    at_ = end;
    text = piece;
    return readPiece(element, ended);
  }
  text_.clear();
  for (bool ended = false; !ended;) {
    if (!readPiece(element, ended)) return false;
  }
  text = text_;
  return true;
}

// One piece of a text: characters, a CDATA section, something to ignore, or the end tag.
bool XMLScanner::readPiece(const Tag& element, bool& ended) {
  constexpr std::string_view kSection = "<![CDATA[";
  const std::size_t start = at_;
  if (atEnd()) return fail(element.offset, "<" + std::string(element.name) + "> is not closed");
  if (rest().starts_with("</")) {
    Tag tag;
    ended = true;
    return readTag(tag) && (tag.name == element.name || fail(start, "</" + std::string(element.name) + "> expected"));
  }
  if (rest().starts_with("<!--")) return skip("<!--", "-->");
  if (rest().starts_with("<?")) return skip("<?", "?>");
  if (rest().starts_with(kSection)) {
    if (!skip(kSection, "]]>")) return false;
    appendLines(document_.substr(start + kSection.size(), at_ - start - kSection.size() - 3));
    return true;
  }
  if (rest().starts_with('<')) return fail(start, "a tag inside <" + std::string(element.name) + ">");
  at_ = std::min(document_.find('<', start), document_.size());
  return appendText(document_.substr(start, at_ - start), start);
}

bool XMLScanner::appendText(std::string_view piece, std::size_t offset) {
  for (std::size_t at = 0; at < piece.size();) {
    const std::size_t reference = std::min(piece.find('&', at), piece.size());
    appendLines(piece.substr(at, reference - at));
    at = reference;
    if (at < piece.size() && !appendReference(piece, at, offset)) return false;
  }
  return true;
}

bool XMLScanner::appendReference(std::string_view piece, std::size_t& at, std::size_t offset) {
  const std::string_view candidate = piece.substr(at + 1, kReferenceMaxBytes);
  const std::size_t length = candidate.find(';');
  const char32_t character = length == std::string_view::npos ? 0 : referredCharacter(candidate.substr(0, length));
  if (character == 0) return fail(offset + at, "a reference that stands for no character");
  appendUTF8(text_, character);
  at += length + 2;
  return true;
}

// Every way to end a line reads as a line feed.
void XMLScanner::appendLines(std::string_view piece) {
  for (;;) {
    const std::size_t carriageReturn = piece.find('\r');
    text_ += piece.substr(0, carriageReturn);
    if (carriageReturn == std::string_view::npos) return;
    text_ += '\n';
    piece.remove_prefix(carriageReturn + 1);
    if (piece.starts_with('\n')) piece.remove_prefix(1);
  }
}

}  // namespace platform
