// Bundles on disk as the service manager sees them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/values/Message.h"

namespace platform {

class ServiceBundle {
 public:
  enum class Property { BundlePath, ExecutablePath, SupportPath };
  virtual ~ServiceBundle() = default;
  // Nothing when the bundle has no such property: an executable only when its file is there.
  virtual std::optional<std::string> stringProperty(Property property) const = 0;
  // The manifest as a dictionary message, nothing (Kind::Nothing) when missing or unreadable.
  virtual Message infoDictionary() const = 0;
  // For log texts.
  virtual std::string description() const = 0;
};

class ServiceBundles {
 public:
  virtual ~ServiceBundles() = default;
  // Never null: a path that is no bundle gives an object without properties.
  virtual std::shared_ptr<ServiceBundle> bundleAtPath(std::string_view path) = 0;
  // The bundle that contains this executable.
  virtual std::shared_ptr<ServiceBundle> bundleOfExecutable(std::string_view path) = 0;
  virtual std::shared_ptr<ServiceBundle> mainBundle() = 0;
};

// A bundle as the privacy service wants it.
class CoreBundle {
 public:
  virtual ~CoreBundle() = default;
  virtual std::string description() const = 0;
  virtual std::optional<std::string> bundleIdentifier() const = 0;
  // Drops what is cached of the bundle; the next question reads it again.
  virtual void flushCaches() = 0;
};

class CoreBundles {
 public:
  virtual ~CoreBundles() = default;
  // Null when the location is not a bundle.
  virtual std::shared_ptr<CoreBundle> bundleAtPath(std::string_view path) = 0;
};

}  // namespace platform
