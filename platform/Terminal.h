// What a command-line program asks about the process it runs in.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

enum class StandardStream { Input = 0, Output = 1, Error = 2 };

bool isTerminal(StandardStream stream);
std::int32_t currentProcess();
// The text of a system error number.
std::string systemErrorText(int number);
// What follows `mark` in the file that a process executes, up to a zero byte; empty when that file cannot be read or
// has no such mark.
std::string markedText(std::int32_t pid, std::string_view mark);
// The directory that stands for `/` of the device, as a host path without links and without a trailing slash; empty
// when the device is the machine itself. Only tools ask: they take host paths from a person and name device paths.
std::string deviceRootOfHost();

}  // namespace platform
