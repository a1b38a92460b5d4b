// One connected socket with frames on it: what both ends of a connection are built on.
//
// Reads on the leader of the loop and delivers frame by frame, one at a time. Writes at once on the sender's thread;
// what the socket does not take waits in the outbox.
//
//   Reading --peer ends its half--> Ending --> Closed
//       `---------------------------.  |         ^
//         cut off, close(), loop ended `-> Broken -'
//
// A peer is read no further while too much waits for it: requests without an answer, or answers it has not read. It is
// cut off, alone and with one log line, when it breaks the protocol or when what is kept for it exceeds a bound.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/files/UniqueFd.h"
#include "platform/linux/messages/MessageBudget.h"
#include "platform/linux/messages/MessageFrame.h"
#include "platform/linux/messages/MessageOutbox.h"
#include "platform/linux/messages/PeerIdentity.h"
#include "platform/linux/queues/EventLoop.h"
#include "platform/values/Message.h"

namespace platform {

// Requests read and not answered. A program that asks for more at once loses nothing by waiting, and one that floods
// the daemon takes no more of it than this.
inline constexpr std::size_t kMaxWaitingRequests = 64;
// Bytes of replies kept for a peer while it still is read.
inline constexpr std::uint64_t kMaxUnreadBytes = std::uint64_t{1} << 20;
// What one connection may have in a round, before the others have their turn.
inline constexpr int kFramesPerRound = 32;
inline constexpr std::size_t kBytesPerRound = std::size_t{1} << 20;

// Who uses a socket. All calls are made on its delivery: one at a time, in order, on a thread of the loop.
class MessageSocketUser {
 public:
  virtual ~MessageSocketUser() = default;
  // Answers why the peer must be cut off; empty when all is well.
  virtual std::string frameArrived(const FrameHeader& header, const SharedSlice& payload) = 0;
  // The peer will send nothing more; it may still read.
  virtual void peerEnding() = 0;
  // Once, the last call.
  virtual void socketClosed() = 0;
};

class MessageSocket final : public EventSource, public std::enable_shared_from_this<MessageSocket> {
 public:
  // `peer` and `ticket` are null for a client's socket: it trusts the service, and pays itself for what it keeps.
  MessageSocket(std::shared_ptr<EventLoop> loop, UniqueFd fd, std::int32_t peerPid, std::shared_ptr<PeerIdentity> peer,
                std::unique_ptr<MessageBudget::Ticket> ticket);

  // Reads from now on, until closed; the loop keeps the socket alive meanwhile. False when it cannot be watched.
  bool start(std::weak_ptr<MessageSocketUser> user);

  // Dropped when the socket is closed, and for a reply when that request was answered before. From any thread.
  void send(FrameType type, std::uint64_t id, Rope payload);
  // The request will never be answered, and no longer counts as one that waits. From any thread.
  void expectNoReply(std::uint64_t id);
  // Ends the connection; socketClosed() follows on the delivery. From any thread.
  void close();
  void cutOff(std::string_view reason);

  std::int32_t peerPid() const { return peerPid_; }

  void ready(std::uint32_t events) override;
  void loopEnded() override;

 private:
  enum class State : std::uint8_t {
    Reading,  // what the peer sends is wanted
    Ending,   // the peer has ended its half; it may still read
    Broken,   // nothing more is sent or read; closing follows
    Closed,
  };
  enum class Delivery : std::uint8_t {
    None,
    Running,  // somebody is inside ready()
    Missed,   // and an event came meanwhile: the loop does not watch until release()
  };
  enum class Read { Some, Nothing, End, Broken };
  // How a delivery ends: all was read, there is more for another round, or the socket is done with.
  enum class Outcome { Read, More, Gone };

  // What the delivery that begins may do: nothing, see to the end, write only, or read as well.
  enum class Claim { None, End, NoInput, Input };
  Claim claim(std::uint32_t events);
  void release(Outcome outcome);
  void finish();
  Outcome readFrames(MessageSocketUser& user, bool mayRead, bool hungUp);
  bool deliverFrame(MessageSocketUser& user, const FrameHeader& header, const SharedSlice& payload);
  Outcome inputEnded(MessageSocketUser& user, bool hungUp);
  Read receive(std::span<char> space, std::size_t* count);
  bool mustStopReading();

  // Caller holds mutex_.
  bool isOpen() const { return state_ < State::Broken; }
  bool forgetRequest(std::uint64_t id);
  void breakOff();
  void review();
  std::uint32_t wantedEvents() const;
  void updateEvents();

  const std::shared_ptr<EventLoop> loop_;
  const std::int32_t peerPid_;
  const std::shared_ptr<PeerIdentity> peer_;
  std::weak_ptr<MessageSocketUser> user_;

  FrameReader reader_;  // used by the delivery only

  std::mutex mutex_;
  // Guarded by mutex_.
  UniqueFd fd_;
  std::unique_ptr<MessageBudget::Ticket> ticket_;
  MessageOutbox outbox_;
  State state_ = State::Reading;
  Delivery delivery_ = Delivery::None;
  bool paused_ = false;    // too much waits for the peer: it is read no further
  bool unlooked_ = false;  // the reader has bytes that the last delivery had no turn for
  std::vector<std::uint64_t> waitingRequests_;
  EventLoop::Watch watch_ = 0;
  std::uint32_t events_ = 0;  // what the loop waits for
};

}  // namespace platform
