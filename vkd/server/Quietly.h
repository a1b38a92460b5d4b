// Does what may be left undone when memory runs short: a log line, a notification. What changes the daemon's state
// comes before it or after it, and never depends on it.
#pragma once

namespace vkd {

template <class Work>
void quietly(Work&& work) noexcept {
  try {
    work();
  } catch (...) {
    // There is nobody to tell, and nothing to tell it with.
  }
}

}  // namespace vkd
