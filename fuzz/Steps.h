// What a decoder may cost for its input, so that no input costs more than a stated number of steps a byte: bytes taken
// from the allocator, as its hook tells, and nanoseconds of the thread's own clock. Both bounds are some times what the
// dearest honest input takes: they are for what grows faster than its input.
#pragma once

#include <sanitizer/allocator_interface.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace platform::testing {

struct Steps {
  std::uint64_t allocated = 0;
  std::uint64_t nanoseconds = 0;
};

// What a call costs whatever its input is: the buffers of an error's text, the clock.
inline constexpr Steps kStepsOfCall{4096, 500'000};
// A machine that is lent to others is slow for a while: it is tried again after ever longer pauses.
inline constexpr int kTries = 8;
inline constexpr std::chrono::milliseconds kPause{20};

inline std::uint64_t& allocatedHere() {
  static thread_local std::uint64_t bytes = 0;
  return bytes;
}

inline std::uint64_t threadNanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

// Calls decode() and answers what it does; ends the target when that took too much for an input of so many bytes.
template <class Decode>
auto withinSteps(std::size_t inputBytes, Steps aByte, Decode decode) {
  static const int hooked = __sanitizer_install_malloc_and_free_hooks(
      [](const volatile void*, std::size_t bytes) { allocatedHere() += bytes; }, [](const volatile void*) {});
  if (hooked == 0) std::abort();
  const std::uint64_t mostAllocated = kStepsOfCall.allocated + aByte.allocated * inputBytes;
  const std::uint64_t mostTime = kStepsOfCall.nanoseconds + aByte.nanoseconds * inputBytes;
  Steps taken;
  for (int attempt = 1;; ++attempt) {
    const std::uint64_t allocatedBefore = allocatedHere(), timeBefore = threadNanoseconds();
    auto result = decode();
    taken = {allocatedHere() - allocatedBefore, threadNanoseconds() - timeBefore};
    if (taken.allocated <= mostAllocated && taken.nanoseconds <= mostTime) return result;
    if (attempt == kTries || taken.allocated > mostAllocated) break;
    std::this_thread::sleep_for(attempt * kPause);
  }
  std::fprintf(stderr, "too dear for %zu bytes: %llu bytes allocated of %llu, %llu ns of %llu\n", inputBytes,
               static_cast<unsigned long long>(taken.allocated), static_cast<unsigned long long>(mostAllocated),
               static_cast<unsigned long long>(taken.nanoseconds), static_cast<unsigned long long>(mostTime));
  std::abort();
}

}  // namespace platform::testing
