#include "platform/Terminal.h"

#include <unistd.h>

#include <system_error>

#include "platform/linux/DeviceRoot.h"

namespace platform {

bool isTerminal(StandardStream stream) { return ::isatty(static_cast<int>(stream)) == 1; }

std::int32_t currentProcess() { return ::getpid(); }

std::string systemErrorText(int number) { return std::generic_category().message(number); }

std::string deviceRootOfHost() { return DeviceRoot::fromEnvironment().hostPath(); }

}  // namespace platform
