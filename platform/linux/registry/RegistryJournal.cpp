#include "platform/linux/registry/RegistryJournal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

namespace platform {
namespace {

constexpr std::size_t kHeadSize = 16;
// What is read at once and kept together as long as one payload in it is in use: large enough to cost few calls,
// small enough that one record does not keep much of what is gone.
constexpr std::size_t kBlockSize = std::size_t{256} << 10;

// Finds what a cut or mixed-up write leaves, at the speed of memory; it is no defence against forgery.
std::uint32_t checksum(std::string_view bytes) {
  constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;
  std::uint64_t sum = bytes.size() + kFactor;
  auto mix = [&sum](std::uint64_t word) {
    sum = (sum ^ word) * kFactor;
    sum ^= sum >> 29;
  };
  std::size_t at = 0;
  for (; at + 8 <= bytes.size(); at += 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes.data() + at, 8);
    mix(word);
  }
  std::uint64_t rest = 0;
  std::memcpy(&rest, bytes.data() + at, bytes.size() - at);
  mix(rest);
  return static_cast<std::uint32_t>(sum >> 32);
}

struct Head {
  std::uint32_t keyLength;
  std::uint32_t payloadLength;
  std::uint32_t contentChecksum;
  std::uint32_t headChecksum;

  static Head of(std::string_view bytes) {
    Head head;
    std::memcpy(&head, bytes.data(), sizeof head);
    return head;
  }
  std::uint32_t ownChecksum() const {
    return checksum({reinterpret_cast<const char*>(this), offsetof(Head, headChecksum)});
  }
  bool isWhole() const {
    return headChecksum == ownChecksum() && keyLength != 0 && keyLength <= kMaxJournalKey &&
           payloadLength <= kMaxJournalPayload;
  }
  std::uint64_t size() const { return sizeof(Head) + std::uint64_t{keyLength} + payloadLength; }
  bool fits(std::string_view content) const { return checksum(content) == contentChecksum; }
};
static_assert(sizeof(Head) == 16);

// Reads until the buffer is full or the file ends; the number of bytes, or -1.
ssize_t fill(int fd, char* buffer, std::size_t size) {
  std::size_t length = 0;
  while (length < size) {
    ssize_t got = ::read(fd, buffer + length, size - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(length);
}

class Reader {
 public:
  Reader(int fd, const JournalVisitor& visit) : fd_(fd), visit_(visit) {}

  JournalEnd read() {
    struct stat state {};
    if (::fstat(fd_, &state) == 0) unread_ = static_cast<std::uint64_t>(state.st_size);
    std::string block;
    if (!more(block, kBlockSize)) return end_;
    if (!std::string_view(block).starts_with(kJournalMagic)) {
      bool unfinished = kJournalMagic.starts_with(block);
      return unfinished ? stop(JournalEnd::State::Torn) : tail(block, JournalEnd::State::NoJournal);
    }
    std::size_t at = kJournalMagic.size();
    end_.offset = at;
    while (end_.state == JournalEnd::State::Whole) {
      std::uint64_t wanted = entries(std::move(block), at);
      at = 0;
      block = std::move(rest_);
      if (wanted == 0 || (atEnd_ && block.empty())) break;
      if (atEnd_) return tail(block, JournalEnd::State::Torn);
      if (!more(block, std::max<std::uint64_t>(kBlockSize, wanted))) break;
    }
    return end_;
  }

 private:
  // Makes `block` `size` bytes long, or as long as the file is.
  bool more(std::string& block, std::uint64_t size) {
    std::size_t had = block.size();
    // One byte more than there is left: the end of the file shows, and a small file takes little memory.
    size = std::min(size, had + unread_ + 1);
    block.resize(size);
    ssize_t got = fill(fd_, block.data() + had, size - had);
    if (got < 0) {
      end_.errorNumber = errno;
      stop(JournalEnd::State::ReadError);
      return false;
    }
    auto length = static_cast<std::size_t>(got);
    atEnd_ = had + length < size;
    unread_ -= std::min<std::uint64_t>(unread_, length);
    block.resize(had + length);
    return true;
  }

  // Visits the whole entries of a block; leaves the rest behind and answers how many bytes its entry needs, 0 at the
  // end of what can be read.
  std::uint64_t entries(std::string bytes, std::size_t at) {
    SharedSlice block = SharedSlice::take(std::move(bytes));
    std::string_view view = block.view();
    std::uint64_t wanted = kHeadSize;
    while (view.size() - at >= kHeadSize) {
      Head head = Head::of(view.substr(at));
      wanted = head.size();
      bool whole = head.isWhole();
      if (whole && view.size() - at < wanted) break;
      if (!whole || !head.fits(view.substr(at + kHeadSize, wanted - kHeadSize))) {
        tail(view.substr(at), JournalEnd::State::Damaged);
        return 0;
      }
      visit_(view.substr(at + kHeadSize, head.keyLength),
             block.part(at + kHeadSize + head.keyLength, head.payloadLength));
      at += wanted;
      end_.offset += wanted;
      wanted = kHeadSize;
    }
    rest_ = std::string(view.substr(at));
    return wanted;
  }

  // What stands from the first entry on that is not whole. Zeros are what a file system shows of an append whose
  // length, but not whose content, reached the disk.
  JournalEnd tail(std::string_view bytes, JournalEnd::State state) {
    bool zeros = bytes.find_first_not_of('\0') == std::string_view::npos;
    std::string block;
    while (zeros && !atEnd_ && more(block, kBlockSize)) {
      zeros = block.find_first_not_of('\0') == std::string::npos;
      block.clear();
    }
    if (end_.state == JournalEnd::State::ReadError) return end_;
    return stop(zeros ? JournalEnd::State::Torn : state);
  }

  JournalEnd stop(JournalEnd::State state) {
    end_.state = state;
    return end_;
  }

  const int fd_;
  const JournalVisitor& visit_;
  JournalEnd end_;
  std::string rest_;
  std::uint64_t unread_ = 0;
  bool atEnd_ = false;
};

}  // namespace

void appendJournalEntry(std::string& out, std::string_view key, std::string_view payload) {
  std::size_t start = out.size();
  out.append(kHeadSize, '\0').append(key).append(payload);
  Head head{};
  head.keyLength = static_cast<std::uint32_t>(key.size());
  head.payloadLength = static_cast<std::uint32_t>(payload.size());
  head.contentChecksum = checksum(std::string_view(out).substr(start + kHeadSize));
  head.headChecksum = head.ownChecksum();
  std::memcpy(out.data() + start, &head, sizeof head);
}

std::uint64_t journalEntrySize(std::string_view key, std::uint64_t payloadSize) {
  return kHeadSize + key.size() + payloadSize;
}

JournalEnd readJournal(int fd, const JournalVisitor& visit) { return Reader(fd, visit).read(); }

}  // namespace platform
