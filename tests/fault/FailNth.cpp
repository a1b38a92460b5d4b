// Preloaded into the daemon: makes the n-th file or socket operation of the process fail, once.
//
//   FAILNTH_N=17 FAILNTH_ERRNO=5 FAILNTH_MARK=/tmp/mark LD_PRELOAD=libFailNth.so vkd
//
// When the operation fails, its name is written to the mark file; a run without a mark had fewer operations.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<long> left{-1};

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

long readNumber(const char* name) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::atol(text) : 0;
}

void mark(const char* name) {
  const char* path = std::getenv("FAILNTH_MARK");
  if (path == nullptr) return;
  auto openNext = next<int (*)(const char*, int, ...)>("open");
  int fd = openNext(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  auto writeNext = next<ssize_t (*)(int, const void*, size_t)>("write");
  if (fd >= 0 && writeNext(fd, name, std::strlen(name)) >= 0) ::close(fd);
}

struct Start {
  Start() { left = readNumber("FAILNTH_N"); }
} start;

// Whether this operation is the one; sets errno.
bool fails(const char* name) {
  if (left.load(std::memory_order_relaxed) <= 0 || left.fetch_sub(1) != 1) return false;
  mark(name);
  errno = static_cast<int>(readNumber("FAILNTH_ERRNO"));
  return true;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the C library's
#define FORWARD(Result, name, parameters, arguments)                \
  extern "C" Result name parameters {                               \
    static auto real = next<Result(*) parameters>(#name);           \
    return fails(#name) ? static_cast<Result>(-1) : real arguments; \
  }

FORWARD(ssize_t, read, (int fd, void* bytes, size_t size), (fd, bytes, size))
FORWARD(ssize_t, pread, (int fd, void* bytes, size_t size, off_t offset), (fd, bytes, size, offset))
FORWARD(ssize_t, write, (int fd, const void* bytes, size_t size), (fd, bytes, size))
FORWARD(ssize_t, writev, (int fd, const iovec* pieces, int count), (fd, pieces, count))
FORWARD(int, fsync, (int fd), (fd))
FORWARD(int, fdatasync, (int fd), (fd))
FORWARD(int, ftruncate, (int fd, off_t size), (fd, size))
FORWARD(int, fchmod, (int fd, mode_t mode), (fd, mode))
FORWARD(int, renameat, (int from, const char* a, int to, const char* b), (from, a, to, b))
FORWARD(int, renameat2, (int from, const char* a, int to, const char* b, unsigned flags), (from, a, to, b, flags))
FORWARD(int, linkat, (int from, const char* a, int to, const char* b, int flags), (from, a, to, b, flags))
FORWARD(int, mkdirat, (int fd, const char* path, mode_t mode), (fd, path, mode))
FORWARD(int, unlinkat, (int fd, const char* path, int flags), (fd, path, flags))
FORWARD(int, fstat, (int fd, struct stat* result), (fd, result))
FORWARD(int, fstatat, (int fd, const char* path, struct stat* result, int flags), (fd, path, result, flags))
FORWARD(ssize_t, pwrite, (int fd, const void* bytes, size_t size, off_t offset), (fd, bytes, size, offset))
FORWARD(int, stat, (const char* path, struct stat* result), (path, result))
FORWARD(int, statx, (int fd, const char* path, int flags, unsigned mask, struct statx* result),
        (fd, path, flags, mask, result))
FORWARD(ssize_t, readlink, (const char* path, char* bytes, size_t size), (path, bytes, size))
FORWARD(ssize_t, recv, (int fd, void* bytes, size_t size, int flags), (fd, bytes, size, flags))
FORWARD(int, flock, (int fd, int operation), (fd, operation))
FORWARD(ssize_t, readlinkat, (int fd, const char* path, char* bytes, size_t size), (fd, path, bytes, size))
FORWARD(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FORWARD(int, bind, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
FORWARD(int, listen, (int fd, int backlog), (fd, backlog))
FORWARD(int, accept4, (int fd, sockaddr* address, socklen_t* size, int flags), (fd, address, size, flags))
FORWARD(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* size), (fd, level, name, value, size))
FORWARD(int, setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
        (fd, level, name, value, size))
FORWARD(ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags))
FORWARD(ssize_t, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags))
FORWARD(int, epoll_create1, (int flags), (flags))
FORWARD(int, epoll_ctl, (int fd, int operation, int target, epoll_event* event), (fd, operation, target, event))
FORWARD(int, inotify_init1, (int flags), (flags))
FORWARD(int, inotify_add_watch, (int fd, const char* path, uint32_t mask), (fd, path, mask))

#define FORWARD_OPEN(name, parameters, arguments)                 \
  extern "C" int name parameters {                                \
    static auto real = next<int (*)(FORWARD_OPEN_##name)>(#name); \
    mode_t mode = 0;                                              \
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {                   \
      va_list list;                                               \
      va_start(list, flags);                                      \
      mode = static_cast<mode_t>(va_arg(list, int));              \
      va_end(list);                                               \
    }                                                             \
    return fails(#name) ? -1 : real arguments;                    \
  }
#define FORWARD_OPEN_open const char*, int, ...
#define FORWARD_OPEN_openat int, const char*, int, ...
FORWARD_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
FORWARD_OPEN(openat, (int fd, const char* path, int flags, ...), (fd, path, flags, mode))

extern "C" long syscall(long number, ...) {
  static auto real = next<long (*)(long, ...)>("syscall");
  va_list list;
  va_start(list, number);
  long a[6];
  for (long& argument : a) argument = va_arg(list, long);
  va_end(list);
  // Only what stands for a file operation; a futex that fails would be no fault of the machine.
  if ((number == SYS_openat2 || number == SYS_pidfd_open) && fails(number == SYS_openat2 ? "openat2" : "pidfd_open")) {
    return -1;
  }
  return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
// NOLINTEND(bugprone-reserved-identifier)
