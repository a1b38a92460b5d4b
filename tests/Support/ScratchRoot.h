// A device root of its own for each test, with a folder beside it in which nothing may be opened or written.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "platform/linux/files/DeviceRoot.h"

namespace support {

class ScratchRoot {
 public:
  ScratchRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vornik-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    scratch_ = std::filesystem::canonical(pattern);
    std::filesystem::permissions(scratch_, std::filesystem::perms(0755));
    std::filesystem::create_directories(scratch_ / "root");
    std::filesystem::create_directories(scratch_ / "outside");
    root_ = std::make_shared<const platform::DeviceRoot>((scratch_ / "root").string());
  }
  ~ScratchRoot() { std::filesystem::remove_all(scratch_); }
  ScratchRoot(const ScratchRoot&) = delete;
  ScratchRoot& operator=(const ScratchRoot&) = delete;

  const std::shared_ptr<const platform::DeviceRoot>& root() const { return root_; }
  // Host paths of a device path, and of something outside the root.
  std::filesystem::path host(const std::string& devicePath) const { return scratch_ / "root" / devicePath.substr(1); }
  std::filesystem::path outside(const std::string& name) const { return scratch_ / "outside" / name; }

  // Writes a file of the device, with its folders.
  std::filesystem::path write(const std::string& devicePath, const std::string& text, mode_t mode = 0644) const {
    std::filesystem::path path = host(devicePath);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    ::chmod(path.c_str(), mode);
    return path;
  }
  std::string read(const std::string& devicePath) const { return contents(host(devicePath)); }
  static std::string contents(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void link(const std::string& target, const std::string& devicePath) const {
    std::filesystem::create_directories(host(devicePath).parent_path());
    std::filesystem::create_symlink(target, host(devicePath));
  }

 private:
  std::filesystem::path scratch_;
  std::shared_ptr<const platform::DeviceRoot> root_;
};

// A property list with this content.
inline std::string plist(const std::string& content) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + content + "</plist>\n";
}

}  // namespace support
