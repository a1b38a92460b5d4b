#include "platform/Terminal.h"

#include <unistd.h>

#include <fstream>
#include <system_error>

#include "platform/linux/files/DeviceRoot.h"

namespace platform {

bool isTerminal(StandardStream stream) { return ::isatty(static_cast<int>(stream)) == 1; }

std::int32_t currentProcess() { return ::getpid(); }

std::string systemErrorText(int number) { return std::generic_category().message(number); }

std::string markedText(std::int32_t pid, std::string_view mark) {
  constexpr std::size_t kChunk = std::size_t{1} << 16;
  constexpr std::size_t kLongestText = 256;
  std::ifstream executable("/proc/" + std::to_string(pid) + "/exe", std::ios::binary);
  std::string bytes;
  while (executable) {
    // A mark may lie across two chunks, and so may its text.
    if (bytes.size() > mark.size() + kLongestText) bytes.erase(0, bytes.size() - mark.size() - kLongestText);
    std::size_t kept = bytes.size();
    bytes.resize(kept + kChunk);
    executable.read(bytes.data() + kept, kChunk);
    bytes.resize(kept + static_cast<std::size_t>(executable.gcount()));
    std::size_t found = bytes.find(mark);
    std::size_t end = found == std::string::npos ? found : bytes.find('\0', found);
    if (end != std::string::npos) return bytes.substr(found + mark.size(), end - found - mark.size());
  }
  return "";
}

std::string deviceRootOfHost() { return DeviceRoot::fromEnvironment().hostPath(); }

}  // namespace platform
