#include "vkd/PlugInForm.h"

#include <cstddef>
#include <string>
#include <utility>

#include "Vornik/VKKeys.h"

namespace vkd {

using namespace platform;
using namespace Vornik;

namespace {

// A value of this size is referred to where it lies; a smaller one is copied, which takes no more memory than the
// reference and its neighbours' ends.
constexpr std::size_t kReferredSize = 128;
// Bytes of the encoding before a key, a text, and what is in a dictionary.
constexpr std::uint64_t kKeyHead = sizeof(std::uint32_t);
constexpr std::uint64_t kTextHead = 1 + sizeof(std::uint32_t);
constexpr std::uint64_t kDictionaryHead = 1 + 2 * sizeof(std::uint32_t);

std::uint64_t entrySize(std::string_view key, std::uint64_t valueSize) { return kKeyHead + key.size() + valueSize; }

std::string encodedEntry(std::string_view key, const PlistValue& value) {
  PlistEncoder encoder;
  encoder.key(key);
  if (value) encoder.value(value);
  return std::string(encoder.take().flat().view());
}

void appendText(PlistEncoder& encoder, std::string_view key, std::string_view text) {
  if (text.empty()) return;
  encoder.key(key);
  encoder.value(PlistValue::string(SharedSlice(nullptr, text)));
}

const PlistValue& annotationsOrEmpty(const PlugInForm::Additions& additions) {
  static const PlistValue empty = PlistBuilder().take();
  return additions.annotations ? additions.annotations : empty;
}

bool isAddition(std::string_view key) {
  return key == kVKFormAnnotations || key == kVKFormExtensions || key == kVKFormOverrider || key == kVKFormOverriding;
}

// The texts that a request looks at, as ranges of the bytes that are kept.
struct Range {
  std::size_t offset = 0, length = 0;
  std::string_view of(std::string_view bytes) const { return bytes.substr(offset, length); }
};

}  // namespace

PlugInForm::PlugInForm(const PlistValue& form)
    : systemResident_(form[kVKFormSystemResident].boolValue()), lastModified_(form[kVKFormLastModified].intValue()) {
  struct Part {
    std::size_t ownEnd;    // the part's own bytes go to here,
    SharedSlice referred;  // and are followed by these
    Section section;
  };
  std::string own;
  std::vector<Part> parts;
  Range identifier, version, uuid;
  Section section = BeforeExtensions;
  const auto endSection = [&](Section next) {
    while (section < next) {
      parts.push_back({own.size(), {}, section});
      section = static_cast<Section>(section + 1);
    }
  };
  for (const auto& [key, value] : form.entries()) {
    if (key > kVKFormExtensions) endSection(BeforeOverrides);
    if (key > kVKFormOverriding) endSection(AfterOverrides);
    if (isAddition(key)) continue;
    ++count_;
    SharedSlice lying = value.encoded();
    if (lying.size() >= kReferredSize && lying.owner() != nullptr) {
      own += encodedEntry(key, PlistValue());
      parts.push_back({own.size(), std::move(lying), section});
      continue;
    }
    own += encodedEntry(key, value);
    const Range text{own.size() - value.stringValue().size(), value.stringValue().size()};
    if (key == kVKFormIdentifier) identifier = text;
    if (key == kVKFormVersion) version = text;
    if (key == kVKFormUUID) uuid = text;
  }
  endSection(SectionCount);

  own.shrink_to_fit();
  const SharedSlice bytes = SharedSlice::take(std::move(own));
  identifier_ = identifier.of(bytes.view());
  version_ = version.of(bytes.view());
  uuid_ = uuid.of(bytes.view());
  std::size_t from = 0;
  for (Part& part : parts) {
    addPiece(bytes.part(from, part.ownEnd - from));
    addPiece(std::move(part.referred));
    from = part.ownEnd;
    ends_[part.section] = static_cast<std::uint32_t>(pieces_.size());
  }
  pieces_.shrink_to_fit();
}

void PlugInForm::addPiece(SharedSlice bytes) {
  if (bytes.size() == 0) return;
  size_ += bytes.size();
  pieces_.push_back(std::move(bytes));
}

PlugInForm::Content PlugInForm::content(const Additions& additions) const {
  Content content{size_ + entrySize(kVKFormAnnotations, annotationsOrEmpty(additions).encodedSize()), count_ + 1};
  const auto add = [&](std::string_view key, std::uint64_t valueSize) {
    content.size += entrySize(key, valueSize);
    ++content.count;
  };
  if (additions.extensions) add(kVKFormExtensions, additions.extensions.encodedSize());
  if (!additions.overrider.empty()) add(kVKFormOverrider, kTextHead + additions.overrider.size());
  if (!additions.overriding.empty()) add(kVKFormOverriding, kTextHead + additions.overriding.size());
  return content;
}

std::uint64_t PlugInForm::encodedSize(const Additions& additions) const {
  return kDictionaryHead + content(additions).size;
}

void PlugInForm::append(PlistEncoder& encoder, const Additions& additions) const {
  const Content whole = content(additions);
  encoder.dictionaryHead(whole.size, whole.count);
  encoder.key(kVKFormAnnotations);
  encoder.value(annotationsOrEmpty(additions));
  appendSection(encoder, BeforeExtensions);
  if (additions.extensions) {
    encoder.key(kVKFormExtensions);
    encoder.value(additions.extensions);
  }
  appendSection(encoder, BeforeOverrides);
  appendText(encoder, kVKFormOverrider, additions.overrider);
  appendText(encoder, kVKFormOverriding, additions.overriding);
  appendSection(encoder, AfterOverrides);
}

void PlugInForm::appendSection(PlistEncoder& encoder, Section section) const {
  const std::size_t first = section == BeforeExtensions ? 0 : ends_[section - 1];
  for (std::size_t i = first; i < ends_[section]; ++i) encoder.raw(pieces_[i]);
}

}  // namespace vkd
