// From what a person calls a plug-in (its UUID, its identifier or its path, which has a slash in it) to the plug-in.
// Asks the daemon for all that this process may see: everything when it has the manager entitlement, else what it may
// use.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/values/PlistValue.h"
#include "platform/values/UUID.h"
#include "tools/Session.h"

namespace vkctl {

class PlugInNames {
 public:
  explicit PlugInNames(Session& session) : session_(session) {}

  // Throw Failure: no such plug-in, or a name that several have (with the list of them).
  PlistValue form(std::string_view name);
  UUID uuid(std::string_view name);         // a UUID is taken as it is; the daemon refuses one it does not know
  std::string path(std::string_view name);  // a path is made absolute, whether or not something lies there

  // The forms that satisfy the rules, all versions and copies.
  std::vector<PlistValue> all(const PlistValue& rules);
  // Whether the daemon showed everything so far.
  bool seesAll() const { return mayAskForAll_; }

 private:
  std::vector<PlistValue> candidates(std::string_view name);

  Session& session_;
  bool mayAskForAll_ = true;  // until the daemon refuses
};

// The absolute device path of a path argument: one that is relative starts at the working directory. Throws Failure for
// one that lies outside the device root.
std::string devicePathOfArgument(const std::string& argument);

}  // namespace vkctl
