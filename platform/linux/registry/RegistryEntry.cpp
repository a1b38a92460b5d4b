#include "platform/linux/registry/RegistryEntry.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "platform/values/PlistEncoding.h"

namespace platform {
namespace {

// Keys of a stored entry. What is asked most comes first.
constexpr std::string_view kHead = "0";
constexpr std::string_view kApplication = "app";
constexpr std::string_view kEntitlements = "entitlements";
constexpr std::string_view kManifest = "manifest";
constexpr std::string_view kSection = "section";
// Keys of a stored application, beside those of its names.
constexpr std::string_view kDeep = "deep";
constexpr std::string_view kStamp = "stamp";

// What of a registration has a fixed size, as it lies in the machine.
struct Head {
  UUID uuid;
  double date;
  BundleStamps stamps;
  std::uint8_t registration, deep, requested, withdrawn, unused[4];
};
static_assert(sizeof(Head) == 16 + 8 + 3 * 32 + 8);

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

// A key that is there, or not.
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
  Head head{UUID::random(), now(), stamps, true, deep, false, false, {}};
  PlistBuilder builder;
  builder.set(kHead, bytesOf(head)).set(kManifest, manifest).set(kEntitlements, entitlements);
  builder.set(kSection, completion(manifest, section));
  if (!applicationPath.empty()) builder.set(kApplication, applicationPath);
  return RegistryEntry(compactPlist(builder.take()));
}

RegistryEntry RegistryEntry::wish() {
  Head head{};
  head.requested = true;
  return RegistryEntry(compactPlist(PlistBuilder().set(kHead, bytesOf(head)).take()));
}

RegistryEntry RegistryEntry::fromPayload(const SharedSlice& payload) {
  RegistryEntry entry(decodePlist(payload, nullptr, kPlistMaxDepth));
  bool complete = entry.isRegistration() && entry.section();
  return complete || entry.isRequested() ? entry : RegistryEntry();
}

RegistryEntry RegistryEntry::marked(bool requested, bool withdrawn) const {
  Head head = fromBytes<Head>(value_[kHead]);
  if (requested == (head.requested != 0) && withdrawn == (head.withdrawn != 0)) return *this;
  head.requested = requested;
  head.withdrawn = withdrawn;
  return RegistryEntry(compactPlist(PlistBuilder(value_).set(kHead, bytesOf(head)).take()));
}

bool RegistryEntry::isRegistration() const { return fromBytes<Head>(value_[kHead]).registration != 0; }
UUID RegistryEntry::uuid() const { return fromBytes<Head>(value_[kHead]).uuid; }
double RegistryEntry::date() const { return fromBytes<Head>(value_[kHead]).date; }
BundleStamps RegistryEntry::stamps() const { return fromBytes<Head>(value_[kHead]).stamps; }
bool RegistryEntry::isDeep() const { return fromBytes<Head>(value_[kHead]).deep != 0; }
bool RegistryEntry::isRequested() const { return fromBytes<Head>(value_[kHead]).requested != 0; }
bool RegistryEntry::isWithdrawn() const { return fromBytes<Head>(value_[kHead]).withdrawn != 0; }
std::string_view RegistryEntry::applicationPath() const { return value_[kApplication].stringValue(); }
PlistValue RegistryEntry::manifest() const { return value_[kManifest]; }
PlistValue RegistryEntry::entitlements() const { return value_[kEntitlements]; }

PlistValue RegistryEntry::section() const {
  PlistValue completed = value_[kSection];
  return completed ? completed : plugInSection(manifest());
}

RegistryAppEntry RegistryAppEntry::of(const PlistValue& manifest, const FileStamp& stamp, bool deep) {
  PlistBuilder builder;
  builder.set(kStamp, bytesOf(stamp)).set(kDeep, flag(deep));
  builder.set(manifest_key::Name, manifest[manifest_key::Name]);
  builder.set(manifest_key::ShortName, manifest[manifest_key::ShortName]);
  builder.set(manifest_key::Placeholder, flag(manifest[manifest_key::Placeholder].boolValue()));
  return RegistryAppEntry(compactPlist(builder.take()));
}

RegistryAppEntry RegistryAppEntry::fromPayload(const SharedSlice& payload) {
  PlistValue value = decodePlist(payload, nullptr, kPlistMaxDepth);
  return value.isDictionary() ? RegistryAppEntry(std::move(value)) : RegistryAppEntry();
}

FileStamp RegistryAppEntry::stamp() const { return fromBytes<FileStamp>(value_[kStamp]); }
bool RegistryAppEntry::isDeep() const { return value_[kDeep].boolValue(); }
bool RegistryAppEntry::isPlaceholder() const { return value_[manifest_key::Placeholder].boolValue(); }

}  // namespace platform
