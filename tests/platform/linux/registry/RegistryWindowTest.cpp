// What comes into being when a place was looked at and is not watched yet.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <map>

#include "tests/Support/RegistryDevice.h"

namespace {

using namespace support;

const std::string kFlat = "/System/Library/PlugIns/Flat.appex";
const std::string kDeep = "/System/Library/PlugIns/Deep.appex";
const std::string kApp = "/Applications/A.app";
const std::string kBehindLink = "/opt/folder/X.appex";

// By host path: what somebody else does, once, in the moment before that directory is watched.
std::map<std::string, std::function<void()>> meanwhile;

class RegistryWindowTest : public testing::Test {
 protected:
  // The registry's thread finds everything as it is when it starts.
  RegistryWindowTest() {
    device_.writeBundle("/System/Library/PlugIns/First.appex", plugInManifest("first"));
    device_.writeApp(kApp);
    for (const std::string& folder : {kFlat, kDeep, std::string("/opt")}) {
      std::filesystem::create_directories(device_.host(folder));
    }
    const auto write = [this](const std::string& path) { device_.writeBundle(path, plugInManifest("late")); };
    meanwhile[device_.host(kFlat)] = [=] { write(kFlat); };
    meanwhile[device_.host(kDeep)] = [this] { std::filesystem::create_directory(device_.host(kDeep + "/Contents")); };
    meanwhile[device_.host(kDeep + "/Contents")] = [=] { write(kDeep + "/Contents"); };
    meanwhile[device_.host("/opt")] = [=] { write(kBehindLink); };
    registry_ = device_.open();
  }
  bool comes(const std::string& path) {
    return eventually([&] { return registry_->plugInRecord(FileURL{path}) != nullptr; });
  }

  RegistryDevice device_;
  std::shared_ptr<platform::RegistryWorkspace> registry_;
};

TEST_F(RegistryWindowTest, IsNotMissed) {
  ASSERT_TRUE(comes(kFlat));
  ASSERT_TRUE(comes(kDeep));
  // The second look at everything is over; what is missed from now on stays away.
  device_.link("/opt/folder", kApp + "/PlugIns");
  EXPECT_TRUE(comes(kBehindLink));
}

}  // namespace

extern "C" int inotify_add_watch(int fd, const char* name, std::uint32_t mask) noexcept {
  std::error_code unreadable;
  auto found = meanwhile.find(std::filesystem::read_symlink(name, unreadable));
  if (found != meanwhile.end()) {
    const std::function<void()> change = std::move(found->second);
    meanwhile.erase(found);
    change();
  }
  return static_cast<int>(::syscall(SYS_inotify_add_watch, fd, name, mask));
}
