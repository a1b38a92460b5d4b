#include "platform/values/PlistValue.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "platform/values/PlistNodes.h"

namespace platform {

using plist_encoding::kContainerHead;
using plist_encoding::kKeyHead;
using plist_encoding::kTextHead;
using plist_encoding::readU32;

namespace {

// A description is for logs: nobody reads more, and a value may be many megabytes.
constexpr std::size_t kDescriptionLimit = 4096;

void checkBounds(std::size_t depth, std::uint64_t size) {
  if (depth > kPlistMaxDepth) throw std::length_error("property list is nested too deeply");
  if (size > kPlistMaxBytes) throw std::length_error("property list is too large");
}

std::uint32_t checkedLength(std::size_t length) {
  checkBounds(0, length);
  return static_cast<std::uint32_t>(length);
}

}  // namespace

PlistValue::PlistValue(bool value) noexcept : kind_(Kind::Boolean) { boolean_ = value; }

PlistValue::PlistValue(std::uint64_t bits, bool isUnsigned) noexcept : kind_(Kind::Integer) {
  bits_ = bits;
  large_ = isUnsigned && bits > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
}

PlistValue::PlistValue(double value) noexcept : kind_(Kind::Real) { real_ = value; }

PlistValue::PlistValue(std::string_view value) : kind_(Kind::String), length_(checkedLength(value.size())) {
  SharedBytes* owner = SharedBytes::make(std::string(value));
  bytes_ = owner->view().data();
  owner_ = owner;
}

PlistValue PlistValue::date(double secondsSince1970) noexcept {
  PlistValue value;
  value.kind_ = Kind::Date;
  value.real_ = secondsSince1970;
  return value;
}

PlistValue PlistValue::data(std::string_view bytes) {
  PlistValue value(bytes);
  value.kind_ = Kind::Data;
  return value;
}

PlistValue PlistValue::string(const SharedSlice& slice) {
  PlistValue value;
  value.length_ = checkedLength(slice.size());
  value.kind_ = Kind::String;
  value.bytes_ = slice.view().data();
  value.owner_ = slice.owner();
  if (value.owner_ != nullptr) value.owner_->retain();
  return value;
}

PlistValue PlistValue::data(const SharedSlice& slice) {
  PlistValue value = string(slice);
  value.kind_ = Kind::Data;
  return value;
}

PlistValue PlistValue::array(std::vector<PlistValue> elements) {
  std::size_t depth = 0;
  std::uint64_t size = kContainerHead;
  for (const PlistValue& element : elements) {
    depth = std::max(depth, element.depth());
    size += element.encodedSize();
  }
  std::erase_if(elements, [](const PlistValue& element) { return !element; });
  checkBounds(depth + 1, size);
  auto* node = new ArrayNode;
  node->elements = std::move(elements);
  node->encodedSize = size;
  PlistValue value;
  value.kind_ = Kind::Array;
  value.depth_ = static_cast<std::uint8_t>(depth + 1);
  value.owner_ = node;
  return value;
}

PlistValue PlistValue::dictionary(std::vector<std::pair<std::string, PlistValue>> entries) {
  std::vector<std::pair<PlistValue, PlistValue>> shared;
  shared.reserve(entries.size());
  for (auto& entry : entries) {
    shared.emplace_back(string(SharedSlice::take(std::move(entry.first))), std::move(entry.second));
  }
  return dictionarySharingKeys(std::move(shared));
}

PlistValue PlistValue::dictionarySharingKeys(std::vector<std::pair<PlistValue, PlistValue>> entries) {
  const auto key = [](const auto& entry) { return entry.first.stringValue(); };
  std::stable_sort(entries.begin(), entries.end(), [&](const auto& a, const auto& b) { return key(a) < key(b); });
  PlistBuilder builder;
  builder.items_.reserve(entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const bool replaced = i + 1 < entries.size() && key(entries[i + 1]) == key(entries[i]);
    if (replaced || !entries[i].second) continue;
    builder.items_.push_back({std::move(entries[i].first), std::move(entries[i].second)});
  }
  return builder.take();
}

PlistValue::PlistValue(const PlistValue& other) noexcept
    : kind_(other.kind_),
      encoded_(other.encoded_),
      large_(other.large_),
      depth_(other.depth_),
      length_(other.length_),
      owner_(other.owner_) {
  bits_ = other.bits_;
  if (owner_ != nullptr) owner_->retain();
}

PlistValue::PlistValue(PlistValue&& other) noexcept
    : kind_(std::exchange(other.kind_, Kind::Nothing)),
      encoded_(std::exchange(other.encoded_, false)),
      large_(other.large_),
      depth_(std::exchange(other.depth_, std::uint8_t{0})),
      length_(std::exchange(other.length_, 0U)),
      owner_(std::exchange(other.owner_, nullptr)) {
  bits_ = other.bits_;
}

PlistValue& PlistValue::operator=(const PlistValue& other) noexcept {
  PlistValue copy(other);
  swap(copy);
  return *this;
}

PlistValue& PlistValue::operator=(PlistValue&& other) noexcept {
  PlistValue taken(std::move(other));
  swap(taken);
  return *this;
}

PlistValue::~PlistValue() {
  if (owner_ != nullptr) owner_->release();
}

void PlistValue::swap(PlistValue& other) noexcept {
  std::swap(kind_, other.kind_);
  std::swap(encoded_, other.encoded_);
  std::swap(large_, other.large_);
  std::swap(depth_, other.depth_);
  std::swap(length_, other.length_);
  std::swap(bits_, other.bits_);
  std::swap(owner_, other.owner_);
}

PlistValue PlistValue::fromEncoding(Kind kind, const SharedSlice& slice, std::size_t depth) {
  PlistValue value = string(slice);
  value.kind_ = kind;
  value.encoded_ = true;
  value.depth_ = static_cast<std::uint8_t>(depth);
  return value;
}

bool PlistValue::boolValue() const {
  switch (kind_) {
    case Kind::Boolean:
      return boolean_;
    case Kind::Integer:
      return bits_ != 0;
    case Kind::Real:
      return real_ != 0;
    default:
      return false;
  }
}

std::int64_t PlistValue::intValue() const {
  switch (kind_) {
    case Kind::Boolean:
      return boolean_ ? 1 : 0;
    case Kind::Integer:
      return large_ ? std::numeric_limits<std::int64_t>::max() : integer_;
    case Kind::Real:
      if (std::isnan(real_)) return 0;
      if (real_ >= 0x1p63) return std::numeric_limits<std::int64_t>::max();
      if (real_ < -0x1p63) return std::numeric_limits<std::int64_t>::min();
      return static_cast<std::int64_t>(real_);
    default:
      return 0;
  }
}

std::uint64_t PlistValue::uintValue() const {
  if (kind_ == Kind::Integer) return bits_;
  if (kind_ == Kind::Real && real_ >= 0x1p63) {
    return real_ >= 0x1p64 ? std::numeric_limits<std::uint64_t>::max() : static_cast<std::uint64_t>(real_);
  }
  return static_cast<std::uint64_t>(intValue());
}

double PlistValue::realValue() const {
  switch (kind_) {
    case Kind::Boolean:
      return boolean_ ? 1 : 0;
    case Kind::Integer:
      return large_ ? static_cast<double>(bits_) : static_cast<double>(integer_);
    case Kind::Real:
      return real_;
    default:
      return 0;
  }
}

double PlistValue::dateValue() const { return kind_ == Kind::Date ? real_ : 0; }

std::string_view PlistValue::stringValue() const {
  return kind_ == Kind::String ? std::string_view(bytes_, length_) : std::string_view();
}

std::string_view PlistValue::dataValue() const {
  return kind_ == Kind::Data ? std::string_view(bytes_, length_) : std::string_view();
}

SharedSlice PlistValue::slice() const {
  if (kind_ != Kind::String && kind_ != Kind::Data) return {};
  return SharedSlice(owner_, std::string_view(bytes_, length_));
}

SharedSlice PlistValue::encoded() const {
  return encoded_ ? SharedSlice(owner_, std::string_view(bytes_, length_)) : SharedSlice();
}

std::size_t PlistValue::size() const {
  if (encoded_) return readU32(bytes_ + kTextHead);
  if (kind_ == Kind::Array) return static_cast<const ArrayNode*>(owner_)->elements.size();
  if (kind_ == Kind::Dictionary) return static_cast<const DictionaryNode*>(owner_)->items.size();
  return 0;
}

std::uint64_t PlistValue::encodedSize() const {
  switch (kind_) {
    case Kind::Nothing:
      return 0;
    case Kind::Boolean:
      return 1;
    case Kind::Integer:
    case Kind::Real:
    case Kind::Date:
      return 9;
    case Kind::String:
    case Kind::Data:
      return kTextHead + length_;
    case Kind::Array:
      return encoded_ ? length_ : static_cast<const ArrayNode*>(owner_)->encodedSize;
    case Kind::Dictionary:
      return encoded_ ? length_ : static_cast<const DictionaryNode*>(owner_)->encodedSize;
  }
  return 0;
}

PlistValue PlistValue::operator[](std::string_view key) const {
  if (kind_ != Kind::Dictionary) return {};
  if (!encoded_) {
    const auto& items = static_cast<const DictionaryNode*>(owner_)->items;
    auto at = std::lower_bound(items.begin(), items.end(), key,
                               [](const auto& item, std::string_view k) { return item.key.stringValue() < k; });
    return at != items.end() && at->key.stringValue() == key ? at->value : PlistValue();
  }
  const char* at = bytes_ + kContainerHead;
  for (std::uint32_t left = readU32(bytes_ + kTextHead); left > 0; --left) {
    std::string_view found(at + kKeyHead, readU32(at));
    at += kKeyHead + found.size();
    if (found == key) return PlistCursor::valueAt(*this, at);
    at += plist_encoding::sizeOfValue(at);
  }
  return {};
}

PlistValue PlistValue::at(std::size_t index) const {
  if (kind_ != Kind::Array || index >= size()) return {};
  if (!encoded_) return static_cast<const ArrayNode*>(owner_)->elements[index];
  const char* at = bytes_ + kContainerHead;
  for (; index > 0; --index) at += plist_encoding::sizeOfValue(at);
  return PlistCursor::valueAt(*this, at);
}

PlistValue::Elements PlistValue::elements() const { return Elements(isArray() ? *this : PlistValue()); }
PlistValue::Entries PlistValue::entries() const { return Entries(isDictionary() ? *this : PlistValue()); }

namespace {

bool equalNumbers(const PlistValue& a, const PlistValue& b) {
  if (a.isReal() || b.isReal()) return a.realValue() == b.realValue();
  return a.isLargeUnsigned() == b.isLargeUnsigned() &&
         (a.isLargeUnsigned() ? a.uintValue() == b.uintValue() : a.intValue() == b.intValue());
}

bool equalContainers(const PlistValue& a, const PlistValue& b) {
  if (a.size() != b.size()) return false;
  PlistCursor x(a);
  PlistCursor y(b);
  for (; !x.atEnd(); x.next(), y.next()) {
    if (x.key() != y.key() || !(x.value() == y.value())) return false;
  }
  return true;
}

}  // namespace

bool operator==(const PlistValue& a, const PlistValue& b) {
  if (a.isNumber() && b.isNumber()) return equalNumbers(a, b);
  if (a.kind_ != b.kind_) return false;
  switch (a.kind_) {
    case PlistValue::Kind::Nothing:
      return true;
    case PlistValue::Kind::Date:
      return a.real_ == b.real_;
    case PlistValue::Kind::String:
    case PlistValue::Kind::Data:
      return std::string_view(a.bytes_, a.length_) == std::string_view(b.bytes_, b.length_);
    default:
      return (a.owner_ == b.owner_ && a.bytes_ == b.bytes_) || equalContainers(a, b);
  }
}

// ---- PlistBuilder

PlistBuilder::PlistBuilder(const PlistValue& dictionary) {
  if (!dictionary.isDictionary()) return;
  items_.reserve(dictionary.size());
  if (!dictionary.encoded_) {
    items_ = static_cast<const PlistValue::DictionaryNode*>(dictionary.owner_)->items;
    return;
  }
  for (PlistCursor cursor(dictionary); !cursor.atEnd(); cursor.next()) {
    items_.push_back({PlistValue::string(SharedSlice(dictionary.owner_, cursor.key())), cursor.value()});
  }
}

std::vector<PlistBuilder::Item>::iterator PlistBuilder::position(std::string_view key) {
  return std::lower_bound(items_.begin(), items_.end(), key,
                          [](const Item& item, std::string_view k) { return item.key.stringValue() < k; });
}

PlistBuilder& PlistBuilder::put(std::string_view key, PlistValue value, bool constant) {
  auto at = position(key);
  bool found = at != items_.end() && at->key.stringValue() == key;
  if (!value) {
    if (found) items_.erase(at);
  } else if (found) {
    at->value = std::move(value);
  } else {
    PlistValue stored = constant ? PlistValue::string(SharedSlice(nullptr, key)) : PlistValue(key);
    items_.insert(at, {std::move(stored), std::move(value)});
  }
  return *this;
}

PlistValue PlistBuilder::operator[](std::string_view key) const {
  auto at = const_cast<PlistBuilder*>(this)->position(key);
  return at != items_.end() && at->key.stringValue() == key ? at->value : PlistValue();
}

PlistValue PlistBuilder::take() {
  std::size_t depth = 0;
  std::uint64_t size = kContainerHead;
  for (const Item& item : items_) {
    depth = std::max(depth, item.value.depth());
    size += kKeyHead + item.key.stringValue().size() + item.value.encodedSize();
  }
  checkBounds(depth + 1, size);
  auto* node = new PlistValue::DictionaryNode;
  node->items = std::move(items_);
  node->encodedSize = size;
  items_.clear();
  PlistValue value;
  value.kind_ = PlistValue::Kind::Dictionary;
  value.depth_ = static_cast<std::uint8_t>(depth + 1);
  value.owner_ = node;
  return value;
}

// ---- PlistCursor

PlistCursor::PlistCursor(const PlistValue& container) : container_(&container), remaining_(container.size()) {
  if (container.encoded_) position_ = container.bytes_ + kContainerHead;
  if (remaining_ > 0) load();
}

PlistValue PlistCursor::valueAt(const PlistValue& container, const char* at) {
  std::uint64_t bits = 0;
  switch (*at) {
    case 'F':
      return false;
    case 'T':
      return true;
    case 'i':
    case 'u':
      std::memcpy(&bits, at + 1, sizeof bits);
      return PlistValue(bits, *at == 'u');
    case 'r':
    case 'd': {
      PlistValue value(0.0);
      std::memcpy(&value.real_, at + 1, sizeof value.real_);
      if (*at == 'd') value.kind_ = PlistValue::Kind::Date;
      return value;
    }
    case 's':
      return PlistValue::string(SharedSlice(container.owner_, std::string_view(at + kTextHead, readU32(at + 1))));
    case 'b':
      return PlistValue::data(SharedSlice(container.owner_, std::string_view(at + kTextHead, readU32(at + 1))));
    default:
      return PlistValue::fromEncoding(*at == 'a' ? PlistValue::Kind::Array : PlistValue::Kind::Dictionary,
                                      SharedSlice(container.owner_, std::string_view(at, kTextHead + readU32(at + 1))),
                                      container.depth_ - 1U);
  }
}

PlistValue PlistCursor::valueOf(const SharedSlice& bytes, std::size_t depth) {
  // A value is read as the only element of a container that reaches one level higher.
  PlistValue frame = PlistValue::string(bytes);
  frame.depth_ = static_cast<std::uint8_t>(depth + 1);
  return valueAt(frame, bytes.view().data());
}

void PlistCursor::load() {
  bool keyed = container_->isDictionary();
  if (position_ != nullptr) {
    if (keyed) {
      key_ = std::string_view(position_ + kKeyHead, readU32(position_));
      position_ += kKeyHead + key_.size();
    }
    value_ = valueAt(*container_, position_);
    position_ += plist_encoding::sizeOfValue(position_);
  } else if (keyed) {
    const auto& item = static_cast<const PlistValue::DictionaryNode*>(container_->owner_)->items[index_++];
    key_ = item.key.stringValue();
    value_ = item.value;
  } else {
    value_ = static_cast<const PlistValue::ArrayNode*>(container_->owner_)->elements[index_++];
  }
}

void PlistCursor::next() {
  if (--remaining_ > 0) load();
}

// ---- description

namespace {

void describeText(std::string& out, std::string_view text) {
  out += '"';
  for (char c : text.substr(0, kDescriptionLimit)) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
}

void describeReal(std::string& out, double value) {
  char digits[32];
  auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, error == std::errc() ? end : digits);
}

void describe(std::string& out, const PlistValue& value);

void describeContainer(std::string& out, const PlistValue& value) {
  bool keyed = value.isDictionary();
  out += keyed ? '{' : '[';
  std::string_view separator;
  for (PlistCursor cursor(value); !cursor.atEnd() && out.size() < kDescriptionLimit; cursor.next()) {
    out += separator;
    separator = ", ";
    if (keyed) {
      describeText(out, cursor.key());
      out += ": ";
    }
    describe(out, cursor.value());
  }
  out += keyed ? '}' : ']';
}

void describe(std::string& out, const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::Nothing:
      out += "(null)";
      break;
    case PlistValue::Kind::Boolean:
      out += value.boolValue() ? "true" : "false";
      break;
    case PlistValue::Kind::Integer:
      out += value.isLargeUnsigned() ? std::to_string(value.uintValue()) : std::to_string(value.intValue());
      break;
    case PlistValue::Kind::Real:
      describeReal(out, value.realValue());
      break;
    case PlistValue::Kind::Date:
      out += "<date ";
      describeReal(out, value.dateValue());
      out += '>';
      break;
    case PlistValue::Kind::String:
      describeText(out, value.stringValue());
      break;
    case PlistValue::Kind::Data:
      out += "<" + std::to_string(value.dataValue().size()) + " bytes>";
      break;
    default:
      describeContainer(out, value);
  }
}

}  // namespace

std::string PlistValue::description() const {
  // A string on its own prints bare, as any other text would.
  if (isString()) return std::string(stringValue().substr(0, kDescriptionLimit));
  std::string out;
  describe(out, *this);
  if (out.size() > kDescriptionLimit) {
    out.resize(kDescriptionLimit);
    out += "…";
  }
  return out;
}

}  // namespace platform
