// Sandboxed processes, and the tokens that let one read a file outside its sandbox.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class SandboxService {
 public:
  virtual ~SandboxService() = default;
  // When that cannot be told the answer is true: it is asked before a process is allowed more.
  virtual bool isSandboxed(std::int32_t pid) = 0;
  // A read-only token for the path in canonical form; nothing and the system's error number when it is refused.
  virtual std::optional<std::string> issueReadExtension(std::string_view path, int* errorNumber) = 0;
  // Checks a token and takes it into this process: a handle above 0, or -1 for a token that was never issued.
  virtual std::int64_t consume(std::string_view token) = 0;
  virtual void release(std::int64_t handle) = 0;
};

}  // namespace platform
