// The real daemon as a child process.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// Starts a program with the descriptors of this one; `root` becomes its device root, `cpu` >= 0 pins it.
pid_t spawn(const std::vector<std::string>& arguments, const std::string& root, int cpu = -1);
// Ends a child and waits for it.
void stop(pid_t pid);
// Pins the calling thread to one core, or frees it again (cpu < 0).
void pinSelf(int cpu);
// Bytes of a process's memory that lie in RAM.
std::uint64_t residentBytes(pid_t pid);

class DaemonProcess {
 public:
  explicit DaemonProcess(const std::string& root, int cpu = -1, std::vector<std::string> options = {});
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

}  // namespace bench
