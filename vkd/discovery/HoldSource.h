// Where discovery learns what installers hold. VKDServer is it in the daemon.
#pragma once

#include "vkd/plugins/VKDPlugIn.h"

namespace vkd {

class HoldSource {
 public:
  virtual ~HoldSource() = default;
  // From any thread or queue but "serverSync".
  virtual bool holdOnPlugIn(const VKDPlugIn& plugIn) = 0;
};

}  // namespace vkd
