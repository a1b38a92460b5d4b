#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "platform/linux/files/UniqueFd.h"
#include "platform/linux/messages/MessageOutbox.h"

namespace platform {
namespace {

using Result = MessageOutbox::Result;

struct MessageOutboxTest : testing::Test {
  MessageOutboxTest() {
    std::array<int, 2> ends{};
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
    ours = UniqueFd(ends[0]);
    theirs = UniqueFd(ends[1]);
    const int small = 4096;
    ::setsockopt(ours.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const char* refusal = nullptr;
    ticket = std::make_shared<MessageBudget>(4)->admit(1, &refusal);
  }
  // As much as is there, at most `most`.
  std::string read(std::size_t most) const {
    std::string bytes(most, '\0');
    const ssize_t got = ::recv(theirs.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }
  // Whether nothing counts on the ticket any more.
  bool nothingCounts() const {
    const bool all = ticket->keep(kMaxKeptBytesPerUser);
    if (all) ticket->release(kMaxKeptBytesPerUser);
    return all;
  }

  UniqueFd ours, theirs;
  std::unique_ptr<MessageBudget::Ticket> ticket;
};

Rope ropeOf(std::initializer_list<std::string> pieces) {
  Rope rope;
  for (const std::string& piece : pieces) rope.append(SharedSlice::take(piece));
  return rope;
}

TEST_F(MessageOutboxTest, EveryByteArrivesInOrderHoweverTheSocketTakesIt) {
  MessageOutbox outbox(ticket.get());
  std::string expected;
  Result result = Result::Empty;
  for (std::uint64_t id = 0; id < 40; ++id) {
    Rope payload;
    std::string text;
    // More pieces than one call takes, some of no bytes at all.
    for (std::size_t piece = 0; piece < 20 * id; ++piece) {
      const std::string part(piece % 7 * id, static_cast<char>('a' + piece % 26));
      payload.append(SharedSlice::take(part));
      text += part;
    }
    const auto header = FrameHeader{static_cast<std::uint32_t>(text.size()), FrameType::Reply, id}.encoded();
    expected.append(header.data(), header.size()).append(text);
    result = outbox.send(ours.get(), FrameType::Reply, id, std::move(payload));
  }
  EXPECT_EQ(result, Result::Kept);
  EXPECT_GT(outbox.keptBytes(), 0U);
  EXPECT_FALSE(nothingCounts());
  std::string arrived;
  std::minstd_rand random(1);
  while (result == Result::Kept) {
    arrived += read(1 + random() % 9000);
    result = outbox.flush(ours.get());
  }
  for (std::string more = read(9000); !more.empty(); more = read(9000)) arrived += more;
  EXPECT_EQ(result, Result::Empty);
  EXPECT_TRUE(outbox.empty());
  EXPECT_TRUE(arrived == expected);
  EXPECT_EQ(outbox.keptBytes(), 0U);
  EXPECT_TRUE(nothingCounts());
}

TEST_F(MessageOutboxTest, KeepsNoMoreThanItMayAndTellsOfABrokenSocket) {
  const std::string large(kMaxMessageBytes, 'x');
  const Rope payload = ropeOf({large});
  MessageOutbox outbox(ticket.get());
  EXPECT_EQ(outbox.send(ours.get(), FrameType::Reply, 1, payload), Result::Kept);
  EXPECT_EQ(outbox.send(ours.get(), FrameType::Reply, 2, payload), Result::Kept);
  EXPECT_EQ(outbox.send(ours.get(), FrameType::Reply, 3, payload), Result::TooMuch);
  outbox.clear();
  EXPECT_TRUE(nothingCounts());

  // What others of the user keep counts as well.
  ASSERT_TRUE(ticket->keep(kMaxKeptBytesPerUser - kMaxMessageBytes));
  EXPECT_EQ(outbox.send(ours.get(), FrameType::Reply, 4, payload), Result::TooMuch);
  ticket->release(kMaxKeptBytesPerUser - kMaxMessageBytes);

  theirs.reset();
  EXPECT_EQ(outbox.send(ours.get(), FrameType::Reply, 5, ropeOf({"x"})), Result::Broken);
}

}  // namespace
}  // namespace platform
