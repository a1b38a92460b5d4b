#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <set>
#include <thread>

#include "platform/linux/BundleLayout.h"
#include "platform/linux/DeviceRoot.h"
#include "platform/linux/Files.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/PathWalk.h"
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
  auto errorOf = [&](const std::string& path, int flags) { return open(path, flags) ? 0 : errno; };
  EXPECT_EQ(errorOf("/file/below", O_RDONLY), ENOTDIR);
  EXPECT_EQ(errorOf("/file/", O_RDONLY), ENOTDIR);
  EXPECT_EQ(errorOf("/loop1", O_RDONLY), ELOOP);
  EXPECT_EQ(errorOf("/dangling", O_RDONLY | O_NOFOLLOW), ELOOP);
  EXPECT_EQ(errorOf("/dangling", O_PATH | O_NOFOLLOW), 0);
  EXPECT_EQ(errorOf("/dangling", O_WRONLY | O_CREAT | O_EXCL), EEXIST);
  EXPECT_EQ(errorOf("/" + std::string(300, 'n'), O_RDONLY), ENAMETOOLONG);
  EXPECT_EQ(errorOf("/none/file", O_WRONLY | O_CREAT), ENOENT);
  EXPECT_EQ(errorOf("/dangling", O_WRONLY | O_CREAT), 0);
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

TEST(DeviceRoot, OpensOnlyRegularFilesAndNeverWaits) {
  ScratchRoot scratch;
  scratch.write("/file", "text");
  scratch.link("/file", "/link");
  ASSERT_EQ(::mkfifo(scratch.host("/fifo").c_str(), 0644), 0);
  EXPECT_TRUE(scratch.root()->openRegularFile("/link"));
  for (const char* path : {"/fifo", "/"}) {
    EXPECT_FALSE(scratch.root()->openRegularFile(path));
    EXPECT_EQ(errno, EINVAL) << path;
  }
  EXPECT_FALSE(scratch.root()->open("relative", O_RDONLY));
  EXPECT_FALSE(scratch.root()->open(std::string("/file\0/x", 8), O_RDONLY));
  EXPECT_FALSE(DeviceRoot(scratch.outside("missing").string()).open("/", O_RDONLY));
  EXPECT_EQ(errno, ENOENT);
}

TEST(DeviceRoot, NamesWhatExistsByOnePath) {
  ScratchRoot scratch;
  scratch.write("/Applications/A.app/x (deleted)", "");
  scratch.link("/Applications", "/apps");
  const DeviceRoot& root = *scratch.root();
  EXPECT_EQ(root.canonicalPath("/apps/../apps/./A.app/"), "/Applications/A.app");
  EXPECT_EQ(root.canonicalPath("/apps/A.app/x (deleted)"), "/Applications/A.app/x (deleted)");
  EXPECT_EQ(root.canonicalPath("/.."), "/");
  EXPECT_EQ(root.canonicalPath("/apps/missing"), std::nullopt);
  EXPECT_EQ(root.devicePath(root.hostPath() + "/a"), "/a");
  EXPECT_EQ(root.devicePath(root.hostPath()), "/");
  EXPECT_EQ(root.devicePath(root.hostPath() + "2/a"), std::nullopt);
  EXPECT_EQ(DeviceRoot("/").devicePath("/usr/bin"), "/usr/bin");
  // 1024 bytes are the most that a record or message is to carry.
  std::string path = "/" + std::string(250, 'a') + "/" + std::string(250, 'b') + "/" + std::string(250, 'c') + "/" +
                     std::string(250, 'd') + "/" + std::string(19, 'e');
  scratch.write(path, "");
  EXPECT_EQ(path.size(), 1024U);
  EXPECT_EQ(root.canonicalPath(path), path);
  scratch.write(path + "f", "");
  EXPECT_EQ(root.canonicalPath(path + "f"), std::nullopt);
}

TEST(DeviceRoot, MakesDirectoriesInsideWithTheWantedMode) {
  ScratchRoot scratch;
  scratch.link(scratch.outside("made").string(), "/out");
  mode_t umaskBefore = ::umask(077);
  EXPECT_TRUE(scratch.root()->makeDirectories("/a/b", 01777));
  ::umask(umaskBefore);
  for (const char* path : {"/a", "/a/b"}) {
    struct stat state {};
    ASSERT_TRUE(scratch.root()->stat(path, &state));
    EXPECT_EQ(state.st_mode & 07777, 01777U) << path;
  }
  EXPECT_FALSE(scratch.root()->makeDirectories("/out/x", 0755));
  EXPECT_FALSE(std::filesystem::exists(scratch.outside("made")));
}

