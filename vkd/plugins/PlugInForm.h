// The plug-in form in its message encoding, kept so that a discovery reply is put together without encoding or copying
// what did not change: manifest and plug-in section are referred to where the registry's record has them, and the four
// entries that differ from request to request are put in their sorted places.
//
//   kept       | bundleInfo=   containingPath… entitlements= |  …info=   … original-identifier |  path … version |
//   referred   |          manifest             entitlements  |     section                   |                   |
//   added     annotations                              extensions                 overrider, overriding
//
// Immutable once made, so safe from any thread; made and owned by the VKDPlugIn it describes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/values/PlistEncoding.h"
#include "platform/values/PlistValue.h"

namespace vkd {

class PlugInForm {
 public:
  // What a request adds to a form.
  struct Additions {
    platform::PlistValue annotations;  // nothing: an empty dictionary
    platform::PlistValue extensions;   // resource tokens; nothing: none
    std::string_view overrider;        // UUID text of the plug-in that replaces this one; empty: none
    std::string_view overriding;       // identifier of the plug-in that this one replaces; empty: none
  };

  // `form` is an exported form; entries that a request adds are left aside.
  explicit PlugInForm(const platform::PlistValue& form);
  PlugInForm(const PlugInForm&) = delete;
  PlugInForm& operator=(const PlugInForm&) = delete;

  std::string_view identifier() const { return identifier_; }
  std::string_view version() const { return version_; }
  std::string_view uuid() const { return uuid_; }
  bool systemResident() const { return systemResident_; }
  std::int64_t lastModified() const { return lastModified_; }

  // Bytes of the whole form with these additions.
  std::uint64_t encodedSize(const Additions& additions) const;
  void append(platform::PlistEncoder& encoder, const Additions& additions) const;

 private:
  // The entries between those that a request adds.
  enum Section : std::size_t { BeforeExtensions, BeforeOverrides, AfterOverrides, SectionCount };
  // What stands behind the head of the whole form.
  struct Content {
    std::uint64_t size;
    std::uint32_t count;
  };

  // A part that lies elsewhere, in front of the kept byte at `offset`.
  struct Reference {
    std::size_t offset = 0;
    platform::SharedSlice part;
  };
  // Only these entries of a form are containers.
  static constexpr std::size_t kMaxReferences = 3;

  Content content(const Additions& additions) const;

  std::string kept_;
  std::array<Reference, kMaxReferences> references_;
  std::uint32_t referenceCount_ = 0;
  std::array<std::size_t, SectionCount> ends_{};  // of each section in kept_
  std::uint32_t count_ = 0;                       // entries of all sections
  std::uint64_t size_ = 0;                        // and their bytes
  std::string_view identifier_, version_, uuid_;  // parts of kept_
  bool systemResident_ = false;
  std::int64_t lastModified_ = 0;
};

}  // namespace vkd
