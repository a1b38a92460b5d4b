#include "platform/linux/messages/PeerIdentity.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <climits>
#include <optional>
#include <utility>

namespace platform {
namespace {

// Since Linux 6.5; not in the headers of older C libraries.
constexpr int kSoPeerPidFd = 77;

constexpr uid_t kNobody = 65534;

UniqueFd openProcess(pid_t pid) {
  if (pid <= 0) return UniqueFd();
  return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

UniqueFd peerProcess(int socket, pid_t pid) {
  int fd = -1;
  socklen_t length = sizeof fd;
  if (::getsockopt(socket, SOL_SOCKET, kSoPeerPidFd, &fd, &length) == 0) return UniqueFd(fd);
  // Only a kernel that does not know the option is asked again by number: any other error says that the process is
  // gone.
  return errno == ENOPROTOOPT ? openProcess(pid) : UniqueFd();
}

std::string executableLink(pid_t pid) { return "/proc/" + std::to_string(pid) + "/exe"; }

// The file at a path, or behind a descriptor when the path is empty.
std::optional<PeerIdentity::Executable> executableAt(const char* path, int descriptor = AT_FDCWD) {
  struct statx found {};
  constexpr int kFlags = AT_STATX_DONT_SYNC | AT_EMPTY_PATH;
  if (::statx(descriptor, path, kFlags, STATX_INO | STATX_BTIME, &found) != 0) return std::nullopt;
  PeerIdentity::Executable result;
  result.device = (std::uint64_t{found.stx_dev_major} << 32) | found.stx_dev_minor;
  result.inode = found.stx_ino;
  if ((found.stx_mask & STATX_BTIME) != 0) {
    result.birthNanoseconds = found.stx_btime.tv_sec * 1'000'000'000 + found.stx_btime.tv_nsec;
  }
  return result;
}

}  // namespace

std::shared_ptr<PeerIdentity> PeerIdentity::ofSocket(int socket) {
  ucred credentials{0, kNobody, kNobody};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) credentials.pid = 0;
  UniqueFd process = credentials.pid > 0 ? peerProcess(socket, credentials.pid) : UniqueFd();
  return std::make_shared<PeerIdentity>(credentials.pid, credentials.uid, credentials.gid, std::move(process));
}

std::shared_ptr<PeerIdentity> PeerIdentity::ofProcess(pid_t pid) {
  struct stat owner {};
  std::string folder = "/proc/" + std::to_string(pid);
  if (::stat(folder.c_str(), &owner) != 0) owner.st_uid = owner.st_gid = kNobody;
  return std::make_shared<PeerIdentity>(pid, owner.st_uid, owner.st_gid, openProcess(pid));
}

PeerIdentity::PeerIdentity(pid_t pid, uid_t uid, gid_t gid, UniqueFd process)
    : pid_(pid), uid_(uid), gid_(gid), process_(std::move(process)) {
  if (!process_) return;
  std::string link = executableLink(pid_);
  std::optional<Executable> file = executableAt(link.c_str());
  std::array<char, PATH_MAX> target{};
  ssize_t length = ::readlink(link.c_str(), target.data(), target.size() - 1);
  // While the process lives its id is its own, so what was read above is about it.
  if (!file || hasExited()) return;
  executable_ = *file;
  // The kernel's text may name a file that was replaced, or carry a " (deleted)" of its own.
  if (length > 0 && executableAt(target.data()) == file)
    executablePath_.assign(target.data(), static_cast<std::size_t>(length));
}

PeerIdentity::Executable PeerIdentity::executableBehind(int descriptor) {
  return executableAt("", descriptor).value_or(Executable());
}

bool PeerIdentity::hasExited() const {
  pollfd waiting{process_.get(), POLLIN, 0};
  return ::poll(&waiting, 1, 0) != 0;
}

bool PeerIdentity::stillSame() const {
  if (!process_ || executable_.inode == 0 || foreign()) return false;
  std::optional<Executable> now = executableAt(executableLink(pid_).c_str());
  return now == executable_ && !hasExited();
}

}  // namespace platform