TEST(BundleLayout, FindsThePartsOfDeepAndFlatBundles) {
  ScratchRoot scratch;
  std::string manifest = plist("<dict><key>KvBundleExecutable</key><string>run</string></dict>");
  scratch.write("/D.app/Contents/Info.plist", manifest);
  scratch.write("/D.app/Contents/Executables/run", "", 0755);
  scratch.write("/D.app/run", "", 0755);
  scratch.write("/F.app/Info.plist", manifest);
  scratch.write("/F.app/run", "", 0755);
  scratch.link("/F.app", "/link.app");
  const DeviceRoot& root = *scratch.root();

  auto deep = BundleLayout::at(root, "/D.app/");
  ASSERT_TRUE(deep);
  EXPECT_EQ(deep->path(), "/D.app");
  EXPECT_EQ(deep->supportPath(), "/D.app/Contents");
  EXPECT_EQ(deep->executablePath(root, deep->readManifest(root)), "/D.app/Contents/Executables/run");
  auto flat = BundleLayout::at(root, "/link.app");
  ASSERT_TRUE(flat);
  EXPECT_EQ(flat->manifestPath(), "/F.app/Info.plist");
  EXPECT_EQ(flat->executablePath(root, flat->readManifest(root)), "/F.app/run");
  for (const char* name : {"../D.app/run", "missing", ""}) {
    EXPECT_EQ(flat->executablePath(root, PlistBuilder().set(kBundleExecutableKey, name).take()), std::nullopt) << name;
  }

  auto pathOf = [&](const char* executable) {
    auto bundle = BundleLayout::ofExecutable(root, executable);
    return bundle ? bundle->path() : "none";
  };
  EXPECT_EQ(pathOf("/D.app/Contents/Executables/run"), "/D.app");
  EXPECT_EQ(pathOf("/D.app/run"), "none");
  EXPECT_EQ(pathOf("/F.app/run"), "/F.app");
  EXPECT_EQ(pathOf("/D.app"), "none");
  EXPECT_EQ(BundleLayout::at(root, "/F.app/run"), std::nullopt);
}

TEST(FileSystem, ReplacesAFileAtOnceAndLeavesNothingBeside) {
  ScratchRoot scratch;
  LinuxFileSystem files(scratch.root());
  scratch.write("/db/file", "old", 0600);
  DomainError error;
  ASSERT_TRUE(files.writeFileAtomically({"/db/file"}, "new", &error)) << *error.description;
  EXPECT_EQ(scratch.read("/db/file"), "new");
  EXPECT_EQ(std::filesystem::status(scratch.host("/db/file")).permissions(), std::filesystem::perms(0600));
  // A link is replaced, what it led to stays.
  std::ofstream(scratch.outside("target")) << "kept";
  scratch.link(scratch.outside("target").string(), "/db/link");
  ASSERT_TRUE(files.writeFileAtomically({"/db/link"}, "new", &error));
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(scratch.host("/db/link"))));
  EXPECT_EQ(ScratchRoot::contents(scratch.outside("target")), "kept");
  // What an earlier writer left when it died goes with the next one.
  scratch.write("/db/.file.new", "half");
  ASSERT_TRUE(files.writeFileAtomically({"/db/file"}, "newer", &error));
  scratch.write("/db/folder/x", "");
  EXPECT_FALSE(files.writeFileAtomically({"/db/folder"}, "new", &error));
  EXPECT_FALSE(files.writeFileAtomically({"/db/file/below"}, "new", &error));
  EXPECT_TRUE(error.isInDomain(FileErrorDomain));
  EXPECT_EQ(error.code, ENOTDIR);
  EXPECT_EQ(error.description, "/db/file/below: Not a directory");
  EXPECT_TRUE(files.writeFileAtomically({"/made/for/file"}, "new", &error));
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(scratch.host("/db")))
    names.insert(entry.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{"file", "link", "folder"}));
}

TEST(FileSystem, ConcurrentWritersLeaveOneWholeContent) {
  ScratchRoot scratch;
  LinuxFileSystem files(scratch.root());
  std::atomic<int> failures{0};
  auto writeMany = [&](char c) {
    for (int i = 0; i < 100; ++i)
      failures += files.writeFileAtomically({"/file"}, std::string(5000, c), nullptr) ? 0 : 1;
  };
  std::thread a(writeMany, 'a');
  std::thread b(writeMany, 'b');
  a.join();
  b.join();
  EXPECT_EQ(failures, 0);
  std::string text = scratch.read("/file");
  EXPECT_TRUE(text == std::string(5000, 'a') || text == std::string(5000, 'b'));
}

TEST(FileSystem, ReadsKeepsAndStamps) {
  ScratchRoot scratch;
  LinuxFileSystem files(scratch.root());
  scratch.write("/a", "12345");
  scratch.write("/b", "other");
  DomainError error;
  EXPECT_EQ(files.readFile({"/a"}, &error, 5), "12345");
  EXPECT_EQ(files.readFile({"/a"}, &error, 4), std::nullopt);
  EXPECT_EQ(error.code, EFBIG);
  EXPECT_EQ(files.readFile({"/none"}, &error, 5), std::nullopt);
  EXPECT_EQ(error.code, FileErrorNoSuchFile);
  EXPECT_FALSE(files.keepFile({"/a"}, {"/b"}, &error));
  EXPECT_EQ(error.code, EEXIST);
  EXPECT_EQ(scratch.read("/b"), "other");
  auto stamp = files.stampOfFile({"/a"});
  EXPECT_TRUE(files.keepFile({"/a"}, {"/c"}, &error));
  EXPECT_EQ(files.stampOfFile({"/a"})->inode, stamp->inode);
  EXPECT_EQ(files.stampOfFile({"/c"})->inode, stamp->inode);
  std::filesystem::create_directory(scratch.host("/folder"));
  EXPECT_TRUE(files.keepFile({"/folder"}, {"/d"}, &error)) << "moved: it can have only one name";
  EXPECT_FALSE(files.exists({"/folder"}));
  scratch.write("/c", "1234567");
  EXPECT_NE(files.stampOfFile({"/c"}), stamp);
  EXPECT_EQ(files.stampOfFile({"/"}), std::nullopt);
}

}  // namespace
}  // namespace platform
