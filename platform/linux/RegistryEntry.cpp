#include "platform/linux/RegistryEntry.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "platform/PlistEncoding.h"

namespace platform {
namespace {

// Keys of a stored entry, beside those of an application's names.
constexpr std::string_view kApplication = "app";
constexpr std::string_view kDate = "date";
constexpr std::string_view kDeep = "deep";
constexpr std::string_view kEntitlements = "entitlements";
constexpr std::string_view kManifest = "manifest";
constexpr std::string_view kRequested = "requested";
constexpr std::string_view kSection = "section";
constexpr std::string_view kStamps = "stamps";
constexpr std::string_view kUUID = "uuid";
constexpr std::string_view kWithdrawn = "withdrawn";

constexpr std::string_view kDefaultVersion = "1";

template <class T>
PlistValue bytesOf(const T& value) {
  return PlistValue::data(std::string_view(reinterpret_cast<const char*>(&value), sizeof value));
}

template <class T>
T fromBytes(const PlistValue& value) {
  T result{};
  if (value.dataValue().size() == sizeof result) std::memcpy(&result, value.dataValue().data(), sizeof result);
  return result;
}

PlistValue flag(bool value) { return value ? PlistValue(true) : PlistValue(); }

std::int64_t nanoseconds(const timespec& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; }

double now() { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

PlistValue plugInSection(const PlistValue& manifest) {
  PlistValue section = manifest[manifest_key::Section];
  if (!section.isDictionary()) section = manifest[manifest_key::LegacySection];
  return section.isDictionary() ? section : PlistValue();
}

// The section with its attributes completed; nothing when they lack nothing.
PlistValue completion(const PlistValue& manifest, const PlistValue& section) {
  PlistValue attributes = section[manifest_key::Attributes];
  if (!attributes.isDictionary()) return {};
  bool lacksVersion = !attributes.contains(manifest_key::Version);
  bool lacksPoint = !attributes.contains(manifest_key::Point) && section.contains(manifest_key::Point);
  if (!lacksVersion && !lacksPoint) return {};
  PlistBuilder completed(attributes);
  if (lacksVersion) {
    PlistValue version = manifest[manifest_key::ShortVersion];
    completed.set(manifest_key::Version, version.isString() ? version : PlistValue(kDefaultVersion));
  }
  if (lacksPoint) completed.set(manifest_key::Point, section[manifest_key::Point]);
  return PlistBuilder(section).set(manifest_key::Attributes, completed.take()).take();
}

}  // namespace

FileStamp FileStamp::of(const struct stat& state) {
  if (!S_ISREG(state.st_mode)) return {};
  return {state.st_ino, static_cast<std::uint64_t>(state.st_size), nanoseconds(state.st_mtim),
          nanoseconds(state.st_ctim)};
}

RegistryEntry RegistryEntry::registration(const PlistValue& manifest, const PlistValue& entitlements,
                                          const BundleStamps& stamps, bool deep, std::string_view applicationPath) {
  PlistValue section = plugInSection(manifest);
  if (!section) return {};
  PlistBuilder builder;
  builder.set(kUUID, bytesOf(UUID::random())).set(kDate, now()).set(kStamps, bytesOf(stamps));
  builder.set(kManifest, manifest).set(kEntitlements, entitlements).set(kDeep, flag(deep));
  builder.set(kSection, completion(manifest, section));
  if (!applicationPath.empty()) builder.set(kApplication, applicationPath);
  return RegistryEntry(compactPlist(builder.take()));
}

RegistryEntry RegistryEntry::wish() { return RegistryEntry(compactPlist(PlistBuilder().set(kRequested, true).take())); }

RegistryEntry RegistryEntry::fromPayload(const SharedSlice& payload) {
  PlistValue value = decodePlist(payload, nullptr, kPlistMaxDepth);
  if (!value.isDictionary()) return {};
  RegistryEntry entry(std::move(value));
  bool complete = entry.isRegistration() && entry.manifest().isDictionary() && entry.section().isDictionary();
  return complete || entry.isRequested() ? entry : RegistryEntry();
}

RegistryEntry RegistryEntry::marked(bool requested, bool withdrawn) const {
  if (requested == isRequested() && withdrawn == isWithdrawn()) return *this;
  PlistBuilder builder(value_);
  builder.set(kRequested, flag(requested)).set(kWithdrawn, flag(withdrawn));
  return RegistryEntry(compactPlist(builder.take()));
}

bool RegistryEntry::isRegistration() const { return value_[kUUID].dataValue().size() == sizeof(UUID); }
UUID RegistryEntry::uuid() const { return fromBytes<UUID>(value_[kUUID]); }
std::string_view RegistryEntry::applicationPath() const { return value_[kApplication].stringValue(); }
double RegistryEntry::date() const { return value_[kDate].realValue(); }
BundleStamps RegistryEntry::stamps() const { return fromBytes<BundleStamps>(value_[kStamps]); }
bool RegistryEntry::isDeep() const { return value_[kDeep].boolValue(); }
bool RegistryEntry::isRequested() const { return value_[kRequested].boolValue(); }
bool RegistryEntry::isWithdrawn() const { return value_[kWithdrawn].boolValue(); }
PlistValue RegistryEntry::manifest() const { return value_[kManifest]; }
PlistValue RegistryEntry::entitlements() const { return value_[kEntitlements]; }

PlistValue RegistryEntry::section() const {
  PlistValue completed = value_[kSection];
  return completed ? completed : plugInSection(manifest());
}

RegistryAppEntry RegistryAppEntry::of(const PlistValue& manifest, const FileStamp& stamp, bool deep) {
  PlistBuilder builder;
  builder.set(kStamps, bytesOf(stamp)).set(kDeep, flag(deep));
  builder.set(manifest_key::Name, manifest[manifest_key::Name]);
  builder.set(manifest_key::ShortName, manifest[manifest_key::ShortName]);
  builder.set(manifest_key::Placeholder, flag(manifest[manifest_key::Placeholder].boolValue()));
  return RegistryAppEntry(compactPlist(builder.take()));
}

RegistryAppEntry RegistryAppEntry::fromPayload(const SharedSlice& payload) {
  PlistValue value = decodePlist(payload, nullptr, kPlistMaxDepth);
  return value.isDictionary() ? RegistryAppEntry(std::move(value)) : RegistryAppEntry();
}

FileStamp RegistryAppEntry::stamp() const { return fromBytes<FileStamp>(value_[kStamps]); }
bool RegistryAppEntry::isDeep() const { return value_[kDeep].boolValue(); }
bool RegistryAppEntry::isPlaceholder() const { return value_[manifest_key::Placeholder].boolValue(); }

}  // namespace platform
