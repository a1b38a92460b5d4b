// Which hosts may use a plug-in. HostPolicy has the rules; this is the question for one plug-in.
#include "vkd/plugins/HostPolicy.h"
#include "vkd/plugins/VKDPlugIn.h"

namespace vkd {

std::optional<std::string> VKDPlugIn::allowForClient(const HostClient& client) const {
  return HostPolicy::refusal(HostPolicy(client).allow(*this));
}

}  // namespace vkd
