// The markup of a small XML document, tag by tag: what the property-list reader needs of XML and nothing more.
//
//   XMLScanner scanner(document);
//   XMLScanner::Tag tag;
//   if (!scanner.readRoot(tag)) return scanner.error();
//
// Documents are UTF-8. Comments and processing instructions are skipped, and so is one document type declaration, with
// its internal subset, without looking at it; no entity but the five of XML itself is known. Attributes must be well
// formed and are not kept. Every operation answers false once something is wrong, which error() then tells.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace platform {

class XMLScanner {
 public:
  struct Tag {
    std::string_view name;
    std::size_t offset = 0;
    bool closing = false;  // </name>
    bool empty = false;    // <name/>
  };
  struct Error {
    std::size_t offset = 0;
    std::string text;
  };

  // The document must outlive the scanner and the names and texts it answers.
  explicit XMLScanner(std::string_view document) : document_(document) {}

  // Reads everything up to and with the tag of the root element.
  bool readRoot(Tag& root);
  // Reads the next tag; before it there may be nothing but white space.
  bool readTag(Tag& tag);
  // Reads the text of an element that has no elements inside, and its end tag. Valid until the next call.
  bool readText(const Tag& element, std::string_view& text);
  // Nothing but white space follows.
  bool readEnd();

  // Notes what is wrong at an offset, unless something already was. Answers false.
  bool fail(std::size_t offset, std::string text);
  const Error& error() const { return error_; }

 private:
  std::string_view rest() const { return document_.substr(at_); }
  bool atEnd() const { return at_ == document_.size(); }
  bool checkCharacters();
  bool readDeclaration();
  bool skipDocumentType();
  bool skipInternalSubset();
  bool skip(std::string_view open, std::string_view close);
  bool skipQuoted();
  void skipBlanks();
  bool skipIgnored();
  bool readAttributes(Tag& tag);
  bool readPiece(const Tag& element, bool& ended);
  bool appendText(std::string_view piece, std::size_t offset);
  bool appendReference(std::string_view piece, std::size_t& at, std::size_t offset);
  void appendLines(std::string_view piece);

  std::string_view document_;
  std::size_t at_ = 0;
  std::string text_;  // of readText, where it is not one piece of the document
  Error error_;
};

}  // namespace platform
