#include "platform/linux/identity/LinuxServiceBundles.h"

#include <unistd.h>

#include <mutex>
#include <utility>

#include "platform/ManifestKeys.h"
#include "platform/linux/identity/BundleLayout.h"
#include "platform/linux/identity/LinuxCodeSigning.h"

namespace platform {
namespace {

// A bundle whose manifest is read at the first question that needs it.
class BundleOnDisk {
 public:
  BundleOnDisk(std::shared_ptr<const DeviceRoot> root, BundleLayout layout)
      : root_(std::move(root)), layout_(std::move(layout)) {}

  const BundleLayout& layout() const { return layout_; }
  PlistValue manifest() {
    std::lock_guard lock(mutex_);
    if (!read_) manifest_ = layout_.readManifest(*root_);
    read_ = true;
    return manifest_;
  }
  std::optional<std::string> executablePath() { return layout_.executablePath(*root_, manifest()); }
  void forget() {
    std::lock_guard lock(mutex_);
    read_ = false;
  }

 private:
  const std::shared_ptr<const DeviceRoot> root_;
  const BundleLayout layout_;
  std::mutex mutex_;  // guards what follows
  bool read_ = false;
  PlistValue manifest_;
};

class LinuxServiceBundle final : public ServiceBundle {
 public:
  LinuxServiceBundle(const std::shared_ptr<const DeviceRoot>& root, std::string_view path,
                     std::optional<BundleLayout> layout)
      : path_(path) {
    if (layout) bundle_.emplace(root, std::move(*layout));
  }

  std::optional<std::string> stringProperty(Property property) const override {
    if (!bundle_) return std::nullopt;
    switch (property) {
      case Property::BundlePath:
        return bundle_->layout().path();
      case Property::SupportPath:
        return bundle_->layout().supportPath();
      case Property::ExecutablePath:
        return bundle_->executablePath();
    }
    return std::nullopt;
  }

  Message infoDictionary() const override { return bundle_ ? Message::fromPlist(bundle_->manifest()) : Message(); }

  std::string description() const override {
    return "<ServiceBundle " + (bundle_ ? bundle_->layout().path() : path_ + " (no bundle)") + ">";
  }

 private:
  const std::string path_;  // what was asked for
  mutable std::optional<BundleOnDisk> bundle_;
};

class LinuxCoreBundle final : public CoreBundle {
 public:
  LinuxCoreBundle(std::shared_ptr<const DeviceRoot> root, BundleLayout layout)
      : bundle_(std::move(root), std::move(layout)) {}

  std::string description() const override { return "<CoreBundle " + bundle_.layout().path() + ">"; }
  std::optional<std::string> bundleIdentifier() const override {
    PlistValue identifier = bundle_.manifest()[manifest_key::BundleIdentifier];
    if (!identifier.isString()) return std::nullopt;
    return std::string(identifier.stringValue());
  }
  void flushCaches() override { bundle_.forget(); }

 private:
  mutable BundleOnDisk bundle_;
};

}  // namespace

std::shared_ptr<ServiceBundle> LinuxServiceBundles::bundleAtPath(std::string_view path) {
  return std::make_shared<LinuxServiceBundle>(root_, path, BundleLayout::at(*root_, path));
}

std::shared_ptr<ServiceBundle> LinuxServiceBundles::bundleOfExecutable(std::string_view path) {
  return std::make_shared<LinuxServiceBundle>(root_, path, BundleLayout::ofExecutable(*root_, path));
}

std::shared_ptr<ServiceBundle> LinuxServiceBundles::mainBundle() {
  std::string hostPath = hostExecutablePath(::getpid());
  std::optional<std::string> path = root_->devicePath(hostPath);
  std::optional<BundleLayout> layout = path ? BundleLayout::ofExecutable(*root_, *path) : std::nullopt;
  return std::make_shared<LinuxServiceBundle>(root_, hostPath, std::move(layout));
}

std::shared_ptr<CoreBundle> LinuxCoreBundles::bundleAtPath(std::string_view path) {
  std::optional<BundleLayout> layout = BundleLayout::at(*root_, path);
  if (!layout) return nullptr;
  return std::make_shared<LinuxCoreBundle>(root_, std::move(*layout));
}

}  // namespace platform
