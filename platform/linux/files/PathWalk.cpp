#include "platform/linux/files/PathWalk.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <string>
#include <utility>
#include <vector>

namespace platform {
namespace {

UniqueFd failed(int error) {
  errno = error;
  return {};
}

class Walk {
 public:
  Walk(int root, std::string_view path, int flags, mode_t mode, bool links)
      : root_(root), rest_(path), flags_(flags | O_CLOEXEC), mode_(mode), links_(links) {}

  UniqueFd run() {
    while (true) {
      bool last = false;
      std::string name = nextName(&last);
      if (name.empty() || name == "." || name == "..") {
        if (name == ".." && !left_.empty()) left_.pop_back();
        if (last) return openDirectory();
        continue;
      }
      if (name.size() > NAME_MAX) return failed(ENAMETOOLONG);
      UniqueFd step(::openat(current(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
      struct stat state {};
      if (!step) {
        if (errno == ENOENT && last && (flags_ & O_CREAT) != 0) return openLast(name);
        return {};
      }
      if (::fstat(step.get(), &state) != 0) return {};
      if (S_ISLNK(state.st_mode)) {
        if (last && !followsLast()) return openLast(name);
        if (!follow(step.get())) return {};
        continue;
      }
      if (last) return openLast(name);
      if (!S_ISDIR(state.st_mode)) return failed(ENOTDIR);
      left_.push_back(std::move(step));
    }
  }

 private:
  int current() const { return left_.empty() ? root_ : left_.back().get(); }
  bool followsLast() const { return (flags_ & O_NOFOLLOW) == 0 && (flags_ & (O_CREAT | O_EXCL)) != (O_CREAT | O_EXCL); }

  // Takes the next name off the rest; a trailing slash leaves an empty last name.
  std::string nextName(bool* last) {
    std::size_t start = rest_.find_first_not_of('/');
    if (start == std::string::npos) start = rest_.size();
    std::size_t end = rest_.find('/', start);
    std::string name = rest_.substr(start, end == std::string::npos ? end : end - start);
    *last = end == std::string::npos;
    rest_ = *last ? std::string() : rest_.substr(end);
    return name;
  }

  bool follow(int link) {
    if (!links_ || ++followed_ > kMaxLinksFollowed) return static_cast<bool>(failed(ELOOP));
    char target[PATH_MAX];
    ssize_t length = ::readlinkat(link, "", target, sizeof target);
    if (length < 0) return false;
    if (length == 0) return static_cast<bool>(failed(ENOENT));
    std::string_view text(target, static_cast<std::size_t>(length));
    if (text.size() + rest_.size() >= PATH_MAX) return static_cast<bool>(failed(ENAMETOOLONG));
    if (text.front() == '/') left_.clear();
    rest_ = std::string(text) + rest_;
    return true;
  }

  UniqueFd openDirectory() {
    if ((flags_ & O_CREAT) != 0) return failed(EISDIR);
    return UniqueFd(::openat(current(), ".", flags_, mode_));
  }

  // O_NOFOLLOW: a link that was put here since the look is an error, not a way out.
  UniqueFd openLast(const std::string& name) {
    UniqueFd opened(::openat(current(), name.c_str(), flags_ | O_NOFOLLOW, mode_));
    if (!opened || (flags_ & O_PATH) == 0 || !followsLast()) return opened;
    struct stat state {};
    if (::fstat(opened.get(), &state) != 0) return {};
    return S_ISLNK(state.st_mode) ? failed(ELOOP) : std::move(opened);
  }

  const int root_;
  std::string rest_;
  const int flags_;
  const mode_t mode_;
  const bool links_;
  int followed_ = 0;
  std::vector<UniqueFd> left_;  // the directories entered, innermost last
};

}  // namespace

UniqueFd openInRoot(int root, std::string_view path, int flags, mode_t mode, bool links) {
  if (path.empty()) return failed(ENOENT);
  if (path.size() >= PATH_MAX) return failed(ENAMETOOLONG);
  return Walk(root, path, flags, mode, links).run();
}

}  // namespace platform
