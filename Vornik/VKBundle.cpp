#include "Vornik/VKBundle.h"

#include <utility>

#include "Vornik/VKKeys.h"
#include "Vornik/VKLog.h"

namespace Vornik {

std::shared_ptr<VKBundle> VKBundle::initForMainBundle(ServiceBundles& bundles) {
  return initWithZYPBundle(bundles.mainBundle());
}

std::shared_ptr<VKBundle> VKBundle::initWithURL(ServiceBundles& bundles, const FileURL& url) {
  return initWithPath(bundles, url.path);
}

std::shared_ptr<VKBundle> VKBundle::initWithPath(ServiceBundles& bundles, std::string_view path) {
  return initWithZYPBundle(bundles.bundleAtPath(path));
}

std::shared_ptr<VKBundle> VKBundle::initWithExecutableURL(ServiceBundles& bundles, const FileURL& url) {
  return initWithExecutablePath(bundles, url.path);
}

std::shared_ptr<VKBundle> VKBundle::initWithExecutablePath(ServiceBundles& bundles, std::string_view path) {
  auto containing = bundles.bundleOfExecutable(path);
  if (containing->stringProperty(ServiceBundle::Property::BundlePath)) return initWithZYPBundle(std::move(containing));
  return initWithPath(bundles, path);
}

std::shared_ptr<VKBundle> VKBundle::initWithZYPBundle(std::shared_ptr<ServiceBundle> bundle) {
  return std::shared_ptr<VKBundle>(new VKBundle(std::move(bundle)));
}

std::optional<std::string> VKBundle::stringProperty(ServiceBundle::Property property) const {
  return bundle_->stringProperty(property);
}

std::optional<std::string> VKBundle::path() const { return stringProperty(ServiceBundle::Property::BundlePath); }

std::optional<FileURL> VKBundle::url() const {
  auto bundlePath = path();
  return bundlePath ? std::optional(FileURL{*std::move(bundlePath)}) : std::nullopt;
}

std::optional<std::string> VKBundle::executablePath() const {
  auto executable = stringProperty(ServiceBundle::Property::ExecutablePath);
  return executable ? executable : path();
}

const std::optional<std::string>& VKBundle::supportPath() const {
  if (!supportPathKnown_) {
    supportPath_ = stringProperty(ServiceBundle::Property::SupportPath);
    supportPathKnown_ = true;
  }
  return supportPath_;
}

std::optional<std::string> VKBundle::bundleDirectory(std::string_view name) const {
  const auto& support = supportPath();
  return support ? std::optional(FileURL{*support}.appending(name).path) : std::nullopt;
}

std::optional<std::string> VKBundle::plugInsPath() const { return bundleDirectory("PlugIns"); }

PlistValue VKBundle::infoDictionary() const {
  Message manifest = bundle_->infoDictionary();
  if (!manifest) {
    VK_LOG(vk_ops(), Info, "failed to retrieve Info.plist for %@ through %@", path(), bundle_->description());
  }
  PlistValue dictionary = manifest.toPlist();
  if (!dictionary.isDictionary()) {
    VK_LOG(vk_ops(), Info, "failed to convert Info.plist to dictionary: %@ source=%@", path(), manifest);
    return {};
  }
  return dictionary;
}

std::optional<std::string> VKBundle::bundleIdentifier() const {
  Message manifest = bundle_->infoDictionary();
  const std::string* identifier = manifest.getString(kVKBundleIdentifier);
  return identifier != nullptr ? std::optional(*identifier) : std::nullopt;
}

void describeTo(std::string& out, const VKBundle& bundle) { out += bundle.serviceBundle()->description(); }

}  // namespace Vornik
