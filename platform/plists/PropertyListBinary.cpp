// The binary form, all numbers big-endian:
//
//   "bplist00" | objects | offset table | trailer
//
//   trailer  6 bytes unused, offset size u8, reference size u8, object count u64, top object u64, table start u64
//   table    for each object its offset in the file, of `offset size` bytes each
//   object   marker byte, whose low half says size or count (15: an integer object with the count follows), and content
//              0x08 0x09 false, true     0x1n integer of 2^n bytes   0x22 0x23 real   0x33 date, seconds since 2001
//              0x4n data   0x5n ASCII   0x6n UTF-16   0xAn array of references   0xDn references of keys, then values
//
// Objects may be referred to any number of times; each is read once, and each byte belongs to one of them at most, so
// that the work is bounded by the size of the file. What all of it amounts to when it is written out is bounded, too.
#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/plists/PropertyList.h"
#include "platform/plists/PropertyListReaders.h"
#include "platform/values/PlistText.h"

namespace platform {

namespace {

constexpr std::string_view kHeader = "bplist00";
constexpr std::size_t kTrailerSize = 32;
constexpr std::uint64_t kNumberMaxSize = 8;
constexpr double kSecondsFrom1970To2001 = 978307200;
constexpr const char* kTooLarge = "property list is too large when it is written out";

class BinaryReader {
 public:
  BinaryReader(std::string_view bytes, std::size_t maxDepth)
      : bytes_(bytes),
        maxDepth_(maxDepth),
        maxWritten_(kPlistMaxGrowth * std::max<std::uint64_t>(bytes.size(), kPlistGrowthFloor)) {}
  PlistValue read(DomainError* error);

 private:
  struct Object {
    unsigned type = 0;  // the high half of the marker
    unsigned low = 0;   // the low half
    std::uint64_t start = 0;
    std::uint64_t content = 0;  // where it starts, behind marker and count
    std::uint64_t count = 0;    // of bytes, characters, references or entries
  };
  struct Slot {
    PlistValue value;
    bool isOpen = false;
  };

  bool readTrailer();
  PlistValue readObject(std::uint64_t index, std::size_t depth);
  bool readHead(Object& object);
  bool readCount(Object& object);
  bool claim(const Object& object, std::uint64_t unit);
  PlistValue readContent(const Object& object, std::size_t depth);
  PlistValue readInteger(const Object& object);
  PlistValue readReal(const Object& object);
  PlistValue readDate(const Object& object);
  PlistValue readASCII(const Object& object);
  PlistValue readUTF16(const Object& object);
  PlistValue readArray(const Object& object, std::size_t depth);
  PlistValue readDictionary(const Object& object, std::size_t depth);
  PlistValue readReference(const Object& object, std::uint64_t position, std::size_t depth);

  std::uint64_t number(std::uint64_t offset, std::uint64_t size) const;
  std::string_view contentOf(const Object& object) const { return bytes_.substr(object.content, object.count); }
  PlistValue fail(std::uint64_t offset, std::string text);

