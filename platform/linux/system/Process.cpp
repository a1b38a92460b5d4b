#include "platform/Process.h"

#include <malloc.h>
#include <unistd.h>

namespace platform {

namespace {

// A reply with a thousand forms takes less than a megabyte of buffers besides what it refers to. Getting them from the
// system anew costs more than filling them.
constexpr int kLargestKeptBlock = 4 << 20;
constexpr int kFreedMemoryKept = 16 << 20;
constexpr int kGrowth = 1 << 20;

}  // namespace

// One heap for all threads, which seldom allocate at the same time: another one grows by a call to the system per page.
// Each of the others turns off the allocator's own adjustment, so all are set. One that is refused changes only the
// speed.
void keepFreedMemory() {
  ::mallopt(M_ARENA_MAX, 1);
  ::mallopt(M_MMAP_THRESHOLD, kLargestKeptBlock);
  ::mallopt(M_TRIM_THRESHOLD, kFreedMemoryKept);
  ::mallopt(M_TOP_PAD, kGrowth);
}

void runMainLoop() {
  for (;;) ::pause();
}

}  // namespace platform
