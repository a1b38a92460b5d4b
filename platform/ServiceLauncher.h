// What a host does with the external service that the daemon recorded for it ("ready"): it starts the plug-in.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace platform {

struct LaunchResult {
  int errorNumber = 0;  // not 0: nothing was started; ENOENT when no service is on record for this process
  int exitStatus = 0;   // of the plug-in, 128 + n when signal n ended it
};

// Starts the executable (a device path) with the environment of this process, in which the entries of the recorded
// overlay replace others of the same name, and waits for its end. From before its first instruction until its end it is
// a running instance. In an InterruptScope requests to end are passed on to it.
LaunchResult launchExternalService(std::string_view executablePath, const std::vector<std::string>& arguments);

}  // namespace platform
