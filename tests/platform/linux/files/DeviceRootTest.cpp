#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <set>
#include <thread>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/linux/files/Files.h"
#include "platform/linux/files/LinuxFileSystem.h"
#include "platform/linux/files/PathWalk.h"
#include "platform/linux/identity/BundleLayout.h"
#include "tests/Support/ScratchRoot.h"

namespace platform {
namespace {

using support::plist;
using support::ScratchRoot;

// Both ways to open a path inside the root must agree: the kernel's, and the walk for kernels that have none.
class OpenInRoot : public ::testing::TestWithParam<bool> {
 protected:
  UniqueFd open(const std::string& path, int flags = O_RDONLY) {
    errno = 0;
    return GetParam() ? openInRoot(scratch_.root()->fd(), path, flags, 0644, true)
                      : scratch_.root()->open(path, flags, 0644);
  }
  std::string text(const std::string& path) {
    UniqueFd file = open(path);
    return file ? readAll(file.get(), 100).value_or("?") : "error " + std::to_string(errno);
  }
  ScratchRoot scratch_;
};
INSTANTIATE_TEST_SUITE_P(Kernel, OpenInRoot, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Walk, OpenInRoot, ::testing::Values(true));

TEST_P(OpenInRoot, ResolvesEveryLinkInside) {
  scratch_.write("/etc/name", "inside");
  std::ofstream(scratch_.outside("name")) << "outside";
  scratch_.link("/etc", "/absolute");
  scratch_.link("../../../../etc", "/a/b/climbing");
  scratch_.link("/../etc/./name", "/dotted");
  scratch_.link(scratch_.outside("name").string(), "/escaping");
  scratch_.link("../outside/name", "/sideways");
  for (const char* path : {"/etc/name", "//etc///name", "/../../etc/name", "/absolute/name", "/a/b/climbing/name",
                           "/dotted", "/a/../absolute/../etc/name"}) {
    EXPECT_EQ(text(path), "inside") << path;
  }
  for (const char* path : {"/escaping", "/sideways", "/../outside/name"}) {
    EXPECT_EQ(text(path), "error " + std::to_string(ENOENT)) << path;
  }
}

TEST_P(OpenInRoot, FailsAsOpeningDoes) {
  scratch_.write("/file", "x");
  scratch_.link("/loop2", "/loop1");
  scratch_.link("/loop1", "/loop2");
  scratch_.link("/made", "/dangling");
  const struct {
    std::string path;
    int flags, error;
  } cases[] = {
      {"/file/below", O_RDONLY, ENOTDIR},
      {"/file/", O_RDONLY, ENOTDIR},
      {"/loop1", O_RDONLY, ELOOP},
      {"/dangling", O_RDONLY | O_NOFOLLOW, ELOOP},
      {"/dangling", O_PATH | O_NOFOLLOW, 0},
      {"/dangling", O_WRONLY | O_CREAT | O_EXCL, EEXIST},
      {"/" + std::string(300, 'n'), O_RDONLY, ENAMETOOLONG},
      {"/none/file", O_WRONLY | O_CREAT, ENOENT},
      {"/dangling", O_WRONLY | O_CREAT, 0},
  };
  for (const auto& [path, flags, error] : cases) EXPECT_EQ(open(path, flags) ? 0 : errno, error) << path << flags;
  EXPECT_TRUE(std::filesystem::exists(scratch_.host("/made")));
}

// Somebody swaps a directory for a link that leads out, as fast as he can.
TEST_P(OpenInRoot, NeverOpensTheCanaryHoweverFastLinksAreSwapped) {
  scratch_.write("/d/canary", "inside");
  std::ofstream(scratch_.outside("canary")) << "outside";
  scratch_.link(scratch_.outside("").string(), "/out");
  std::atomic<bool> done{false};
  std::thread swapper([&] {
    while (!done) {
      ::renameat2(AT_FDCWD, scratch_.host("/d").c_str(), AT_FDCWD, scratch_.host("/out").c_str(), RENAME_EXCHANGE);
    }
  });
  std::set<std::string> seen;
  // Longer when the swapper was stopped between two swaps.
  for (int i = 0; i < 3000 || (!seen.contains("inside") && i < 10'000'000); ++i) seen.insert(text("/d/canary"));
  done = true;
  swapper.join();
  EXPECT_FALSE(seen.contains("outside"));
  EXPECT_TRUE(seen.contains("inside"));
}

class OnDevice : public ::testing::Test {
 protected:
  ScratchRoot scratch_;
  const DeviceRoot& root_ = *scratch_.root();
};

TEST_F(OnDevice, WhatExistsIsNamedByOnePath) {
  scratch_.write("/Applications/A.app/x (deleted)", "");
  scratch_.link("/Applications", "/apps");
  // 1024 bytes are the most that a record or message is to carry.
  std::string longest;
  for (std::size_t length : {250, 250, 250, 250, 19}) longest += "/" + std::string(length, 'a');
  EXPECT_EQ(longest.size(), 1024U);
  for (const std::string& path : {longest, longest + "f"}) scratch_.write(path, "");
  const std::pair<std::string, std::optional<std::string>> canonical[] = {
      {"/apps/../apps/./A.app/", "/Applications/A.app"},
      {"/apps/A.app/x (deleted)", "/Applications/A.app/x (deleted)"},
      {"/..", "/"},
      {"/apps/missing", std::nullopt},
      {"apps", std::nullopt},
      {std::string("/apps\0/x", 8), std::nullopt},
      {longest, longest},
      {longest + "f", std::nullopt},
  };
  for (const auto& [path, expected] : canonical) EXPECT_EQ(root_.canonicalPath(path), expected) << path;
  EXPECT_EQ(root_.devicePath(root_.hostPath() + "/a"), "/a");
  EXPECT_EQ(root_.devicePath(root_.hostPath()), "/");
  EXPECT_EQ(root_.devicePath(root_.hostPath() + "2/a"), std::nullopt);
  EXPECT_EQ(DeviceRoot("/").devicePath("/usr/bin"), "/usr/bin");
}

TEST_F(OnDevice, BundlesAreDeepOrFlat) {
  std::string manifest = plist("<dict><key>KvBundleExecutable</key><string>run</string></dict>");
  for (const char* path : {"/D.app/Contents/Info.plist", "/F.app/Info.plist"}) scratch_.write(path, manifest);
  for (const char* path : {"/D.app/Contents/Executables/run", "/D.app/run", "/F.app/run"}) {
    scratch_.write(path, "", 0755);
  }
  scratch_.link("/F.app", "/link.app");
  const std::array<const char*, 4> bundles[] = {
      {"/D.app/", "/D.app", "/D.app/Contents/Info.plist", "/D.app/Contents/Executables/run"},
      {"/link.app", "/F.app", "/F.app/Info.plist", "/F.app/run"},
  };
  for (const auto& [given, path, manifestPath, executable] : bundles) {
    auto bundle = BundleLayout::at(root_, given);
    ASSERT_TRUE(bundle) << given;
    EXPECT_EQ(bundle->path(), path);
    EXPECT_EQ(bundle->manifestPath(), manifestPath);
    EXPECT_EQ(bundle->executablePath(root_, bundle->readManifest(root_)), executable);
    EXPECT_EQ(BundleLayout::ofExecutable(root_, executable)->path(), path);
    for (const char* name : {"../run", "missing", ""}) {
      EXPECT_FALSE(bundle->executablePath(root_, PlistBuilder().set(kBundleExecutableKey, name).take())) << name;
    }
  }
  for (const char* none : {"/D.app/run", "/D.app"}) EXPECT_FALSE(BundleLayout::ofExecutable(root_, none)) << none;
  EXPECT_FALSE(BundleLayout::at(root_, "/F.app/run"));
}

class FileSystemOnDevice : public OnDevice {
 protected:
  LinuxFileSystem files_{scratch_.root()};
  DomainError error_;
};

TEST_F(FileSystemOnDevice, ReplacesAFileAtOnceAndLeavesNothingBeside) {
  auto write = [&](const char* path) { return files_.writeFileAtomically({path}, "new", &error_); };
  scratch_.write("/db/file", "old", 0600);
  scratch_.write("/db/.file.new", "left by a writer that died");
  ASSERT_TRUE(write("/db/file")) << *error_.description;
  EXPECT_EQ(scratch_.read("/db/file"), "new");
  EXPECT_EQ(std::filesystem::status(scratch_.host("/db/file")).permissions(), std::filesystem::perms(0600));
  // A link is replaced, what it led to stays.
  std::ofstream(scratch_.outside("target")) << "kept";
  scratch_.link(scratch_.outside("target").string(), "/db/link");
  ASSERT_TRUE(write("/db/link"));
  EXPECT_FALSE(std::filesystem::is_symlink(scratch_.host("/db/link")));
  EXPECT_EQ(ScratchRoot::contents(scratch_.outside("target")), "kept");
  scratch_.write("/db/folder/x", "");
  EXPECT_FALSE(write("/db/folder"));
  EXPECT_FALSE(write("/db/file/below"));
  EXPECT_EQ(error_.code, ENOTDIR);
  EXPECT_EQ(error_.description, "/db/file/below: Not a directory");
  EXPECT_TRUE(write("/made/for/file"));
  std::set<std::string> names;
  for (const auto& item : std::filesystem::directory_iterator(scratch_.host("/db")))
    names.insert(item.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{"file", "link", "folder"}));
}

TEST_F(FileSystemOnDevice, ReadsKeepsAndStamps) {
  scratch_.write("/a", "12345");
  scratch_.write("/b", "other");
  EXPECT_EQ(files_.readFile({"/a"}, &error_, 5), "12345");
  EXPECT_FALSE(files_.readFile({"/a"}, &error_, 4));
  EXPECT_EQ(error_.code, EFBIG);
  EXPECT_FALSE(files_.readFile({"/none"}, &error_, 5));
  EXPECT_EQ(error_.code, FileErrorNoSuchFile);
  EXPECT_FALSE(files_.keepFile({"/a"}, {"/b"}, &error_));
  EXPECT_EQ(error_.code, EEXIST);
  EXPECT_EQ(scratch_.read("/b"), "other");
  auto stamp = files_.stampOfFile({"/a"});
  EXPECT_TRUE(files_.keepFile({"/a"}, {"/c"}, &error_));
  for (const char* path : {"/a", "/c"}) EXPECT_EQ(files_.stampOfFile({path})->inode, stamp->inode);
  std::filesystem::create_directory(scratch_.host("/folder"));
  EXPECT_TRUE(files_.keepFile({"/folder"}, {"/d"}, &error_)) << "moved: it can have only one name";
  EXPECT_FALSE(files_.exists({"/folder"}));
  scratch_.write("/c", "1234567");
  EXPECT_NE(files_.stampOfFile({"/c"}), stamp);
  EXPECT_EQ(files_.stampOfFile({"/"}), std::nullopt);
}

}  // namespace
}  // namespace platform
