#include "platform/linux/RegistryStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/Files.h"

namespace platform {
namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0600;
constexpr const char* kNextFileName = ".records.new";
// A daemon that was told to end may still hold the folder when its successor starts.
constexpr std::chrono::milliseconds kLockPatience{1000};
constexpr std::chrono::milliseconds kLockPause{20};
// Entries are written in pieces of this size: a first start with thousands of bundles builds no second copy of all.
constexpr std::size_t kWriteSize = std::size_t{1} << 20;
// A smaller file is not worth rewriting, however much of it is out of date.
constexpr std::uint64_t kMinGarbage = std::uint64_t{256} << 10;
// A block of the loaded file in which less than this part counts is not kept for it.
constexpr std::uint64_t kMinLiveQuarters = 3;
constexpr int kMaxKeptAside = 100;

std::string text(int errorNumber) { return fileError(RegistryStore::kDirectory, errorNumber).localizedDescription(); }

bool writeAt(int fd, std::string_view bytes, std::uint64_t offset) {
  while (!bytes.empty()) {
    ssize_t written = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
    offset += static_cast<std::uint64_t>(written);
  }
  return true;
}

bool readAt(int fd, std::string& bytes, std::uint64_t offset) {
  std::size_t length = 0;
  while (length < bytes.size()) {
    ssize_t got = ::pread(fd, bytes.data() + length, bytes.size() - length, static_cast<off_t>(offset + length));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) {
      errno = EIO;
      return false;
    }
    length += static_cast<std::size_t>(got);
  }
  return true;
}

// Collects entries and writes them in large pieces.
class EntryWriter {
 public:
  EntryWriter(int fd, std::uint64_t end) : fd_(fd), end_(end) {}
  std::uint64_t end() const { return end_ + buffer_.size(); }
  bool add(std::string_view key, std::string_view payload) {
    appendJournalEntry(buffer_, key, payload);
    return buffer_.size() < kWriteSize || flush();
  }
  bool addRaw(std::string_view bytes) {
    buffer_ += bytes;
    return buffer_.size() < kWriteSize || flush();
  }
  bool flush() {
    if (!writeAt(fd_, buffer_, end_)) return false;
    end_ += buffer_.size();
    buffer_.clear();
    return true;
  }

 private:
  const int fd_;
  std::uint64_t end_;
  std::string buffer_;
};

// Most of a block that was read is out of date: what counts is copied, so that the block can go.
void releaseSparseBlocks(std::vector<RegistryStore::Entry>& entries) {
  std::unordered_map<const Shared*, std::uint64_t> live;
  for (const RegistryStore::Entry& entry : entries) live[entry.payload.owner()] += entry.payload.size();
  for (RegistryStore::Entry& entry : entries) {
    std::uint64_t block = static_cast<const SharedBytes*>(entry.payload.owner())->view().size();
    if (live[entry.payload.owner()] * 4 >= block * kMinLiveQuarters) continue;
    entry.payload = SharedSlice::take(std::string(entry.payload.view()));
  }
}

std::string datedName(int attempt) {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  ::gmtime_r(&now, &parts);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &parts);
  std::string name = std::string(RegistryStore::kFileName).append(".unreadable-").append(stamp);
  return attempt == 0 ? name : name + "-" + std::to_string(attempt);
}

}  // namespace

// Nothing is made before there is something to keep.
bool RegistryStore::openFolder() {
  folder_ = root_->open(kDirectory, O_RDONLY | O_DIRECTORY);
  if (!folder_ && errno != ENOENT) {
    VK_LOG(defaultLog(), Error, "registrations will not survive a restart: %{public}@", text(errno));
    writable_ = false;
  }
  if (folder_) lockFolder();
  return static_cast<bool>(folder_);
}

bool RegistryStore::makeFolder() {
  folder_ = root_->makeDirectories(kDirectory, kFolderMode);
  if (!folder_) return false;
  parentsFlushDue_ = true;
  lockFolder();
  return writable_;
}

void RegistryStore::lockFolder() {
  auto deadline = std::chrono::steady_clock::now() + kLockPatience;
  while (::flock(folder_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR && (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline)) {
      VK_LOG(defaultLog(), Error, "registrations will not survive a restart, %{public}@ is in use: %{public}@",
             kDirectory, text(errno));
      writable_ = false;
      return;
    }
    std::this_thread::sleep_for(kLockPause);
  }
}

