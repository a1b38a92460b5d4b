// Reads a plug-in bundle as the daemon's registry, the daemon and a client would, and tells what would keep it from
// being served. Asks no daemon; only looks.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/Services.h"

namespace vkctl {

using namespace platform;

struct Diagnosis {
  std::string path;
  std::vector<std::string> problems;  // each alone keeps the plug-in from being found or launched
  std::vector<std::string> notes;     // whom it serves, what it leaves to others
};

Diagnosis diagnoseBundle(const Services& services, std::string_view devicePath);

}  // namespace vkctl
