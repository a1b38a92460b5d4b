#include "platform/linux/messages/MessageSocket.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "platform/Log.h"

namespace platform {
namespace {

constexpr std::uint32_t kHungUp = EPOLLHUP | EPOLLERR;

}  // namespace

MessageSocket::MessageSocket(std::shared_ptr<EventLoop> loop, UniqueFd fd, std::int32_t peerPid,
                             std::shared_ptr<PeerIdentity> peer, std::unique_ptr<MessageBudget::Ticket> ticket)
    : loop_(std::move(loop)),
      peerPid_(peerPid),
      peer_(std::move(peer)),
      fd_(std::move(fd)),
      ticket_(std::move(ticket)),
      outbox_(ticket_.get()) {}

bool MessageSocket::start(std::weak_ptr<MessageSocketUser> user) {
  user_ = std::move(user);
  std::lock_guard lock(mutex_);
  events_ = wantedEvents();
  watch_ = loop_->watch(fd_.get(), events_, shared_from_this());
  return watch_ != 0;
}

// --- Sending ---

void MessageSocket::send(FrameType type, std::uint64_t id, Rope payload) {
  const char* wrong = nullptr;
  {
    std::lock_guard lock(mutex_);
    if (!isOpen() || (type == FrameType::Reply && !forgetRequest(id))) return;
    if (payload.size() > kMaxMessageBytes) {
      wrong = "a message for it is too large";
    } else {
      switch (outbox_.send(fd_.get(), type, id, std::move(payload))) {
        case MessageOutbox::Result::Empty:
        case MessageOutbox::Result::Kept:
          break;
        case MessageOutbox::Result::TooMuch:
          wrong = "it does not read what it is sent";
          break;
        case MessageOutbox::Result::Broken:
          breakOff();
      }
      review();
    }
  }
  if (wrong != nullptr) cutOff(wrong);
}

bool MessageSocket::forgetRequest(std::uint64_t id) {
  auto at = std::find(waitingRequests_.begin(), waitingRequests_.end(), id);
  if (at == waitingRequests_.end()) return false;
  waitingRequests_.erase(at);
  return true;
}

void MessageSocket::expectNoReply(std::uint64_t id) {
  std::lock_guard lock(mutex_);
  forgetRequest(id);
  review();
}

void MessageSocket::close() {
  std::lock_guard lock(mutex_);
  breakOff();
}

void MessageSocket::cutOff(std::string_view reason) {
  {
    std::lock_guard lock(mutex_);
    if (!isOpen()) return;
    breakOff();
  }
  VK_LOG(defaultLog(), Error, "process %d is cut off: %{public}s", peerPid_, reason);
}

// The hang-up that follows makes the loop deliver the end.
void MessageSocket::breakOff() {
  if (!isOpen()) return;
  state_ = State::Broken;
  ::shutdown(fd_.get(), SHUT_RDWR);
  outbox_.clear();
}

// --- What the loop waits for ---

// Stops or goes on reading, by what waits for the peer.
void MessageSocket::review() {
  if (!isOpen()) return;
  // Goes on only when half of them are answered, so that it does not stop again at once.
  std::size_t bound = paused_ ? kMaxWaitingRequests / 2 : kMaxWaitingRequests - 1;
  paused_ = waitingRequests_.size() > bound || outbox_.keptBytes() > kMaxUnreadBytes;
  updateEvents();
}

// A socket that can be written is reported at once, so that also stands for "look at what was read".
std::uint32_t MessageSocket::wantedEvents() const {
  std::uint32_t events = 0;
  if (state_ == State::Reading && !paused_) events |= EPOLLIN;
  if (!outbox_.empty() || (unlooked_ && !paused_)) events |= EPOLLOUT;
  return events;
}

void MessageSocket::updateEvents() {
  std::uint32_t wanted = wantedEvents();
  // During a delivery the reader may not be asked for more, and release() will look again.
  if (wanted == events_ || watch_ == 0 || delivery_ != Delivery::None) return;
  events_ = wanted;
  loop_->change(watch_, fd_.get(), events_);
}

// --- Delivery ---

void MessageSocket::ready(std::uint32_t events) {
  const Claim claimed = claim(events);
  if (claimed == Claim::None) return;
  std::shared_ptr<MessageSocketUser> user = user_.lock();
  Outcome outcome = Outcome::Gone;
  if (user != nullptr && claimed != Claim::End) {
    try {
      outcome = readFrames(*user, claimed == Claim::Input, (events & kHungUp) != 0);
    } catch (const std::bad_alloc&) {
      cutOff("no memory for its message");
    } catch (...) {
      cutOff("its message could not be handled");
    }
  }
  release(outcome);
}

// Makes this call the one that delivers. None when another thread is at it still, in its long way from a lost lead;
// that one then sees to what came.
MessageSocket::Claim MessageSocket::claim(std::uint32_t events) {
  std::lock_guard lock(mutex_);
  if (state_ == State::Closed) return Claim::None;
  if (delivery_ != Delivery::None) {
    if (delivery_ == Delivery::Running) loop_->suspend(fd_.get());
    delivery_ = Delivery::Missed;
    return Claim::None;
  }
  delivery_ = Delivery::Running;
  if ((events & EPOLLOUT) != 0 && isOpen() && outbox_.flush(fd_.get()) == MessageOutbox::Result::Broken) breakOff();
  review();
  if (state_ == State::Broken) return Claim::End;
  // Of a peer that is gone, only what it sent while it was read is of interest.
  if ((events & kHungUp) != 0 && (paused_ || state_ == State::Ending)) return Claim::End;
  return state_ == State::Reading ? Claim::Input : Claim::NoInput;
}

void MessageSocket::release(Outcome outcome) {
  const bool rest = reader_.keepRest();
  {
    std::lock_guard lock(mutex_);
    if (outcome != Outcome::Gone && isOpen()) {
      const bool missed = std::exchange(delivery_, Delivery::None) == Delivery::Missed;
      unlooked_ = rest && outcome == Outcome::More;
      if (!missed) return updateEvents();
      events_ = wantedEvents();
      return loop_->resume(watch_, fd_.get(), events_);
    }
  }
  finish();
}

void MessageSocket::finish() {
  {
    std::lock_guard lock(mutex_);
    state_ = State::Closed;
    loop_->unwatch(watch_, fd_.get());
    fd_.reset();
    outbox_.clear();
    ticket_.reset();
  }
  if (auto user = user_.lock()) user->socketClosed();
}

void MessageSocket::loopEnded() {
  {
    std::lock_guard lock(mutex_);
    breakOff();
    if (delivery_ != Delivery::None || state_ == State::Closed) return;
    delivery_ = Delivery::Running;
  }
  finish();
}

MessageSocket::Outcome MessageSocket::readFrames(MessageSocketUser& user, bool mayRead, bool hungUp) {
  FrameHeader header;
  SharedSlice payload;
  std::size_t bytes = 0;
  for (int frames = 0;;) {
    switch (reader_.next(&header, &payload)) {
      case FrameReader::Next::Bad:
        cutOff(reader_.wrong());
        return Outcome::Gone;
      case FrameReader::Next::Frame:
        if (!deliverFrame(user, header, payload)) return Outcome::Gone;
        if (++frames == kFramesPerRound || mustStopReading()) return Outcome::More;
        continue;
      case FrameReader::Next::More:
        break;
    }
    if (!mayRead || !loop_->leading()) return Outcome::Read;
    std::span<char> space = reader_.space(EventLoop::scratch());
    std::size_t count = 0;
    switch (receive(space, &count)) {
      case Read::Some:
        break;
      case Read::Nothing:
        return Outcome::Read;
      case Read::End:
        return inputEnded(user, hungUp);
      case Read::Broken:
        return Outcome::Gone;
    }
    reader_.arrived(count);
    bytes += count;
    // A read that did not fill the space has most likely emptied the socket; if not, the loop says so.
    mayRead = count == space.size() && bytes < kBytesPerRound;
  }
}

bool MessageSocket::deliverFrame(MessageSocketUser& user, const FrameHeader& header, const SharedSlice& payload) {
  if (header.type == FrameType::Request) {
    std::lock_guard lock(mutex_);
    waitingRequests_.push_back(header.id);
    review();
  }
  std::string wrong = user.frameArrived(header, payload);
  if (!wrong.empty()) cutOff(wrong);
  return wrong.empty();
}

bool MessageSocket::mustStopReading() {
  if (!loop_->leading()) return true;
  std::lock_guard lock(mutex_);
  return paused_ || !isOpen();
}

MessageSocket::Outcome MessageSocket::inputEnded(MessageSocketUser& user, bool hungUp) {
  {
    std::lock_guard lock(mutex_);
    if (isOpen()) state_ = State::Ending;
  }
  pollfd peer{fd_.get(), 0, 0};
  if (hungUp || ::poll(&peer, 1, 0) != 0) return Outcome::Gone;
  user.peerEnding();
  return Outcome::Read;
}

// With the bytes the kernel says who wrote them; bytes of two writers never come in one read.
MessageSocket::Read MessageSocket::receive(std::span<char> space, std::size_t* count) {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control;
  iovec slice{space.data(), space.size()};
  msghdr message{};
  message.msg_iov = &slice;
  message.msg_iovlen = 1;
  if (peer_ != nullptr) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
  }
  ssize_t got;
  do {
    got = ::recvmsg(fd_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return errno == EAGAIN ? Read::Nothing : Read::Broken;
  if (got == 0) return Read::End;
  if (peer_ != nullptr) {
    const cmsghdr* from = CMSG_FIRSTHDR(&message);
    ucred writer{0, 0, 0};
    if (from != nullptr && from->cmsg_level == SOL_SOCKET && from->cmsg_type == SCM_CREDENTIALS) {
      std::memcpy(&writer, CMSG_DATA(from), sizeof writer);
    }
    if (writer.pid != peerPid_) peer_->markForeign();
  }
  *count = static_cast<std::size_t>(got);
  return Read::Some;
}

}  // namespace platform
