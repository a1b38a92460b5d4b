// A file layer that forgets what was not flushed.
//
//   fault::Recording recording(scratch, "/var");     // from now on what this process does to files is written down
//   …the real code saves…
//   for (const fault::State& state : recording.states()) { fault::restore(scratch, "/var", state); …load… }
//
// What a power cut may leave: of every directory the names up to some operation since its last flush, in their order
// and independent of other directories; of every file its flushed content and any part of what was written since: the
// first so many writes, all but one, the last one cut short, its length without its content, its end without its
// beginning. A flush of a file says nothing of its name, one of a directory nothing of the directory's own name.
//
// The operations are intercepted in the program that includes this, once: nothing is really flushed.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/Support/ScratchRoot.h"

namespace fault {

namespace fs = std::filesystem;

// Device path → content; a folder's path ends with a slash.
using Tree = std::map<std::string, std::string>;

// What is on the disk, and the cuts that leave it there: after how many operations at the earliest and at the latest.
struct State {
  Tree tree;
  std::size_t first = 0, last = 0;

  friend std::ostream& operator<<(std::ostream& out, const State& state) {
    for (const auto& [path, content] : state.tree)
      out << path << ' ' << content.size() << ' ' << content.substr(0, 400) << '\n';
    return out;
  }
};

// What may be stored after a cut: a save that was begun or was not, and none older than what was reported as saved.
struct Oracle {
  static constexpr std::size_t kNever = SIZE_MAX;
  struct Save {
    int number;
    std::size_t from, reported = kNever;  // counted in operations
  };
  int before;
  std::vector<Save> saves;

  std::set<int> allowed(const State& state) const {
    std::set<int> numbers{before};
    for (const Save& save : saves) {
      if (save.reported <= state.last) numbers.clear();
      if (save.from < state.first || save.reported <= state.last) numbers.insert(save.number);
    }
    return numbers;
  }
};

// While it lives this operation fails, and no other: "pwrite", "fsync"…, "create" for making a file, "tmpfile" for an
// unnamed one.
class Trouble {
 public:
  Trouble(std::string operation, int error) {
    std::lock_guard lock(mutex());
    before_ = std::exchange(current(), {std::move(operation), error});
  }
  ~Trouble() {
    std::lock_guard lock(mutex());
    current() = before_;
  }
  Trouble(const Trouble&) = delete;
  Trouble& operator=(const Trouble&) = delete;
  static bool hits(std::string_view operation) {
    std::lock_guard lock(mutex());
    if (current().second == 0 || current().first != operation) return false;
    errno = current().second;
    return true;
  }

 private:
  static std::mutex& mutex() {
    static std::mutex one;
    return one;
  }
  static std::pair<std::string, int>& current() {
    static std::pair<std::string, int> one;
    return one;
  }
  std::pair<std::string, int> before_;
};

// Scratch folders lie in memory where they can: nothing here is to survive anything.
inline const bool kInMemory = fs::exists("/dev/shm") && ::setenv("TMPDIR", "/dev/shm", 1) == 0;

class Recording {
 public:
  Recording(const support::ScratchRoot& scratch, const std::string& folder)
      : folder_(folder), name_(folder.substr(1)), above_(scratch.host("/")) {
    node(above_, true);
    if (fs::exists(above_ / name_)) nodes_[0].entries[name_] = adopt(above_ / name_);
    std::lock_guard lock(mutex());
    active() = this;
  }
  ~Recording() { stop(); }
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;
  void stop() {
    std::lock_guard lock(mutex());
    if (active() == this) active() = nullptr;
  }
  // How many operations there were so far.
  std::size_t now() const {
    std::lock_guard lock(mutex());
    return operations_.size();
  }

  // Every state that differs from the others. Ends the recording.
  std::vector<State> states() {
    stop();
    std::vector<State> all;
    std::map<Tree, std::size_t> known;
    for (std::size_t cut = 0; cut <= operations_.size(); ++cut) {
      for (Tree& tree : treesAt(cut)) {
        auto [at, fresh] = known.emplace(tree, all.size());
        if (fresh) all.push_back({std::move(tree), cut, cut});
        all[at->second].last = cut;
      }
    }
    return all;
  }