  std::string_view bytes_;
  std::size_t maxDepth_;
  std::uint64_t maxWritten_;    // bytes, with all that is shared written out
  std::uint64_t keyBytes_ = 0;  // of all dictionaries so far: what sorting them may cost
  std::uint64_t offsetSize_ = 0;
  std::uint64_t referenceSize_ = 0;
  std::uint64_t topObject_ = 0;
  std::uint64_t table_ = 0;      // where the offset table starts and all objects end
  std::uint64_t unclaimed_ = 0;  // bytes of objects that no object has taken yet
  std::vector<Slot> slots_;
  std::uint64_t errorOffset_ = 0;
  std::string errorText_;
};

PlistValue BinaryReader::fail(std::uint64_t offset, std::string text) {
  if (errorText_.empty()) {
    errorOffset_ = offset;
    errorText_ = std::move(text);
  }
  return {};
}

PlistValue BinaryReader::read(DomainError* error) {
  PlistValue value;
  if (readTrailer()) value = readObject(topObject_, 0);
  // What is met again deep inside was read where it was met first, perhaps far up.
  if (value.depth() > maxDepth_) value = fail(0, "nested deeper than " + std::to_string(maxDepth_) + " levels");
  if (value) return value;
  return noPropertyList(error, errorOffset_,
                        "binary property list, byte " + std::to_string(errorOffset_) + ": " + errorText_);
}

// The caller has checked that the bytes are there.
std::uint64_t BinaryReader::number(std::uint64_t offset, std::uint64_t size) const {
  std::uint64_t value = 0;
  for (char c : bytes_.substr(offset, size)) value = (value << 8) | static_cast<std::uint8_t>(c);
  return value;
}

bool BinaryReader::readTrailer() {
  auto refuse = [this](std::uint64_t offset, const char* text) { return static_cast<bool>(fail(offset, text)); };
  if (!bytes_.starts_with(kHeader)) return refuse(0, "this version is not supported");
  if (bytes_.size() < kHeader.size() + kTrailerSize) return refuse(bytes_.size(), "too short");
  const std::uint64_t trailer = bytes_.size() - kTrailerSize;
  offsetSize_ = number(trailer + 6, 1);
  referenceSize_ = number(trailer + 7, 1);
  const std::uint64_t count = number(trailer + 8, 8);
  topObject_ = number(trailer + 16, 8);
  table_ = number(trailer + 24, 8);
  auto isNumberSize = [](std::uint64_t size) { return size >= 1 && size <= kNumberMaxSize; };
  if (!isNumberSize(offsetSize_) || !isNumberSize(referenceSize_)) return refuse(trailer + 6, "bad number sizes");
  if (table_ < kHeader.size() || table_ > trailer) return refuse(trailer + 24, "the offset table is outside the file");
  if (count > (trailer - table_) / offsetSize_) return refuse(trailer + 8, "more objects than the offset table holds");
  unclaimed_ = table_ - kHeader.size();
  if (topObject_ >= count) return refuse(trailer + 16, "the top object is not there");
  slots_.resize(count);
  return true;
}

PlistValue BinaryReader::readObject(std::uint64_t index, std::size_t depth) {
  Slot& slot = slots_[index];
  if (slot.value) return slot.value;
  Object object;
  object.start = number(table_ + index * offsetSize_, offsetSize_);
  if (object.start < kHeader.size() || object.start >= table_) {
    return fail(table_ + index * offsetSize_, "an offset outside the objects");
  }
  if (slot.isOpen) return fail(object.start, "an object contains itself");
  if (!readHead(object)) return {};
  slot.isOpen = true;
  try {
    slot.value = readContent(object, depth);
  } catch (const std::length_error& tooMuch) {
    return fail(object.start, tooMuch.what());
  }
  if (slot.value.encodedSize() > maxWritten_) {
    slot.value = PlistValue();
    return fail(object.start, kTooLarge);
  }
  slot.isOpen = false;
  return slot.value;
}

bool BinaryReader::readHead(Object& object) {
  const auto marker = static_cast<unsigned>(number(object.start, 1));
  object.type = marker >> 4;
  object.low = marker & 15;
  object.content = object.start + 1;
  object.count = object.low;
  if (object.type >= 4 && object.low == 15 && !readCount(object)) return false;
  switch (object.type) {
    case 0x0:
      object.count = 0;
      return claim(object, 1);
    case 0x1:
    case 0x2:
    case 0x3:
      object.count = std::uint64_t{1} << object.low;
      return claim(object, 1);
    case 0x4:
    case 0x5:
      return claim(object, 1);
    case 0x6:
      return claim(object, 2);
    case 0xA:
      return claim(object, referenceSize_);
    case 0xD:
      return claim(object, 2 * referenceSize_);
    default:
      return static_cast<bool>(fail(object.start, "an object of a type that is not supported"));
  }
}

bool BinaryReader::readCount(Object& object) {
  const std::uint64_t marker = object.content < table_ ? number(object.content, 1) : 0;
  const std::uint64_t size = std::uint64_t{1} << (marker & 15);
  if (marker >> 4 != 1 || size > kNumberMaxSize || size >= table_ - object.content) {
    return static_cast<bool>(fail(object.content, "a malformed count"));
  }
  object.count = number(object.content + 1, size);
  object.content += 1 + size;
  return true;
}

// Takes the bytes of the object, whose content is `count` times `unit` bytes.
bool BinaryReader::claim(const Object& object, std::uint64_t unit) {
  if (object.count > (table_ - object.content) / unit) {
    return static_cast<bool>(fail(object.start, "an object reaches beyond the objects"));
  }
  const std::uint64_t size = object.content - object.start + object.count * unit;
  if (size > unclaimed_) return static_cast<bool>(fail(object.start, "objects overlap"));
  unclaimed_ -= size;
  return true;
}

PlistValue BinaryReader::readContent(const Object& object, std::size_t depth) {
  switch (object.type) {
    case 0x0:
      if (object.low == 8 || object.low == 9) return object.low == 9;
      return fail(object.start, "an object of a type that is not supported");
    case 0x1:
      return readInteger(object);
    case 0x2:
      return readReal(object);
    case 0x3:
      return readDate(object);
    case 0x4:
      return PlistValue::data(contentOf(object));
    case 0x5:
      return readASCII(object);
    case 0x6:
      return readUTF16(object);
    default:
      if (depth >= maxDepth_) {
        return fail(object.start, "nested deeper than " + std::to_string(maxDepth_) + " levels");
      }
      return object.type == 0xA ? readArray(object, depth) : readDictionary(object, depth);
  }
}

// One to four bytes are unsigned, eight are signed, sixteen carry what is unsigned and needs the 64th bit.
PlistValue BinaryReader::readInteger(const Object& object) {
  if (object.count > 16) return fail(object.start, "an integer of unsupported size");
  if (object.count < 8) return number(object.content, object.count);
  const std::uint64_t low = number(object.content + object.count - 8, 8);
  if (object.count == 8) return static_cast<std::int64_t>(low);
  const std::uint64_t high = number(object.content, 8);
  if (high == 0) return low;
  if (~high == 0 && static_cast<std::int64_t>(low) < 0) return static_cast<std::int64_t>(low);
  return fail(object.start, "an integer of more than 64 bits");
}

PlistValue BinaryReader::readReal(const Object& object) {
  if (object.count != sizeof(float) && object.count != sizeof(double)) {
    return fail(object.start, "a real of unsupported size");
  }
  const std::uint64_t bits = number(object.content, object.count);
  const double value = object.count == sizeof(float) ? std::bit_cast<float>(static_cast<std::uint32_t>(bits))
                                                     : std::bit_cast<double>(bits);
  // All that are no number are the same one, so that what is written reads back as the same value.
  return std::isnan(value) ? std::numeric_limits<double>::quiet_NaN() : value;
}

PlistValue BinaryReader::readDate(const Object& object) {
  if (object.count != sizeof(double)) return fail(object.start, "a date of unsupported size");
  const double since2001 = std::bit_cast<double>(number(object.content, object.count));
  const std::optional<double> date = wholeSecondDate(since2001 + kSecondsFrom1970To2001);
  return date ? PlistValue::date(*date) : fail(object.start, "a date outside the years 1 to 9999");
}

PlistValue BinaryReader::readASCII(const Object& object) {
  const std::string_view text = contentOf(object);
  for (char c : text) {
    if (static_cast<std::uint8_t>(c) >= 0x80) return fail(object.start, "a string that is not ASCII");
  }
  return text;
}

PlistValue BinaryReader::readUTF16(const Object& object) {
  auto unit = [&](std::uint64_t index) { return static_cast<char32_t>(number(object.content + 2 * index, 2)); };
  auto isHigh = [](char32_t code) { return code >= 0xD800 && code < 0xDC00; };
  auto isLow = [](char32_t code) { return code >= 0xDC00 && code < 0xE000; };
  std::string text;
  text.reserve(object.count);
  for (std::uint64_t i = 0; i < object.count; ++i) {
    char32_t character = unit(i);
    if (isHigh(character) && i + 1 < object.count && isLow(unit(i + 1))) {
      character = 0x10000 + ((character - 0xD800) << 10) + (unit(++i) - 0xDC00);
    } else if (isHigh(character) || isLow(character)) {
      return fail(object.content + 2 * i, "half of a character");
    }
    appendUTF8(text, character);
  }
  return PlistValue::string(SharedSlice::take(std::move(text)));
}

PlistValue BinaryReader::readArray(const Object& object, std::size_t depth) {
  std::vector<PlistValue> elements;
  elements.reserve(object.count);
  for (std::uint64_t i = 0; i < object.count; ++i) {
    PlistValue element = readReference(object, i, depth + 1);
    if (!element) return {};
    elements.push_back(std::move(element));
  }
  return PlistValue::array(std::move(elements));
}

PlistValue BinaryReader::readDictionary(const Object& object, std::size_t depth) {
  std::vector<std::pair<PlistValue, PlistValue>> entries;
  entries.reserve(object.count);
  for (std::uint64_t i = 0; i < object.count; ++i) {
    PlistValue key = readReference(object, i, depth + 1);
    if (!key) return {};
    if (!key.isString()) return fail(object.start, "a key that is no string");
    keyBytes_ += key.stringValue().size();
    if (keyBytes_ > maxWritten_) return fail(object.start, kTooLarge);
    PlistValue value = readReference(object, object.count + i, depth + 1);
    if (!value) return {};
    entries.emplace_back(std::move(key), std::move(value));
  }
  return PlistValue::dictionarySharingKeys(std::move(entries));
}

// The object that the reference at a position of the object's content means.
PlistValue BinaryReader::readReference(const Object& object, std::uint64_t position, std::size_t depth) {
  const std::uint64_t from = object.content + position * referenceSize_;
  const std::uint64_t index = number(from, referenceSize_);
  if (index >= slots_.size()) return fail(from, "a reference to an object that is not there");
  return readObject(index, depth);
}

}  // namespace

PlistValue readBinaryPropertyList(std::string_view bytes, std::size_t maxDepth, DomainError* error) {
  return BinaryReader(bytes, maxDepth).read(error);
}

}  // namespace platform
