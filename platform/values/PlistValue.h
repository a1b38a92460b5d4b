// A property-list value: an immutable tree with shared parts.
//
//   PlistValue form = PlistBuilder().set("version", 16).set("data", table).take();
//   for (auto [key, annotation] : form["data"].entries()) …
//
// Copying a value copies a pointer; changing one (PlistBuilder) copies only the level that changes. A container is
// either a tree of nodes or a range of bytes in the message encoding (PlistEncoding.h) that is looked into where it
// lies; which of the two it is cannot be told from outside. Values are safe to read from any thread.
//
// "Nothing" stands for an absent value: every lookup that finds none, or asks a value of another kind, answers it.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/values/SharedBytes.h"

namespace platform {

struct DomainError;

// No value is nested deeper: writers, comparison and destruction recurse, and a thread's stack is finite.
inline constexpr std::size_t kPlistMaxDepth = 128;
// What readers accept of a file.
inline constexpr std::size_t kPlistMaxInputDepth = 64;
// What is accepted of a property list inside a message: forms wrap manifests. With the levels of the message around it
// there is still room below kPlistMaxDepth to store what came in.
inline constexpr std::size_t kPlistMaxMessageDepth = 80;
// No value is larger when written out: parts that share each other could grow without end.
inline constexpr std::uint64_t kPlistMaxBytes = std::uint64_t{256} << 20;

class PlistValue {
 public:
  enum class Kind : std::uint8_t { Nothing, Boolean, Integer, Real, Date, String, Data, Array, Dictionary };
  struct Entry;
  class Elements;
  class Entries;

  PlistValue() noexcept = default;
  // NOLINTBEGIN(google-explicit-constructor): values are written as literals
  PlistValue(bool value) noexcept;
  template <std::integral Int>
  requires(!std::same_as<Int, bool> && !std::same_as<Int, char>) PlistValue(Int value)
  noexcept : PlistValue(static_cast<std::uint64_t>(value), std::unsigned_integral<Int>) {}
  PlistValue(double value) noexcept;
  PlistValue(std::string_view value);
  PlistValue(const std::string& value) : PlistValue(std::string_view(value)) {}
  PlistValue(const char* value) : PlistValue(std::string_view(value)) {}  // NOLINTEND(google-explicit-constructor)
  static PlistValue date(double secondsSince1970) noexcept;
  static PlistValue data(std::string_view bytes);
  // Strings and data that are a part of shared bytes, not copied.
  static PlistValue string(const SharedSlice& slice);
  static PlistValue data(const SharedSlice& slice);
  // Throw std::length_error when the result would be nested deeper or larger than the bounds above.
  static PlistValue array(std::vector<PlistValue> elements);
  // Sorts; of entries with equal keys the last counts; entries whose value is nothing are left out.
  static PlistValue dictionary(std::vector<std::pair<std::string, PlistValue>> entries);
  // The same with keys that are strings already: they are shared, not copied.
  static PlistValue dictionarySharingKeys(std::vector<std::pair<PlistValue, PlistValue>> entries);

  PlistValue(const PlistValue& other) noexcept;
  PlistValue(PlistValue&& other) noexcept;
  PlistValue& operator=(const PlistValue& other) noexcept;
  PlistValue& operator=(PlistValue&& other) noexcept;
  ~PlistValue();

  Kind kind() const { return kind_; }
  explicit operator bool() const { return kind_ != Kind::Nothing; }
  bool isBoolean() const { return kind_ == Kind::Boolean; }
  bool isInteger() const { return kind_ == Kind::Integer; }
  bool isReal() const { return kind_ == Kind::Real; }
  bool isDate() const { return kind_ == Kind::Date; }
  bool isString() const { return kind_ == Kind::String; }
  bool isData() const { return kind_ == Kind::Data; }
  bool isArray() const { return kind_ == Kind::Array; }
  bool isDictionary() const { return kind_ == Kind::Dictionary; }
  // A boolean, an integer or a real: what compares as a number.
  bool isNumber() const { return isBoolean() || isInteger() || isReal(); }

  // The value as a boolean: numbers are true unless zero; "YES", "true" and the like are strings, so false.
  bool boolValue() const;
  // The value as an integer: reals are truncated toward zero and clamped; 0 for what is no number.
  std::int64_t intValue() const;
  std::uint64_t uintValue() const;
  double realValue() const;
  // An integer above the largest signed one; only uintValue() gives it exactly.
  bool isLargeUnsigned() const { return kind_ == Kind::Integer && large_; }
  // Seconds since 1970 of a date; 0 for anything else.
  double dateValue() const;
  // The text of a string or the bytes of data, valid as long as this value or what it was taken from; else empty.
  std::string_view stringValue() const;
  std::string_view dataValue() const;
  // The bytes of a string or data with their ownership.
  SharedSlice slice() const;

  // Elements of an array or entries of a dictionary; 0 for anything else.
  std::size_t size() const;
  bool empty() const { return size() == 0; }
  // The value under a key of a dictionary / at an index of an array (an encoded one is walked: iterate instead).
  PlistValue operator[](std::string_view key) const;
  PlistValue at(std::size_t index) const;
  bool contains(std::string_view key) const { return static_cast<bool>((*this)[key]); }
  // In array order / by ascending keys. Both keep the container alive, so a temporary may be walked.
  Elements elements() const;
  Entries entries() const;

