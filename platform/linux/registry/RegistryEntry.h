// What the registry knows of one plug-in bundle or application, as one range of encoded property list: the same bytes
// are kept in memory, looked into where they lie, and stored. Immutable; from any thread.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string_view>
#include <utility>

#include "platform/ManifestKeys.h"
#include "platform/values/PlistValue.h"
#include "platform/values/SharedBytes.h"
#include "platform/values/UUID.h"

namespace platform {

// A file's state, to see whether it changed; all zero when there is no regular file. Says nothing of the device, whose
// number may be another after a restart of the machine.
struct FileStamp {
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::int64_t modified = 0;
  std::int64_t changed = 0;

  static FileStamp of(const struct stat& state);
  friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

// What makes a bundle another one.
struct BundleStamps {
  FileStamp manifest, executable, entitlements;
  friend bool operator==(const BundleStamps&, const BundleStamps&) = default;
};

class RegistryEntry {
 public:
  RegistryEntry() = default;
  // A fresh registration, now, under a random UUID. Nothing when the manifest is none of a plug-in.
  static RegistryEntry registration(const PlistValue& manifest, const PlistValue& entitlements,
                                    const BundleStamps& stamps, bool deep, std::string_view applicationPath);
  // Only the wish that the bundle at a path be registered as soon as there is one.
  static RegistryEntry wish();
  // From stored bytes; nothing when they are none.
  static RegistryEntry fromPayload(const SharedSlice& payload);
  // The same with other marks.
  RegistryEntry marked(bool requested, bool withdrawn) const;

  explicit operator bool() const { return static_cast<bool>(value_); }
  SharedSlice payload() const { return value_.encoded(); }
  // Whether it is the same bytes.
  bool is(const RegistryEntry& other) const { return payload().view().data() == other.payload().view().data(); }

  // Of a bundle, not only a wish.
  bool isRegistration() const;
  UUID uuid() const;
  double date() const;
  BundleStamps stamps() const;
  bool isDeep() const;
  // Added by registering its path, not because of where it lies.
  bool isRequested() const;
  // Unregistered, and not to come back before it changes.
  bool isWithdrawn() const;
  // Empty when no application contains it.
  std::string_view applicationPath() const;
  PlistValue manifest() const;
  // The plug-in section of the manifest, its attributes completed; nothing when it has no such section.
  PlistValue section() const;
  PlistValue entitlements() const;

 private:
  explicit RegistryEntry(PlistValue value) : value_(std::move(value)) {}
  PlistValue value_;
};

// The same for an application: the few things of its manifest that records answer.
class RegistryAppEntry {
 public:
  RegistryAppEntry() = default;
  static RegistryAppEntry of(const PlistValue& manifest, const FileStamp& stamp, bool deep);
  static RegistryAppEntry fromPayload(const SharedSlice& payload);

  explicit operator bool() const { return static_cast<bool>(value_); }
  SharedSlice payload() const { return value_.encoded(); }
  FileStamp stamp() const;
  bool isDeep() const;
  bool isPlaceholder() const;
  // Its names, under the manifest's keys.
  const PlistValue& names() const { return value_; }

 private:
  explicit RegistryAppEntry(PlistValue value) : value_(std::move(value)) {}
  PlistValue value_;
};

}  // namespace platform
