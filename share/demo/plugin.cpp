// The executable of every plug-in on the sample device: tells what it was started with, and stays until it is asked to
// end.

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

void onTermination(int /*signal*/) { _exit(0); }

}  // namespace

int main(int /*count*/, char** words) {
  std::signal(SIGTERM, onTermination);
  std::printf("plug-in %s pid %d\n", words[0], getpid());
  constexpr std::array names{"HOME",       "KvFIXED_USER_HOME",   "TMPDIR",
                             "VKTEST_SDK", "ZYP_SANDBOX_PROFILE", "SHARE_QUALITY"};
  for (const char* name : names) {
    const char* value = std::getenv(name);
    if (value != nullptr) std::printf("  %s=%s\n", name, value);
  }
  std::fflush(stdout);
  for (;;) pause();
}
