// A bundle on disk as the daemon and its clients ask about it: where it and its parts lie, and what its manifest says.
// A thin wrapper over the platform's bundle object, which never changes after creation. Every question answers nothing
// when the bundle has no such thing. Used by one request at a time: the support path is kept without synchronisation.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Vornik/VKStandard.h"
#include "platform/ServiceBundle.h"
#include "platform/values/FileURL.h"
#include "platform/values/PlistValue.h"

namespace Vornik {

using namespace platform;

class VKBundle {
 public:
  // The main bundle of the calling process.
  static std::shared_ptr<VKBundle> initForMainBundle(ServiceBundles& bundles);
  static std::shared_ptr<VKBundle> initWithURL(ServiceBundles& bundles, const FileURL& url);
  static std::shared_ptr<VKBundle> initWithPath(ServiceBundles& bundles, std::string_view path);
  // The bundle that contains the executable; when none does, the bundle whose directory is that path.
  static std::shared_ptr<VKBundle> initWithExecutableURL(ServiceBundles& bundles, const FileURL& url);
  static std::shared_ptr<VKBundle> initWithExecutablePath(ServiceBundles& bundles, std::string_view path);
  static std::shared_ptr<VKBundle> initWithZYPBundle(std::shared_ptr<ServiceBundle> bundle);

  std::optional<std::string> stringProperty(ServiceBundle::Property property) const;
  std::optional<std::string> path() const;
  std::optional<FileURL> url() const;
  // The bundle path when the bundle has no executable.
  std::optional<std::string> executablePath() const;
  // The directory of resources and plug-ins.
  const std::optional<std::string>& supportPath() const;
  std::optional<std::string> bundleDirectory(std::string_view name) const;
  std::optional<std::string> plugInsPath() const;
  // A dictionary, or nothing with a log line saying why.
  PlistValue infoDictionary() const;
  std::optional<std::string> bundleIdentifier() const;

  const std::shared_ptr<ServiceBundle>& serviceBundle() const { return bundle_; }

 private:
  explicit VKBundle(std::shared_ptr<ServiceBundle> bundle) : bundle_(std::move(bundle)) {}

  const std::shared_ptr<ServiceBundle> bundle_;
  mutable bool supportPathKnown_ = false;
  mutable std::optional<std::string> supportPath_;
};

// %@ of a bundle: what the platform's object says of itself.
void describeTo(std::string& out, const VKBundle& bundle);

}  // namespace Vornik
