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

// Slices written with one call; a large reply has one or a few per form.
constexpr std::size_t kSlicesPerWrite = 256;
// What a kept frame costs beside its bytes, so that many small ones count as what they take.
constexpr std::uint64_t kKeptFrameCost = 256;

constexpr std::uint32_t kHungUp = EPOLLHUP | EPOLLERR;

std::uint64_t costOf(std::uint64_t bytes) { return bytes + kKeptFrameCost; }

}  // namespace

MessageSocket::MessageSocket(std::shared_ptr<EventLoop> loop, UniqueFd fd, std::int32_t peerPid,
                             std::shared_ptr<PeerIdentity> peer, std::unique_ptr<MessageBudget::Ticket> ticket)
    : loop_(std::move(loop)),
      peerPid_(peerPid),
      peer_(std::move(peer)),
      fd_(std::move(fd)),
      ticket_(std::move(ticket)) {}

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
    if (broken_ || !fd_ || (type == FrameType::Reply && !forgetRequest(id))) return;
    if (payload.size() > kMaxMessageBytes) {
      wrong = "a message for it is too large";
    } else {
      Outgoing frame;
      frame.header = FrameHeader{static_cast<std::uint32_t>(payload.size()), type, id}.encoded();
      frame.left = kFrameHeaderBytes + payload.size();
      frame.payload = std::move(payload);
      Write written = kept_.empty() ? write(frame) : Write::Full;
      if (written == Write::Broken) breakOff();
      if (written == Write::Full && !keep(std::move(frame))) wrong = "it does not read what it is sent";
      review();
    }
  }
  if (wrong != nullptr) cutOff(wrong);
}

MessageSocket::Write MessageSocket::write(Outgoing& frame) {
  const std::vector<SharedSlice>& pieces = frame.payload.pieces();
  while (frame.left != 0) {
    std::array<iovec, kSlicesPerWrite> slices;
    std::size_t count = 0;
    std::size_t offset = frame.offset;
    for (std::size_t at = frame.piece; at <= pieces.size() && count < slices.size(); ++at, offset = 0) {
      std::string_view bytes =
          at == 0 ? std::string_view(frame.header.data(), frame.header.size()) : pieces[at - 1].view();
      slices[count++] = {const_cast<char*>(bytes.data()) + offset, bytes.size() - offset};
    }
    msghdr message{};
    message.msg_iov = slices.data();
    message.msg_iovlen = count;
    ssize_t sent = ::sendmsg(fd_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM ? Write::Full : Write::Broken;
    frame.left -= static_cast<std::uint64_t>(sent);
    for (std::size_t left = static_cast<std::size_t>(sent), i = 0; left != 0; ++i) {
      std::size_t step = std::min(left, slices[i].iov_len);
      left -= step;
      bool whole = step == slices[i].iov_len;
      frame.offset = whole ? 0 : frame.offset + step;
      if (whole) ++frame.piece;
    }
  }
  return Write::Done;
}

bool MessageSocket::keep(Outgoing frame) {
  std::uint64_t cost = costOf(frame.left);
  if (keptBytes_ + cost > kMaxKeptBytesPerConnection + 2 * costOf(kFrameHeaderBytes)) return false;
  if (ticket_ != nullptr && !ticket_->keep(cost)) return false;
  keptBytes_ += cost;
  kept_.push_back(std::move(frame));
  return true;
}

void MessageSocket::writeKept() {
  while (!kept_.empty() && !broken_) {
    Outgoing& frame = kept_.front();
    std::uint64_t before = frame.left;
    Write written = write(frame);
    std::uint64_t freed = before - frame.left + (written == Write::Done ? kKeptFrameCost : 0);
    keptBytes_ -= freed;
    if (ticket_ != nullptr) ticket_->release(freed);
    if (written == Write::Broken) breakOff();
    if (written != Write::Done) return;
    kept_.pop_front();
  }
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
    if (broken_ || !fd_) return;
    breakOff();
  }
  VK_LOG(defaultLog(), Error, "process %d is cut off: %{public}s", peerPid_, reason);
}

