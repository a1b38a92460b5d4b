#include "platform/linux/registry/RegistryNames.h"

#include <cstdlib>
#include <utility>

#include "platform/linux/files/Files.h"
#include "platform/linux/registry/RegistryEntry.h"

namespace platform {
namespace {

std::optional<std::string> localized(const PlistValue& table, const PlistValue& manifest, std::string_view key) {
  for (const PlistValue& source : {table, manifest}) {
    PlistValue name = source[key];
    if (name.isString()) return std::string(name.stringValue());
  }
  return std::nullopt;
}

}  // namespace

RegistryLanguages::RegistryLanguages(std::string_view lang) {
  std::string_view language = lang.substr(0, lang.find_first_of(".@"));
  if (language == "C" || language == "POSIX" || !isSafeComponent(language)) return;
  names_.emplace_back(language);
  std::string_view base = language.substr(0, language.find('_'));
  if (base != language && isSafeComponent(base)) names_.emplace_back(base);
}

RegistryLanguages RegistryLanguages::fromEnvironment() {
  const char* lang = std::getenv("LANG");
  return RegistryLanguages(lang == nullptr ? "" : lang);
}

void RegistryNames::setLocalized(const RegistryLanguages& languages, bool localized) {
  if (!localized && !localized_.load(std::memory_order_relaxed)) return;
  std::lock_guard lock(languages.mutex());
  localized_.store(localized, std::memory_order_relaxed);
  generation_ = 0;
  table_ = {};
}

PlistValue RegistryNames::table(const DeviceRoot& root, const RegistryLanguages& languages,
                                const std::string& supportPath) const {
  if (languages.names().empty() || !localized_.load(std::memory_order_relaxed)) return {};
  std::lock_guard lock(languages.mutex());
  if (generation_ == languages.generation()) return table_;
  generation_ = languages.generation();
  table_ = {};
  const std::string folder = supportPath + "/" + kLocalizedFolder + "/";
  for (const std::string& language : languages.names()) {
    table_ = readPlistFile(root, std::string(folder).append(language).append(".plist"));
    if (table_.isDictionary()) break;
  }
  return table_;
}

std::optional<std::string> RegistryNames::name(const DeviceRoot& root, const RegistryLanguages& languages,
                                               const std::string& supportPath, const PlistValue& manifest) const {
  PlistValue names = table(root, languages, supportPath);
  std::optional<std::string> name = localized(names, manifest, manifest_key::Name);
  return name ? name : localized(names, manifest, manifest_key::ShortName);
}

std::optional<std::string> RegistryNames::shortName(const DeviceRoot& root, const RegistryLanguages& languages,
                                                    const std::string& supportPath, const PlistValue& manifest) const {
  return localized(table(root, languages, supportPath), manifest, manifest_key::ShortName);
}

}  // namespace platform
