// The daemon cannot start and must not: main logs the text at fault level and exits with status 1. Thrown during
// construction only.
#pragma once

#include <stdexcept>

namespace vkd {

class StartupFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace vkd
