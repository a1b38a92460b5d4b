#include "platform/values/EncodingBuilder.h"

#include <algorithm>
#include <cstring>

#include "platform/values/PlistNodes.h"

namespace platform {

using plist_encoding::kContainerHead;
using plist_encoding::kKeyHead;
using plist_encoding::kTextHead;

EncodingBuilder::Mark EncodingBuilder::begin() {
  const Mark mark{bytes_.size(), parts_.size()};
  bytes_.append(kContainerHead, '\0');
  return mark;
}

void EncodingBuilder::addKey(std::string_view key) {
  parts_.push_back({bytes_.size(), key.size()});
  addRaw(static_cast<std::uint32_t>(key.size()));
  bytes_ += key;
}

void EncodingBuilder::addBytes(char tag, std::string_view bytes) {
  addScalar(tag, static_cast<std::uint32_t>(bytes.size()));
  bytes_ += bytes;
}

void EncodingBuilder::endArray(Mark array) { end('a', array); }

void EncodingBuilder::endDictionary(Mark dictionary) {
  const auto first = parts_.begin() + static_cast<std::ptrdiff_t>(dictionary.firstPart);
  const auto unordered = [&](const Part& a, const Part& b) { return keyOf(a) >= keyOf(b); };
  if (std::adjacent_find(first, parts_.end(), unordered) != parts_.end()) sortEntries(dictionary);
  end('m', dictionary);
}

// Fills in the head, which had to wait for the size.
void EncodingBuilder::end(char tag, Mark container) {
  const std::uint32_t size = static_cast<std::uint32_t>(bytes_.size() - container.head - kTextHead);
  const std::uint32_t count = static_cast<std::uint32_t>(parts_.size() - container.firstPart);
  char* head = bytes_.data() + container.head;
  *head = tag;
  std::memcpy(head + 1, &size, sizeof size);
  std::memcpy(head + kTextHead, &count, sizeof count);
  parts_.resize(container.firstPart);
}

std::string_view EncodingBuilder::keyOf(const Part& part) const {
  return std::string_view(bytes_).substr(part.start + kKeyHead, part.keyLength);
}

void EncodingBuilder::sortEntries(Mark dictionary) {
  struct Entry {
    std::string_view key;
    std::string_view bytes;
  };
  const std::string content = bytes_.substr(dictionary.head + kContainerHead);
  const std::size_t base = dictionary.head + kContainerHead;
  std::vector<Entry> entries;
  entries.reserve(parts_.size() - dictionary.firstPart);
  for (std::size_t i = dictionary.firstPart; i < parts_.size(); ++i) {
    const std::size_t end = i + 1 < parts_.size() ? parts_[i + 1].start : bytes_.size();
    const std::string_view bytes = std::string_view(content).substr(parts_[i].start - base, end - parts_[i].start);
    entries.push_back({bytes.substr(kKeyHead, parts_[i].keyLength), bytes});
  }
  std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.key < b.key; });

  bytes_.resize(base);
  parts_.resize(dictionary.firstPart);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (i + 1 < entries.size() && entries[i + 1].key == entries[i].key) continue;
    parts_.push_back({bytes_.size(), entries[i].key.size()});
    bytes_ += entries[i].bytes;
  }
}

}  // namespace platform
