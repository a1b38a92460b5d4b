#include "platform/linux/messages/MessageReplies.h"

#include <utility>

namespace platform {

Message connectionInvalid() { return Message::error(ConnectionError::Invalid, "Connection invalid"); }
Message connectionInterrupted() { return Message::error(ConnectionError::Interrupted, "Connection interrupted"); }
Message terminationImminent() { return Message::error(ConnectionError::TerminationImminent, "Termination imminent"); }

std::uint64_t MessageReplies::expect(std::shared_ptr<WorkQueue> queue, ReplyHandler handler) {
  std::lock_guard lock(mutex_);
  expected_.emplace(++lastId_, Expected{std::move(queue), std::move(handler)});
  return lastId_;
}

bool MessageReplies::arrived(std::uint64_t id, Message reply) {
  Expected expected;
  {
    std::lock_guard lock(mutex_);
    auto at = expected_.find(id);
    if (at == expected_.end()) return false;
    expected = std::move(at->second);
    expected_.erase(at);
  }
  call(std::move(expected), std::move(reply));
  return true;
}

void MessageReplies::failAll(const Message& event) {
  std::unordered_map<std::uint64_t, Expected> expected;
  {
    std::lock_guard lock(mutex_);
    expected.swap(expected_);
  }
  for (auto& [id, one] : expected) call(std::move(one), event);
}

void MessageReplies::call(Expected expected, Message reply) {
  expected.queue->async(
      [handler = std::move(expected.handler), reply = std::move(reply)]() mutable { handler(std::move(reply)); });
}

}  // namespace platform
