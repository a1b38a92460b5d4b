// What the clients of a service may take of the daemon together: connections, and bytes of replies that they have not
// read yet. Counted per user as well as in total, so that one user's programs leave the others half of everything.
//
// Owned by the listener and, through their tickets, by the connections. Safe from any thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace platform {

// A connection costs two descriptors and about 2 KiB: this is far more than a device has processes.
inline constexpr std::size_t kMaxConnections = 4096;
// Descriptors that connections leave to everything else: files of requests, the registry's notifications.
inline constexpr std::size_t kDescriptorsKeptFree = 24;
inline constexpr std::size_t kDescriptorsPerConnection = 2;
// Replies share most of their bytes with the daemon's own forms; what counts here is their length.
inline constexpr std::uint64_t kMaxKeptBytesPerUser = std::uint64_t{256} << 20;
inline constexpr std::uint64_t kMaxKeptBytes = 2 * kMaxKeptBytesPerUser;

class MessageBudget : public std::enable_shared_from_this<MessageBudget> {
 public:
  class Ticket;

  // As many connections as the process has descriptors for, at most kMaxConnections; half of them for one user.
  MessageBudget();
  explicit MessageBudget(std::size_t maxConnections) : maxConnections_(maxConnections) {}

  // The right to one connection, null and *refusal (what there is too much of) when there are too many.
  std::unique_ptr<Ticket> admit(uid_t user, const char** refusal);
  std::size_t connections() const;

 private:
  struct Account {
    std::size_t connections = 0;  // guarded by mutex_
    std::atomic<std::uint64_t> keptBytes{0};
  };
  void leave(uid_t user);

  const std::size_t maxConnections_;
  std::atomic<std::uint64_t> keptBytes_{0};
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::size_t connections_ = 0;
  std::map<uid_t, Account> accounts_;
};

// One connection's share. For one thread at a time.
class MessageBudget::Ticket {
 public:
  Ticket(std::shared_ptr<MessageBudget> budget, uid_t user, Account* account);
  Ticket(const Ticket&) = delete;
  Ticket& operator=(const Ticket&) = delete;
  ~Ticket();

  // False, and nothing counted, when the user or all users together keep too much.
  bool keep(std::uint64_t bytes);
  void release(std::uint64_t bytes);

 private:
  const std::shared_ptr<MessageBudget> budget_;
  const uid_t user_;
  Account* const account_;
  std::uint64_t keptBytes_ = 0;
};

}  // namespace platform
