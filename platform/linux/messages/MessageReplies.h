// The replies that one end of a connection waits for, and the error events that stand for those that never come.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/MessageConnection.h"
#include "platform/WorkQueue.h"
#include "platform/values/Message.h"

namespace platform {

// The error events of a connection, with the texts that clients are shown.
Message connectionInvalid();
Message connectionInterrupted();
Message terminationImminent();

// Each handler is called exactly once, on its queue. Safe from any thread.
class MessageReplies {
 public:
  using ReplyHandler = ServiceConnection::ReplyHandler;

  // The id to send the request with.
  std::uint64_t expect(std::shared_ptr<WorkQueue> queue, ReplyHandler handler);
  // False when no reply with that id is expected.
  bool arrived(std::uint64_t id, Message reply);
  void fail(std::uint64_t id, const Message& event) { arrived(id, event); }
  void failAll(const Message& event);

 private:
  struct Expected {
    std::shared_ptr<WorkQueue> queue;
    ReplyHandler handler;
  };
  static void call(Expected expected, Message reply);

  std::mutex mutex_;
  // Guarded by mutex_.
  std::unordered_map<std::uint64_t, Expected> expected_;
  std::uint64_t lastId_ = 0;
};

}  // namespace platform