  // --- What the interceptors tell, under the lock --------------------------------------------------------------------

  static std::mutex& mutex() {
    static std::mutex one;
    return one;
  }
  static Recording*& active() {
    static Recording* one = nullptr;
    return one;
  }
  void made(int directory, const char* name, bool isDirectory) {
    struct stat state {};
    if (::fstatat(directory, name, &state, AT_SYMLINK_NOFOLLOW) != 0) return;
    add(Kind::Name, directory, name, "", newNode(state, isDirectory));
  }
  void madeUnnamed(int file) {
    struct stat state {};
    if (::fstat(file, &state) == 0) newNode(state, false);
  }
  void linked(int directory, const char* name) {
    struct stat state {};
    if (::fstatat(directory, name, &state, AT_SYMLINK_NOFOLLOW) == 0)
      add(Kind::Name, directory, name, "", known(state));
  }
  void unlinked(int directory, const char* name) { add(Kind::Unname, directory, name); }
  void renamed(int directory, const char* name, const char* to) { add(Kind::Rename, directory, name, to); }
  void flushed(int fd) { add(Kind::Flush, fd); }
  void resized(int fd, off_t size) { add(Kind::Resize, fd, "", "", -1, size); }
  void wrote(int fd, off_t offset, const void* bytes, ssize_t size) {
    add(Kind::Write, fd, std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size)), "", -1, offset);
  }

 private:
  enum class Kind { Name, Unname, Rename, Write, Resize, Flush };
  using Entries = std::map<std::string, int>;
  struct Operation {
    Kind kind;
    int node;              // the directory whose names change, or the file
    std::string name, to;  // Write: `name` is what was written
    int target;            // Name: what is named
    std::size_t offset;
  };
  struct Node {
    bool directory;
    Entries entries;      // at the start
    std::string content;  // at the start
  };

  int node(const fs::path& path, bool directory) {
    struct stat state {};
    EXPECT_EQ(::lstat(path.c_str(), &state), 0) << path;
    return newNode(state, directory);
  }
  int newNode(const struct stat& state, bool directory) {
    int number = static_cast<int>(nodes_.size());
    nodes_.push_back({directory, {}, {}});
    numbers_[{state.st_dev, state.st_ino}] = number;
    return number;
  }
  int adopt(const fs::path& path) {
    bool directory = fs::is_directory(path);
    int number = node(path, directory);
    if (!directory) {
      nodes_[static_cast<std::size_t>(number)].content = support::ScratchRoot::contents(path);
      return number;
    }
    for (const auto& entry : fs::directory_iterator(path)) {
      int child = adopt(entry.path());
      nodes_[static_cast<std::size_t>(number)].entries[entry.path().filename()] = child;
    }
    return number;
  }
  int known(const struct stat& state) const {
    auto found = numbers_.find({state.st_dev, state.st_ino});
    return found == numbers_.end() ? -1 : found->second;
  }
  void add(Kind kind, int fd, std::string name = "", std::string to = "", int target = -1, off_t offset = 0) {
    struct stat state {};
    int number = ::fstat(fd, &state) == 0 ? known(state) : -1;
    if (number < 0 || (number == 0 && kind != Kind::Flush && name != name_)) return;
    operations_.push_back({kind, number, std::move(name), std::move(to), target, static_cast<std::size_t>(offset)});
  }

  // Operations on a node before the cut; *durable is how many of them a flush covers.
  std::vector<const Operation*> of(int node, std::size_t cut, std::size_t* durable) const {
    std::vector<const Operation*> result;
    *durable = 0;
    for (std::size_t i = 0; i < cut; ++i) {
      if (operations_[i].node != node) continue;
      if (operations_[i].kind == Kind::Flush) {
        *durable = result.size();
      } else {
        result.push_back(&operations_[i]);
      }
    }
    return result;
  }
  std::vector<Entries> directoriesAt(int node, std::size_t cut) const {
    std::size_t durable = 0;
    std::vector<const Operation*> operations = of(node, cut, &durable);
    Entries entries = nodes_[static_cast<std::size_t>(node)].entries;
    std::vector<Entries> result;
    for (std::size_t i = 0; i <= operations.size(); ++i) {
      if (i >= durable) result.push_back(entries);
      if (i == operations.size()) break;
      const Operation& it = *operations[i];
      if (it.kind == Kind::Name) entries[it.name] = it.target;
      if (it.kind == Kind::Rename) entries[it.to] = entries[it.name];
      if (it.kind != Kind::Name) entries.erase(it.name);
    }
    return result;
  }
  static std::string after(std::string content, const Operation& operation) {
    if (operation.kind == Kind::Resize) {
      content.resize(operation.offset);
    } else {
      content.resize(std::max(content.size(), operation.offset + operation.name.size()));
      content.replace(operation.offset, operation.name.size(), operation.name);
    }
    return content;
  }
  std::set<std::string> contentsAt(int node, std::size_t cut) const {
    std::size_t durable = 0;
    std::vector<const Operation*> operations = of(node, cut, &durable);
    std::string content = nodes_[static_cast<std::size_t>(node)].content;
    std::set<std::string> result;
    for (std::size_t i = 0; i <= operations.size(); ++i) {
      if (i >= durable) result.insert(content);
      if (i == operations.size()) break;
      if (i >= durable) {
        for (const Operation& part : partsOf(*operations[i])) result.insert(after(content, part));
        std::string others = content;
        for (std::size_t j = i + 1; j < operations.size(); ++j) others = after(std::move(others), *operations[j]);
        result.insert(std::move(others));
      }
      content = after(std::move(content), *operations[i]);
    }
    return result;
  }
  static std::vector<Operation> partsOf(const Operation& whole) {
    std::vector<Operation> parts;
    if (whole.kind != Kind::Write) return parts;
    std::size_t size = whole.name.size();
    for (std::size_t length : {std::size_t{1}, size / 2, size - 1}) {
      parts.push_back(whole);
      parts.back().name.resize(length);
    }
    for (std::size_t lost : {size, size / 2}) {
      parts.push_back(whole);
      parts.back().name.replace(0, lost, lost, '\0');
    }
    return parts;
  }

  // Everything that can be left: each node in each of its forms.
  std::vector<Tree> treesAt(std::size_t cut) const {
    std::vector<Tree> result;
    std::map<int, std::vector<Entries>> directories;
    std::map<int, std::set<std::string>> files;
    for (int i = 0; i < static_cast<int>(nodes_.size()); ++i) {
      if (nodes_[static_cast<std::size_t>(i)].directory) {
        directories[i] = directoriesAt(i, cut);
      } else {
        files[i] = contentsAt(i, cut);
      }
    }
    using Place = std::pair<std::string, int>;
    auto grow = [&](auto&& self, Tree tree, std::vector<Place> open) -> void {
      if (open.empty()) return result.push_back(std::move(tree));
      auto [path, at] = std::move(open.back());
      open.pop_back();
      if (auto directory = directories.find(at); directory != directories.end()) {
        for (const Entries& entries : directory->second) {
          Tree larger = tree;
          if (at != 0) larger[path + "/"];
          std::vector<Place> more = open;
          for (const auto& [name, child] : entries) more.emplace_back(path + "/" + name, child);
          self(self, std::move(larger), std::move(more));
        }
      } else {
        for (const std::string& content : files.at(at)) {
          tree[path] = content;
          self(self, tree, open);
        }
      }
    };
    grow(grow, {}, {{"", 0}});
    return result;
  }

  const std::string folder_, name_;
  const fs::path above_;
  std::vector<Node> nodes_;  // the first is the folder above
  std::map<std::pair<dev_t, ino_t>, int> numbers_;
  std::vector<Operation> operations_;
};