// Leaves file_ invalid when there is none or none that can be read.
void RegistryStore::openFile() {
  struct stat state {};
  if (::fstatat(folder_.get(), kFileName, &state, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) static_cast<void>(keepAside());
    return;
  }
  // Opening anything but a regular file may already do something.
  if (S_ISREG(state.st_mode)) {
    file_ = UniqueFd(::openat(folder_.get(), kFileName, (writable_ ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC));
  } else {
    errno = EINVAL;
  }
  if (!file_) static_cast<void>(keepAside());
}

std::vector<RegistryStore::Entry> RegistryStore::load() {
  std::vector<Entry> entries;
  if (!openFolder()) return entries;
  openFile();
  if (!file_) return entries;
  std::unordered_map<std::string, std::pair<Place, SharedSlice>> found;
  JournalEnd end =
      readJournal(file_.get(), [&](std::uint64_t offset, std::string_view key, const SharedSlice& payload) {
        Place place{offset, journalEntrySize(key, payload.size())};
        if (payload.size() == 0) {
          found.erase(std::string(key));
        } else {
          found.insert_or_assign(std::string(key), std::pair(place, payload));
        }
      });
  entries.reserve(found.size());
  for (auto& [key, value] : found) {
    places_.emplace(key, value.first);
    live_ += value.first.size;
    entries.push_back({key, std::move(value.second)});
  }
  found.clear();
  std::sort(entries.begin(), entries.end(), [this](const Entry& a, const Entry& b) {
    return places_.find(a.key)->second.offset < places_.find(b.key)->second.offset;
  });
  releaseSparseBlocks(entries);
  adopt(end);
  return entries;
}

// What was read of the file counts. Where it ends badly, nothing is appended behind that.
void RegistryStore::adopt(const JournalEnd& end) {
  end_ = end.offset;
  if (end.state == JournalEnd::State::Whole) return;
  if (end.state == JournalEnd::State::Torn && end_ < kJournalMagic.size()) {
    // It was never begun properly, so nothing was in it.
    file_.reset();
    if (writable_) static_cast<void>(::unlinkat(folder_.get(), kFileName, 0));
    return;
  }
  if (end.state == JournalEnd::State::Torn) {
    VK_LOG(defaultLog(), Default, "the last registrations before the end were not written completely");
    if (writable_ && ::ftruncate(file_.get(), static_cast<off_t>(end_)) != 0) rewriteDue_ = true;
    return;
  }
  errno = end.errorNumber != 0 ? end.errorNumber : EBADMSG;
  static_cast<void>(keepAside());
  rewriteDue_ = true;
}

// The file was not understood; whoever can may look at it later. Without another name for it nothing is written.
bool RegistryStore::keepAside() {
  std::string reason = text(errno);
  if (!writable_) return false;
  for (int i = 0; i < kMaxKeptAside; ++i) {
    std::string name = datedName(i);
    if (::renameat2(folder_.get(), kFileName, folder_.get(), name.c_str(), RENAME_NOREPLACE) == 0) {
      VK_LOG(defaultLog(), Error, "cannot read the stored registrations, kept as %{public}@: %{public}@", name, reason);
      return true;
    }
    if (errno != EEXIST) break;
  }
  VK_LOG(defaultLog(), Error, "cannot read the stored registrations nor put them aside: %{public}@, %{public}@", reason,
         text(errno));
  writable_ = false;
  return false;
}

void RegistryStore::put(std::string_view key, SharedSlice payload) {
  if (writable_ && key.size() <= kMaxJournalKey && payload.size() <= kMaxJournalPayload) {
    pending_.insert_or_assign(std::string(key), std::move(payload));
  } else {
    remove(key);
  }
}

void RegistryStore::remove(std::string_view key) {
  std::string name(key);
  if (writable_ && places_.contains(name)) {
    pending_.insert_or_assign(std::move(name), SharedSlice());
  } else {
    pending_.erase(name);
  }
}

bool RegistryStore::isRewriteDue() const {
  std::uint64_t garbage = end_ - kJournalMagic.size() - live_;
  return rewriteDue_ || (garbage > live_ && garbage > kMinGarbage);
}

bool RegistryStore::append() {
  bool mend = rewriteDue_ && !places_.empty();
  if (!writable_ || (pending_.empty() && !mend)) return true;
  if (!folder_ && !makeFolder()) return failed("write");
  if (!file_ && !createFile()) return failed("write");
  if (!(isRewriteDue() ? rewrite() : appendPending())) return failed("write");
  pending_.clear();
  failing_ = false;
  return true;
}

// Without a flush, which the first start with many bundles would have to wait for: sync makes up for it.
bool RegistryStore::createFile() {
  UniqueFd created(::openat(folder_.get(), kFileName, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!created || ::fchmod(created.get(), kFileMode) != 0) return false;
  if (!writeAt(created.get(), kJournalMagic, 0)) {
    int error = errno;
    static_cast<void>(::unlinkat(folder_.get(), kFileName, 0));
    errno = error;
    return false;
  }
  file_ = std::move(created);
  end_ = kJournalMagic.size();
  folderFlushDue_ = true;
  return true;
}

bool RegistryStore::appendPending() {
  EntryWriter writer(file_.get(), end_);
  std::vector<std::pair<const std::string*, Place>> written;
  written.reserve(pending_.size());
  bool done = true;
  for (const auto& [key, payload] : pending_) {
    written.push_back({&key, {writer.end(), payload.size() == 0 ? 0 : journalEntrySize(key, payload.size())}});
    done = done && writer.add(key, payload.view());
  }
  if (!done || !writer.flush()) {
    int error = errno;
    // What reached the file is not taken for entries; the next attempt writes over it.
    if (::ftruncate(file_.get(), static_cast<off_t>(end_)) != 0) rewriteDue_ = true;
    errno = error;
    return false;
  }
  end_ = writer.end();
  for (const auto& [key, place] : written) {
    if (auto old = places_.find(*key); old != places_.end()) {
      live_ -= old->second.size;
      places_.erase(old);
    }
    if (place.size == 0) continue;
    live_ += place.size;
    places_.emplace(*key, place);
  }
  flushDue_ = true;
  return true;
}

// Copies what counts and is not about to change, in the order of the old file.
bool RegistryStore::copyLive(int target, Places& places, std::uint64_t& end) const {
  std::vector<std::pair<Place, const std::string*>> live;
  live.reserve(places_.size());
  for (const auto& [key, place] : places_) {
    if (!pending_.contains(key)) live.push_back({place, &key});
  }
  std::sort(live.begin(), live.end(), [](const auto& a, const auto& b) { return a.first.offset < b.first.offset; });
  EntryWriter writer(target, end);
  std::string bytes;
  for (const auto& [place, key] : live) {
    bytes.resize(place.size);
    if (!readAt(file_.get(), bytes, place.offset)) return false;
    if (!isJournalEntry(bytes)) {
      VK_LOG(defaultLog(), Error, "the stored registration of %{public}@ was damaged", *key);
      continue;
    }
    places.emplace(*key, Place{writer.end(), place.size});
    if (!writer.addRaw(bytes)) return false;
  }
  for (const auto& [key, payload] : pending_) {
    if (payload.size() == 0) continue;
    places.emplace(key, Place{writer.end(), journalEntrySize(key, payload.size())});
    if (!writer.add(key, payload.view())) return false;
  }
  if (!writer.flush()) return false;
  end = writer.end();
  return true;
}

bool RegistryStore::rewrite() {
  static_cast<void>(::unlinkat(folder_.get(), kNextFileName, 0));  // of a process that did not come to the end of this
  UniqueFd next(::openat(folder_.get(), kNextFileName, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  Places places;
  std::uint64_t end = kJournalMagic.size();
  bool done = next && ::fchmod(next.get(), kFileMode) == 0 && writeAt(next.get(), kJournalMagic, 0) &&
              copyLive(next.get(), places, end) && ::fsync(next.get()) == 0 &&
              ::renameat(folder_.get(), kNextFileName, folder_.get(), kFileName) == 0;
  if (!done) {
    int error = errno;
    if (next) static_cast<void>(::unlinkat(folder_.get(), kNextFileName, 0));
    errno = error;
    return false;
  }
  file_ = std::move(next);
  places_ = std::move(places);
  end_ = end;
  live_ = end - kJournalMagic.size();
  rewriteDue_ = false;
  flushDue_ = true;
  folderFlushDue_ = true;
  return true;
}

bool RegistryStore::sync() {
  if (!flushDue_) return pending_.empty();
  if (::fdatasync(file_.get()) != 0) {
    // What a failed flush leaves on disk is unknown, and a second one may claim success.
    rewriteDue_ = true;
    return failed("flush");
  }
  if (folderFlushDue_ && ::fsync(folder_.get()) != 0) return failed("flush");
  if (parentsFlushDue_ && !flushParents()) return failed("flush");
  folderFlushDue_ = false;
  parentsFlushDue_ = false;
  flushDue_ = false;
  return pending_.empty();
}

bool RegistryStore::flushParents() const {
  for (std::size_t end = kDirectory.rfind('/'); end != std::string_view::npos; end = kDirectory.rfind('/', end - 1)) {
    UniqueFd parent = root_->open(kDirectory.substr(0, std::max<std::size_t>(end, 1)), O_RDONLY | O_DIRECTORY);
    if (!parent || ::fsync(parent.get()) != 0) return false;
    if (end == 0) break;
  }
  return true;
}

bool RegistryStore::failed(const char* what) {
  if (!failing_) {
    VK_LOG(defaultLog(), Error, "cannot %{public}s registrations, they will not survive a restart: %{public}@", what,
           text(errno));
  }
  failing_ = true;
  return false;
}

}  // namespace platform
