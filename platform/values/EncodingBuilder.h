// Writes the message encoding of one value from its parts, in the order in which a document names them. What comes out
// is the compact form in which property lists are kept, without a tree in between.
//
//   EncodingBuilder::Mark dictionary = builder.begin();
//   builder.addKey("version");
//   builder.addInteger(16);
//   builder.endDictionary(dictionary);
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class EncodingBuilder {
 public:
  // Where a container that is being written starts.
  struct Mark {
    std::size_t head;       // in the bytes
    std::size_t firstPart;  // in the list of parts
  };

  Mark begin();
  void endArray(Mark array);
  // Sorts; of entries with equal keys the last counts.
  void endDictionary(Mark dictionary);
  // In a dictionary each value follows its key.
  void addKey(std::string_view key);
  // In an array each value is announced.
  void addElement() { parts_.push_back({bytes_.size(), 0}); }

  void addBoolean(bool value) { bytes_ += value ? 'T' : 'F'; }
  void addInteger(std::int64_t value) { addScalar('i', value); }
  void addUnsigned(std::uint64_t value) { addScalar(value > INT64_MAX ? 'u' : 'i', value); }
  void addReal(double value) { addScalar('r', value); }
  void addDate(double secondsSince1970) { addScalar('d', secondsSince1970); }
  void addString(std::string_view text) { addBytes('s', text); }
  void addData(std::string_view bytes) { addBytes('b', bytes); }

  std::size_t size() const { return bytes_.size(); }
  std::string take() { return std::move(bytes_); }

 private:
  // An element, or an entry with its key.
  struct Part {
    std::size_t start;
    std::size_t keyLength;
  };

  void addBytes(char tag, std::string_view bytes);
  template <class Scalar>
  void addScalar(char tag, Scalar value) {
    bytes_ += tag;
    addRaw(value);
  }
  template <class Scalar>
  void addRaw(Scalar value) {
    bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
  }
  void end(char tag, Mark container);
  std::string_view keyOf(const Part& part) const;
  void sortEntries(Mark dictionary);

  std::string bytes_;
  std::vector<Part> parts_;  // of all containers that are being written, the innermost last
};

}  // namespace platform