// Makes the folder what the state says.
inline void restore(const support::ScratchRoot& scratch, const std::string& folder, const State& state) {
  fs::remove_all(scratch.host(folder));
  for (const auto& [path, content] : state.tree) {
    if (path.ends_with('/')) {
      fs::create_directory(scratch.host(path.substr(0, path.size() - 1)));
    } else {
      std::ofstream(scratch.host(path), std::ios::binary) << content;
    }
  }
}

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// Runs an operation and tells of it when it succeeded.
template <class Operate, class Tell>
auto recorded(Operate operate, Tell tell) {
  std::lock_guard lock(Recording::mutex());
  auto result = operate();
  int error = errno;
  if (result >= 0 && Recording::active() != nullptr) tell(*Recording::active(), result);
  errno = error;
  return result;
}

}  // namespace fault

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the C library's
#define INTERCEPT(Result, name, parameters, arguments, tell)                                                      \
  extern "C" Result name parameters {                                                                             \
    static auto real = fault::next<Result(*) parameters>(#name);                                                  \
    if (fault::Trouble::hits(#name)) return static_cast<Result>(-1);                                              \
    return fault::recorded([&]() -> Result { return real arguments; },                                            \
                           [&](fault::Recording& recording, [[maybe_unused]] Result result) { recording.tell; }); \
  }
#define INTERCEPT_FLUSH(name)                                                                                    \
  extern "C" int name(int fd) {                                                                                  \
    if (fault::Trouble::hits(#name)) return -1;                                                                  \
    return fault::recorded([] { return 0; }, [fd](fault::Recording& recording, int) { recording.flushed(fd); }); \
  }

INTERCEPT(ssize_t, write, (int fd, const void* bytes, size_t size), (fd, bytes, size),
          wrote(fd, ::lseek(fd, 0, SEEK_CUR) - result, bytes, result))
INTERCEPT(ssize_t, pwrite, (int fd, const void* bytes, size_t size, off_t offset), (fd, bytes, size, offset),
          wrote(fd, offset, bytes, result))
INTERCEPT(int, ftruncate, (int fd, off_t size), (fd, size), resized(fd, size))
INTERCEPT(int, mkdirat, (int fd, const char* name, mode_t mode), (fd, name, mode), made(fd, name, true))
INTERCEPT(int, linkat, (int from, const char* a, int to, const char* b, int flags), (from, a, to, b, flags),
          linked(to, b))
INTERCEPT(int, unlinkat, (int fd, const char* name, int flags), (fd, name, flags), unlinked(fd, name))
INTERCEPT(int, renameat, (int from, const char* a, int to, const char* b), (from, a, to, b), renamed(to, a, b))
INTERCEPT(int, renameat2, (int from, const char* a, int to, const char* b, unsigned flags), (from, a, to, b, flags),
          renamed(to, a, b))
extern "C" ssize_t read(int fd, void* bytes, size_t size) {
  static auto real = fault::next<ssize_t (*)(int, void*, size_t)>("read");
  return fault::Trouble::hits("read") ? -1 : real(fd, bytes, size);
}
INTERCEPT_FLUSH(fsync)
INTERCEPT_FLUSH(fdatasync)

extern "C" int openat(int fd, const char* name, int flags, ...) {
  static auto real = fault::next<int (*)(int, const char*, int, ...)>("openat");
  bool unnamed = (flags & O_TMPFILE) == O_TMPFILE;
  mode_t mode = 0;
  if (unnamed || (flags & O_CREAT) != 0) {
    va_list list;
    va_start(list, flags);
    mode = static_cast<mode_t>(va_arg(list, int));
    va_end(list);
  }
  if (fault::Trouble::hits(unnamed ? "tmpfile" : (flags & O_CREAT) != 0 ? "create" : "openat")) return -1;
  bool fresh = (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL);
  return fault::recorded([&] { return real(fd, name, flags, mode); },
                         [&](fault::Recording& recording, int result) {
                           if (unnamed) recording.madeUnnamed(result);
                           if (fresh) recording.made(fd, name, false);
                         });
}
// NOLINTEND(bugprone-reserved-identifier)