  // Property-list equality: true, 1 and 1.0 are equal; a string equals only a string; nothing equals nothing.
  friend bool operator==(const PlistValue& a, const PlistValue& b);
  // Equal by property-list equality to the boolean `value`.
  bool equals(bool value) const { return isNumber() && realValue() == (value ? 1.0 : 0.0); }

  // A text for logs and people, JSON-like, cut at about 4 KiB.
  std::string description() const;

  // Levels of containers (a scalar has 0; may be an upper bound), and bytes in the message encoding.
  std::size_t depth() const { return depth_; }
  std::uint64_t encodedSize() const;
  // The encoding of a container that already lies in memory as such; an empty slice for everything else.
  SharedSlice encoded() const;

 private:
  friend class PlistBuilder;
  friend class PlistCursor;
  struct ArrayNode;
  struct DictionaryNode;

  PlistValue(std::uint64_t bits, bool isUnsigned) noexcept;
  // A container that is a range of validated encoding.
  static PlistValue fromEncoding(Kind kind, const SharedSlice& slice, std::size_t depth);
  void swap(PlistValue& other) noexcept;

  Kind kind_ = Kind::Nothing;
  bool encoded_ = false;  // a container that is a range of encoding
  bool large_ = false;    // an integer that needs the 64th bit
  std::uint8_t depth_ = 0;
  std::uint32_t length_ = 0;  // bytes of a string, of data, of an encoded container with its head
  union {
    bool boolean_;
    std::int64_t integer_;
    double real_;
    const char* bytes_;
    std::uint64_t bits_ = 0;
  };
  const Shared* owner_ = nullptr;  // what keeps bytes_ alive, or the node of a tree; null with scalars
};

struct PlistValue::Entry {
  std::string_view key;
  PlistValue value;
};

// Makes a dictionary from nothing or from another one, of which only this level is copied.
class PlistBuilder {
 public:
  PlistBuilder() = default;
  // Anything but a dictionary counts as an empty one.
  explicit PlistBuilder(const PlistValue& dictionary);

  // Sets, or removes when value is nothing.
  PlistBuilder& set(std::string_view key, PlistValue value) { return put(key, std::move(value), false); }
  // The same with a key that is a constant of the program: it is referred to, not copied.
  PlistBuilder& setConstant(std::string_view key, PlistValue value) { return put(key, std::move(value), true); }
  PlistBuilder& remove(std::string_view key) { return set(key, PlistValue()); }
  PlistValue operator[](std::string_view key) const;
  // The dictionary; the builder is empty afterwards. Throws like PlistValue::dictionary.
  PlistValue take();

 private:
  struct Item {
    PlistValue key;
    PlistValue value;
  };
  PlistBuilder& put(std::string_view key, PlistValue value, bool constant);
  std::vector<Item>::iterator position(std::string_view key);
  std::vector<Item> items_;  // by ascending key
  friend class PlistValue;
};

// Walks a container of either make.
class PlistCursor {
 public:
  PlistCursor() = default;
  explicit PlistCursor(const PlistValue& container);
  bool atEnd() const { return remaining_ == 0; }
  void next();
  std::string_view key() const { return key_; }
  const PlistValue& value() const { return value_; }

 private:
  friend class PlistValue;
  friend PlistValue decodePlist(const SharedSlice&, DomainError*, std::size_t);
  friend PlistValue compactPlist(const PlistValue&);
  // The value that starts at a place of the container's encoding.
  static PlistValue valueAt(const PlistValue& container, const char* at);
  // The value that checked bytes encode, with the depth that was met.
  static PlistValue valueOf(const SharedSlice& bytes, std::size_t depth);
  void load();
  const PlistValue* container_ = nullptr;
  std::size_t remaining_ = 0;
  std::size_t index_ = 0;           // in a tree
  const char* position_ = nullptr;  // in an encoding: behind the current value
  std::string_view key_;
  PlistValue value_;
};

class PlistValue::Elements {
 public:
  class Iterator {
   public:
    using difference_type = std::ptrdiff_t;
    using value_type = PlistValue;
    Iterator() = default;
    explicit Iterator(const PlistValue& container) : cursor_(container) {}
    const PlistValue& operator*() const { return cursor_.value(); }
    const PlistValue* operator->() const { return &cursor_.value(); }
    Iterator& operator++() {
      cursor_.next();
      return *this;
    }
    void operator++(int) { cursor_.next(); }
    friend bool operator==(const Iterator& a, std::default_sentinel_t) { return a.cursor_.atEnd(); }

   private:
    PlistCursor cursor_;
  };
  explicit Elements(PlistValue container) : container_(std::move(container)) {}
  Iterator begin() const { return Iterator(container_); }
  std::default_sentinel_t end() const { return {}; }

 private:
  PlistValue container_;
};

class PlistValue::Entries {
 public:
  class Iterator {
   public:
    using difference_type = std::ptrdiff_t;
    using value_type = Entry;
    Iterator() = default;
    explicit Iterator(const PlistValue& container) : cursor_(container) {}
    Entry operator*() const { return Entry{cursor_.key(), cursor_.value()}; }
    Iterator& operator++() {
      cursor_.next();
      return *this;
    }
    void operator++(int) { cursor_.next(); }
    friend bool operator==(const Iterator& a, std::default_sentinel_t) { return a.cursor_.atEnd(); }

   private:
    PlistCursor cursor_;
  };
  explicit Entries(PlistValue container) : container_(std::move(container)) {}
  Iterator begin() const { return Iterator(container_); }
  std::default_sentinel_t end() const { return {}; }

 private:
  PlistValue container_;
};

}  // namespace platform
