// What a running process holds, as the kernel tells it.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>

namespace platform {

struct Footprint {
  std::size_t descriptors = 0, threads = 0;
  std::size_t kilobytes = 0;  // resident

  static Footprint of(pid_t pid) {
    std::string folder = "/proc/" + std::to_string(pid);
    Footprint result{entries(folder + "/fd"), entries(folder + "/task"), 0};
    std::ifstream status(folder + "/status");
    for (std::string word; status >> word;) {
      if (word == "VmRSS:") status >> result.kilobytes;
    }
    return result;
  }
  // Memory apart: what was allocated once may stay with the allocator.
  bool within(const Footprint& other) const {
    return descriptors != 0 && descriptors <= other.descriptors && threads <= other.threads;
  }
  friend std::ostream& operator<<(std::ostream& out, const Footprint& it) {
    return out << it.descriptors << " descriptors, " << it.threads << " threads, " << it.kilobytes << " KiB";
  }

 private:
  static std::size_t entries(const std::string& folder) {
    std::error_code gone;
    std::size_t count = 0;
    for (std::filesystem::directory_iterator at(folder, gone), end; !gone && at != end; at.increment(gone)) ++count;
    return count;
  }
};

}  // namespace platform
