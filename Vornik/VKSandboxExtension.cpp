#include "Vornik/VKSandboxExtension.h"

#include <utility>

namespace Vornik {

std::optional<std::string> vk_issue_read_extension(SandboxService& sandbox, const FileURL& url, int* errorNumber) {
  int ignored = 0;
  return sandbox.issueReadExtension(url.path, errorNumber != nullptr ? errorNumber : &ignored);
}

std::shared_ptr<VKSandboxExtension> VKSandboxExtension::initWithExtension(std::shared_ptr<SandboxService> sandbox,
                                                                          std::string token) {
  return std::shared_ptr<VKSandboxExtension>(new VKSandboxExtension(std::move(sandbox), std::move(token)));
}

void VKSandboxExtension::consume() {
  if (handle_ == 0) handle_ = sandbox_->consume(token_);
}

void VKSandboxExtension::expel() {
  if (handle_ != 0) sandbox_->release(std::exchange(handle_, 0));
}

}  // namespace Vornik
