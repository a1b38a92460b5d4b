// A property list that another process rewrites now and then: parsed again only when its file changed.
//
// Not safe from several threads; whoever owns it guards it.
#pragma once

#include <optional>
#include <string>

#include "platform/FileSystem.h"
#include "platform/linux/files/DeviceRoot.h"
#include "platform/values/PlistValue.h"

namespace platform {

class WatchedPlist {
 public:
  explicit WatchedPlist(std::string devicePath) : path_(std::move(devicePath)) {}

  // One look at the file when it did not change. A file that cannot be read or parsed (half written, perhaps) leaves
  // the last good value in force and is said once in the log; a file that is not there means nothing.
  void refresh(const DeviceRoot& root);
  const PlistValue& value() const { return value_; }
  // Whether the value is what the file said at the last refresh.
  bool isGood() const { return good_; }

 private:
  std::string path_;
  std::optional<FileSystem::Stamp> stamp_;
  bool settled_ = true;  // the file had been left alone when it was read
  bool good_ = true;
  PlistValue value_;
};

}  // namespace platform
