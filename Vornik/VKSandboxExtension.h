// Sandbox extensions: tokens that let a sandboxed process read a file. The daemon issues them; who receives one
// consumes it for as long as it wants to read.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Vornik/VKStandard.h"
#include "platform/SandboxService.h"
#include "platform/values/FileURL.h"

namespace Vornik {

using namespace platform;

// A read-only token for the file; nothing and *errorNumber (the system's) when the platform refuses. From any thread.
std::optional<std::string> vk_issue_read_extension(SandboxService& sandbox, const FileURL& url,
                                                   int* errorNumber = nullptr);

// The receiving side of a token:
//
//   unconsumed (handle 0) --consume--> consumed --expel, end of life--> unconsumed
//
// Owned and used by one thread at a time.
class VKSandboxExtension {
 public:
  // Nothing is consumed yet.
  static std::shared_ptr<VKSandboxExtension> initWithExtension(std::shared_ptr<SandboxService> sandbox,
                                                               std::string token);
  ~VKSandboxExtension() { expel(); }
  VKSandboxExtension(const VKSandboxExtension&) = delete;
  VKSandboxExtension& operator=(const VKSandboxExtension&) = delete;

  // Takes the token into this process, once. The handle is what the platform answers, its failure value -1 included.
  void consume();
  // Gives it up again; nothing happens when it is not consumed.
  void expel();

  const std::string& token() const { return token_; }
  std::int64_t handle() const { return handle_; }

 private:
  VKSandboxExtension(std::shared_ptr<SandboxService> sandbox, std::string token)
      : sandbox_(std::move(sandbox)), token_(std::move(token)) {}

  const std::shared_ptr<SandboxService> sandbox_;
  const std::string token_;
  std::int64_t handle_ = 0;
};

}  // namespace Vornik
