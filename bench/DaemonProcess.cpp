#include "bench/DaemonProcess.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace bench {

void pinSelf(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int i = 0; i < CPU_SETSIZE; ++i) {
    if (cpu < 0 || i == cpu) CPU_SET(i, &set);
  }
  sched_setaffinity(0, sizeof set, &set);
}

pid_t spawn(const std::vector<std::string>& arguments, const std::string& root, int cpu) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  if (cpu >= 0) pinSelf(cpu);
  ::setenv("VANTREL_ROOT", root.c_str(), 1);
  ::setenv("VANTREL_LOG", "error", 1);
  std::vector<char*> list;
  list.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) list.push_back(const_cast<char*>(argument.c_str()));
  list.push_back(nullptr);
  ::execv(list[0], list.data());
  std::perror(list[0]);
  ::_exit(127);
}

void stop(pid_t pid) {
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

std::uint64_t residentBytes(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
  std::uint64_t total = 0;
  std::uint64_t resident = 0;
  file >> total >> resident;
  return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

DaemonProcess::DaemonProcess(const std::string& root, int cpu, std::vector<std::string> options) {
  options.insert(options.begin(), VKD_PROGRAM);
  pid_ = spawn(options, root, cpu);
}

DaemonProcess::~DaemonProcess() { stop(pid_); }

}  // namespace bench