// The hang-up that follows makes the loop deliver the end.
void MessageSocket::breakOff() {
  if (broken_ || !fd_) return;
  broken_ = true;
  ::shutdown(fd_.get(), SHUT_RDWR);
  kept_.clear();
}

// --- What the loop waits for ---

// Stops or goes on reading, by what waits for the peer.
void MessageSocket::review() {
  if (broken_) return;
  std::size_t bound = paused_ ? kMaxWaitingRequests / 2 : kMaxWaitingRequests - 1;
  bool pause = waitingRequests_.size() > bound || keptBytes_ > kMaxUnreadBytes;
  if (paused_ && !pause && hasRest_) again_ = true;
  paused_ = pause;
  updateEvents();
}

// A socket that can be written is reported at once, so that also stands for "again".
std::uint32_t MessageSocket::wantedEvents() const {
  std::uint32_t events = 0;
  if (wantsInput_ && !paused_) events |= EPOLLIN;
  if (!kept_.empty() || again_) events |= EPOLLOUT;
  return events;
}

void MessageSocket::updateEvents() {
  std::uint32_t wanted = wantedEvents();
  // During a delivery the reader may not be asked for more, and release() will look again.
  if (wanted == events_ || watch_ == 0 || missed_ || delivering_) return;
  events_ = wanted;
  loop_->change(watch_, fd_.get(), events_);
}

// --- Delivery ---

void MessageSocket::ready(std::uint32_t events) {
  bool gone = false;
  if (!claim(events, &gone)) return;
  std::shared_ptr<MessageSocketUser> user = user_.lock();
  Outcome outcome = Outcome::Gone;
  if (user != nullptr && !gone) {
    try {
      outcome = readFrames(*user, (events & kHungUp) != 0);
    } catch (const std::bad_alloc&) {
      cutOff("no memory for its message");
    } catch (...) {
      cutOff("its message could not be handled");
    }
  }
  release(outcome);
}

// Makes this call the one that delivers. False when another thread is at it still, in its long way from a lost lead;
// that one then sees to what came.
bool MessageSocket::claim(std::uint32_t events, bool* gone) {
  std::lock_guard lock(mutex_);
  if (!fd_) return false;
  if (delivering_) {
    if (!missed_) loop_->suspend(fd_.get());
    missed_ = true;
    return false;
  }
  delivering_ = true;
  again_ = false;
  if ((events & EPOLLOUT) != 0) writeKept();
  review();
  // Of a peer that is gone, only what it sent while it was read is of interest.
  *gone = broken_ || ((events & kHungUp) != 0 && (paused_ || !wantsInput_));
  return true;
}

void MessageSocket::release(Outcome outcome) {
  bool rest = reader_.keepRest();
  {
    std::lock_guard lock(mutex_);
    if (outcome != Outcome::Gone && !loopEnded_) {
      delivering_ = false;
      hasRest_ = rest;
      wantsInput_ = !inputEnded_;
      again_ = outcome == Outcome::More && !paused_;
      if (missed_) {
        missed_ = false;
        events_ = wantedEvents();
        loop_->resume(watch_, fd_.get(), events_);
      } else {
        updateEvents();
      }
      return;
    }
  }
  finish();
}

void MessageSocket::finish() {
  {
    std::lock_guard lock(mutex_);
    loop_->unwatch(watch_, fd_.get());
    fd_.reset();
    kept_.clear();
    ticket_.reset();
  }
  if (auto user = user_.lock()) user->socketClosed();
}

void MessageSocket::loopEnded() {
  {
    std::lock_guard lock(mutex_);
    loopEnded_ = true;
    if (delivering_ || !fd_) return;
    delivering_ = true;
  }
  finish();
}

MessageSocket::Outcome MessageSocket::readFrames(MessageSocketUser& user, bool hungUp) {
  FrameHeader header;
  SharedSlice payload;
  bool mayRead = !inputEnded_;
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
  return paused_ || broken_;
}

MessageSocket::Outcome MessageSocket::inputEnded(MessageSocketUser& user, bool hungUp) {
  inputEnded_ = true;
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
