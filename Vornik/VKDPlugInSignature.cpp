#include "Vornik/VKDPlugInSignature.h"

#include "platform/values/SHA.h"
#include "platform/values/UUID.h"

namespace Vornik {

std::shared_ptr<VKDPlugInSignature> VKDPlugInSignature::initWithURLError(const FileURL& /*url*/,
                                                                         std::optional<DomainError>* /*error*/) {
  return std::shared_ptr<VKDPlugInSignature>(new VKDPlugInSignature(sha1(UUID::random().text()), "dummy requirement"));
}

}  // namespace Vornik
