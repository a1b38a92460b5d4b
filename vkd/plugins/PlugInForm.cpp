#include "vkd/plugins/PlugInForm.h"

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

}  // namespace

PlugInForm::PlugInForm(const PlistValue& form)
    : systemResident_(form[kVKFormSystemResident].boolValue()), lastModified_(form[kVKFormLastModified].intValue()) {
  PlistEncoder encoder;
  std::size_t section = BeforeExtensions;
  const auto endSections = [&](std::size_t upTo) {
    while (section < upTo) ends_[section++] = encoder.size();
  };
  // Where a text that requests look at begins.
  std::size_t identifier = 0, version = 0, uuid = 0;
  for (const auto& [key, value] : form.entries()) {
    if (key > kVKFormExtensions) endSections(BeforeOverrides);
    if (key > kVKFormOverriding) endSections(AfterOverrides);
    if (isAddition(key)) continue;
    ++count_;
    size_ += entrySize(key, value.encodedSize());
    encoder.key(key);
    SharedSlice lying = value.encoded();
    if (lying.size() >= kReferredSize && lying.owner() != nullptr && referenceCount_ < kMaxReferences) {
      references_[referenceCount_++] = Reference{encoder.size(), std::move(lying)};
      continue;
    }
    encoder.value(value);
    const std::size_t text = encoder.size() - value.stringValue().size();
    if (key == kVKFormIdentifier) identifier = text;
    if (key == kVKFormVersion) version = text;
    if (key == kVKFormUUID) uuid = text;
  }
  endSections(SectionCount);
  kept_ = encoder.take().flat().view();
  const auto textAt = [&](std::string_view key, std::size_t offset) {
    return std::string_view(kept_).substr(offset, form[key].stringValue().size());
  };
  identifier_ = textAt(kVKFormIdentifier, identifier);
  version_ = textAt(kVKFormVersion, version);
  uuid_ = textAt(kVKFormUUID, uuid);
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
  std::size_t position = 0, reference = 0;
  const auto appendSection = [&](Section section) {
    for (; reference < referenceCount_ && references_[reference].offset <= ends_[section]; ++reference) {
      const Reference& next = references_[reference];
      encoder.raw(std::string_view(kept_).substr(position, next.offset - position));
      encoder.raw(next.part);
      position = next.offset;
    }
    encoder.raw(std::string_view(kept_).substr(position, ends_[section] - position));
    position = ends_[section];
  };
  const Content whole = content(additions);
  encoder.dictionaryHead(whole.size, whole.count);
  encoder.key(kVKFormAnnotations);
  encoder.value(annotationsOrEmpty(additions));
  appendSection(BeforeExtensions);
  if (additions.extensions) {
    encoder.key(kVKFormExtensions);
    encoder.value(additions.extensions);
  }
  appendSection(BeforeOverrides);
  appendText(encoder, kVKFormOverrider, additions.overrider);
  appendText(encoder, kVKFormOverriding, additions.overriding);
  appendSection(AfterOverrides);
}

}  // namespace vkd
