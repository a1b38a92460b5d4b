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
// The operations are intercepted in the program that includes this, once.
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
  Trouble(std::string operation, int error)
      : operation_(std::move(operation)), error_(error), before_(exchange(this)) {}
  ~Trouble() { exchange(before_); }
  Trouble(const Trouble&) = delete;
  Trouble& operator=(const Trouble&) = delete;
  static bool hits(std::string_view operation) {
    std::lock_guard lock(mutex_);
    if (active_ == nullptr || active_->operation_ != operation) return false;
    errno = active_->error_;
    return true;
  }

 private:
  static const Trouble* exchange(const Trouble* next) {
    std::lock_guard lock(mutex_);
    return std::exchange(active_, next);
  }
  static inline std::mutex mutex_;
  static inline const Trouble* active_ = nullptr;
  const std::string operation_;
  const int error_;
  const Trouble* const before_;
};

// Scratch folders lie in memory where they can: nothing here is to survive anything.
inline const bool kInMemory = fs::exists("/dev/shm") && ::setenv("TMPDIR", "/dev/shm", 1) == 0;

class Recording {
 public:
  Recording(const support::ScratchRoot& scratch, const std::string& folder) : name_(folder.substr(1)) {
    const fs::path above = scratch.host("/");
    newNode(statusOf(AT_FDCWD, above.c_str()), true);
    if (fs::exists(above / name_)) adopt(above / name_, 0);
    std::lock_guard lock(mutex);
    active = this;
  }
  ~Recording() { stop(); }
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;
  void stop() {
    std::lock_guard lock(mutex);
    if (active == this) active = nullptr;
  }
  // How many operations there were so far.
  std::size_t now() const {
    std::lock_guard lock(mutex);
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

  static inline std::mutex mutex;
  static inline Recording* active = nullptr;

  void made(int directory, const char* name, bool isDirectory) {
    add(Kind::Name, directory, name, "", newNode(statusOf(directory, name), isDirectory));
  }
  void madeUnnamed(int file) { newNode(statusOf(file), false); }
  void linked(int directory, const char* name) {
    add(Kind::Name, directory, name, "", known(statusOf(directory, name)));
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
  using Operations = std::vector<const Operation*>;
  struct Node {
    bool directory;
    Entries entries;      // at the start
    std::string content;  // at the start
  };

  static struct stat statusOf(int directory, const char* name = "") {
    struct stat state {};
    ::fstatat(directory, name, &state, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH);
    return state;
  }
  int newNode(const struct stat& state, bool directory) {
    int number = static_cast<int>(nodes_.size());
    nodes_.push_back({directory, {}, {}});
    numbers_[{state.st_dev, state.st_ino}] = number;
    return number;
  }
  // What was there before.
  void adopt(const fs::path& path, std::size_t parent) {
    const bool directory = fs::is_directory(path);
    const int number = newNode(statusOf(AT_FDCWD, path.c_str()), directory);
    const auto index = static_cast<std::size_t>(number);
    nodes_[parent].entries[path.filename()] = number;
    if (!directory) nodes_[index].content = support::ScratchRoot::contents(path);
    if (!directory) return;
    for (const auto& entry : fs::directory_iterator(path)) adopt(entry.path(), index);
  }
  int known(const struct stat& state) const {
    auto found = numbers_.find({state.st_dev, state.st_ino});
    return found == numbers_.end() ? -1 : found->second;
  }
  void add(Kind kind, int fd, std::string name = "", std::string to = "", int target = -1, off_t offset = 0) {
    int number = known(statusOf(fd));
    if (number < 0 || (number == 0 && kind != Kind::Flush && name != name_)) return;
    operations_.push_back({kind, number, std::move(name), std::move(to), target, static_cast<std::size_t>(offset)});
  }

  // The forms that a cut may leave of a node that started as `form`: those since its last flush, and what `torn` adds
  // to them before each operation.
  template <class Form, class Torn>
  std::set<Form> formsAt(int node, std::size_t cut, Form form, Torn torn) const {
    Operations pending;
    for (std::size_t i = 0; i < cut; ++i) {
      if (operations_[i].node != node) continue;
      pending.push_back(&operations_[i]);
      if (operations_[i].kind != Kind::Flush) continue;
      for (const Operation* operation : std::exchange(pending, {})) form = after(std::move(form), *operation);
    }
    std::set<Form> result{form};
    for (; !pending.empty(); pending.erase(pending.begin())) {
      torn(result, form, pending);
      form = after(std::move(form), *pending.front());
      result.insert(form);
    }
    return result;
  }
  static Entries after(Entries entries, const Operation& it) {
    if (it.kind == Kind::Name) entries[it.name] = it.target;
    if (it.kind == Kind::Rename) entries[it.to] = entries[it.name];
    if (it.kind == Kind::Rename || it.kind == Kind::Unname) entries.erase(it.name);
    return entries;
  }
  static std::string after(std::string content, const Operation& it) {
    if (it.kind == Kind::Resize) content.resize(it.offset);
    if (it.kind != Kind::Write) return content;
    content.resize(std::max(content.size(), it.offset + it.name.size()));
    return content.replace(it.offset, it.name.size(), it.name);
  }
  // The next write in part, and all that follow without it.
  static void tear(std::set<std::string>& result, const std::string& content, const Operations& pending) {
    const Operation& next = *pending.front();
    auto addWith = [&](const std::string& written) {
      Operation part = next;
      part.name = written;
      result.insert(after(content, part));
    };
    const std::size_t size = next.kind == Kind::Write ? next.name.size() : 0;
    if (size != 0) {
      for (std::size_t length : {std::size_t{1}, size / 2, size - 1}) addWith(next.name.substr(0, length));
      for (std::size_t lost : {size, size / 2}) addWith(std::string(lost, '\0') + next.name.substr(lost));
    }
    std::string others = content;
    for (std::size_t i = 1; i < pending.size(); ++i) others = after(std::move(others), *pending[i]);
    result.insert(std::move(others));
  }

  // Everything that can be left: each node in each of its forms.
  std::vector<Tree> treesAt(std::size_t cut) const {
    std::vector<Tree> result;
    std::map<int, std::set<Entries>> directories;
    std::map<int, std::set<std::string>> files;
    for (int i = 0; i < static_cast<int>(nodes_.size()); ++i) {
      const Node& node = nodes_[static_cast<std::size_t>(i)];
      if (node.directory) {
        directories[i] = formsAt(i, cut, node.entries, [](auto&&...) {});
      } else {
        files[i] = formsAt(i, cut, node.content, tear);
      }
    }
    using Place = std::pair<std::string, int>;
    auto grow = [&](auto&& self, Tree tree, std::vector<Place> open) -> void {
      if (open.empty()) return result.push_back(std::move(tree));
      auto [path, at] = std::move(open.back());
      open.pop_back();
      for (const Entries& entries : directories[at]) {
        Tree larger = tree;
        if (at != 0) larger[path + "/"];
        std::vector<Place> more = open;
        for (const auto& [name, child] : entries) more.emplace_back(path + "/" + name, child);
        self(self, std::move(larger), std::move(more));
      }
      for (const std::string& content : files[at]) {
        tree[path] = content;
        self(self, tree, open);
      }
    };
    grow(grow, {}, {{"", 0}});
    return result;
  }

  const std::string name_;
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
  std::lock_guard lock(Recording::mutex);
  auto result = operate();
  int error = errno;
  if (result >= 0 && Recording::active != nullptr) tell(*Recording::active, result);
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
INTERCEPT(int, fsync, (int fd), (fd), flushed(fd))
INTERCEPT(int, fdatasync, (int fd), (fd), flushed(fd))

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
