// Who stands at the other end of a socket, as the kernel says: the audit token of this machine.
//
// Taken once, when the connection is accepted, and checked again whenever a right depends on it. It never follows a
// process id to whoever uses that id later, a process to the program it executes later, or a socket to the child that
// inherited it: in each of these cases, and whenever something cannot be found out, stillSame() is false, and the peer
// must be treated as nobody.
//
//   auto* peer = dynamic_cast<const PeerIdentity*>(token.get());
//   if (peer == nullptr || !peer->stillSame()) ...  // nobody
//
// What it cannot tell: a process that executes another program after connect() and before the accept is taken for
// that program. Immutable but for the foreign mark; safe from any thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/MessageConnection.h"
#include "platform/linux/files/UniqueFd.h"

namespace platform {

class PeerIdentity final : public AuditToken {
 public:
  // Which file a process executes. The birth time tells a file from a later one that was given the same inode number.
  struct Executable {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t birthNanoseconds = 0;
    friend bool operator==(const Executable&, const Executable&) = default;
  };

  // The peer of a connected Unix socket. Never null: a peer of which nothing can be learnt is nobody from the start.
  static std::shared_ptr<PeerIdentity> ofSocket(int socket);
  // A running process (a child of ours: its id must be known not to have been used again).
  static std::shared_ptr<PeerIdentity> ofProcess(pid_t pid);

  std::int32_t pid() const override { return pid_; }
  uid_t uid() const { return uid_; }
  gid_t gid() const { return gid_; }
  // Host path of the executable when the connection was accepted; empty when unknown or when that path no longer
  // leads to the file that the process executes.
  const std::string& executablePath() const { return executablePath_; }
  // Device and inode 0 when unknown. Whoever opens executablePath() compares this to know that it is the same file.
  const Executable& executable() const { return executable_; }
  // Which file an open descriptor stands for; inode 0 when unknown.
  static Executable executableBehind(int descriptor);

  // Whether the process that connected still runs, still executes the same file, and sent everything that came. Ask
  // after the right was looked up, so that the answer covers the look-up.
  bool stillSame() const;
  // From now on nobody: somebody else wrote to the socket.
  void markForeign() { foreign_.store(true, std::memory_order_relaxed); }
  bool foreign() const { return foreign_.load(std::memory_order_relaxed); }

  // Not for callers.
  PeerIdentity(pid_t pid, uid_t uid, gid_t gid, UniqueFd process);

 private:
  bool hasExited() const;

  const pid_t pid_;
  const uid_t uid_;
  const gid_t gid_;
  const UniqueFd process_;  // invalid: nobody
  Executable executable_;
  std::string executablePath_;
  std::atomic<bool> foreign_{false};
};

}  // namespace platform
