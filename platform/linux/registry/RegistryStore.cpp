#include "platform/linux/registry/RegistryStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>
#include <unordered_map>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/files/Files.h"

namespace platform {
namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0600;
constexpr const char* kNextFileName = ".records.new";
// A daemon that was told to end may still hold the folder when its successor starts.
constexpr std::chrono::milliseconds kLockPatience{1000};
constexpr std::chrono::milliseconds kLockPause{20};
// Entries are written in pieces of this size.
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
    if (errno != ENOENT) static_cast<void>(keepAside(false));
    return;
  }
  // Opening anything but a regular file may already do something.
  if (S_ISREG(state.st_mode)) {
    file_ = UniqueFd(
        ::openat(folder_.get(), kFileName, (writable_ ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  } else {
    errno = EINVAL;
  }
  if (!file_) static_cast<void>(keepAside(false));
}

std::vector<RegistryStore::Entry> RegistryStore::load() {
  std::vector<Entry> entries;
  if (!openFolder()) return entries;
  openFile();
  if (!file_) return entries;
  std::unordered_map<std::string_view, std::size_t> last;  // entry of each key that is not removed
  JournalEnd end = readJournal(file_.get(), [&](std::string_view key, const SharedSlice& payload) {
    // Both lie in the same block of the file.
    if (payload.size() == 0) {
      last.erase(key);
    } else {
      last[key] = entries.size();
      entries.push_back({SharedSlice(payload.owner(), key), payload});
    }
  });
  // The keys of the table lie in blocks that only the entries keep: none of them goes before the table.
  std::vector<Entry> counting;
  counting.reserve(last.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    auto place = last.find(entries[i].key.view());
    if (place == last.end() || place->second != i) continue;
    live_ += journalEntrySize(entries[i].key.view(), entries[i].payload.size());
    counting.push_back(std::move(entries[i]));
  }
  releaseSparseBlocks(counting);
  adopt(end);
  return counting;
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
  static_cast<void>(keepAside(true));
  rewriteDue_ = true;
  changed_ = true;
}

// The file was not understood; whoever can may look at it later. Without another name for it nothing is written. One of
// which something could be read keeps its own name, too, until it is replaced.
bool RegistryStore::keepAside(bool partlyRead) {
  std::string reason = text(errno);
  if (!writable_) return false;
  for (int i = 0; i < kMaxKeptAside; ++i) {
    std::string name = datedName(i);
    bool kept = partlyRead && ::linkat(folder_.get(), kFileName, folder_.get(), name.c_str(), 0) == 0;
    if (kept || ::renameat2(folder_.get(), kFileName, folder_.get(), name.c_str(), RENAME_NOREPLACE) == 0) {
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

void RegistryStore::change(std::string_view key, std::string_view payload) {
  changed_ = true;
  if (!writable_ || rewriteDue_) return;  // a new file will be made from what counts then
  if (key.size() > kMaxJournalKey || payload.size() > kMaxJournalPayload) payload = {};
  appendJournalEntry(changes_, key, payload);
  // The first start with thousands of bundles builds no second copy of all.
  if (changes_.size() >= kWriteSize) static_cast<void>(writeChanges());
}

// What counts is measured again only when the file has doubled since: that costs as much as the change did.
bool RegistryStore::isRewriteDue() {
  auto isSparse = [this] { return end_ + changes_.size() > kJournalMagic.size() + 2 * live_ + kMinGarbage; };
  if (rewriteDue_ || !isSparse()) return rewriteDue_;
  live_ = 0;
  content_(
      [this](std::string_view key, const SharedSlice& payload) { live_ += journalEntrySize(key, payload.size()); });
  return isSparse();
}

bool RegistryStore::append() {
  // What could not be written is tried again with the next change.
  if (!writable_ || !std::exchange(changed_, false)) return true;
  return isRewriteDue() ? rewrite() : writeChanges();
}

bool RegistryStore::writeChanges() {
  bool ready = (folder_ || makeFolder()) && (file_ || createFile());
  if (!ready || !writeAt(file_.get(), changes_, end_)) {
    static_cast<void>(failed("write"));
    // What reached the file is not taken for entries, and what did not is in the next file.
    if (file_) static_cast<void>(::ftruncate(file_.get(), static_cast<off_t>(end_)));
    rewriteDue_ = true;
    changes_ = {};
    return false;
  }
  end_ += changes_.size();
  changes_.clear();
  flushDue_ = true;
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

bool RegistryStore::writeContent(int target, std::uint64_t& end) const {
  std::string buffer(kJournalMagic);
  bool written = true;
  auto flush = [&] {
    written = written && writeAt(target, buffer, end);
    end += buffer.size();
    buffer.clear();
  };
  end = 0;
  content_([&](std::string_view key, const SharedSlice& payload) {
    appendJournalEntry(buffer, key, payload.view());
    if (buffer.size() >= kWriteSize) flush();
  });
  flush();
  return written;
}

bool RegistryStore::rewrite() {
  if (!folder_ && !makeFolder()) return failed("write");
  static_cast<void>(::unlinkat(folder_.get(), kNextFileName, 0));  // of a process that did not come to the end of this
  UniqueFd next(::openat(folder_.get(), kNextFileName, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  std::uint64_t end = 0;
  bool done = next && ::fchmod(next.get(), kFileMode) == 0 && writeContent(next.get(), end) &&
              ::fsync(next.get()) == 0 && ::renameat(folder_.get(), kNextFileName, folder_.get(), kFileName) == 0;
  if (!done) {
    static_cast<void>(failed("write"));
    if (next) static_cast<void>(::unlinkat(folder_.get(), kNextFileName, 0));
    rewriteDue_ = true;
    changes_ = {};
    return false;
  }
  file_ = std::move(next);
  end_ = end;
  live_ = end - kJournalMagic.size();
  changes_ = {};
  rewriteDue_ = false;
  flushDue_ = true;
  folderFlushDue_ = true;
  return true;
}

bool RegistryStore::sync() {
  if (!flushDue_) return !rewriteDue_;
  if (::fdatasync(file_.get()) != 0) {
    // What a failed flush leaves on disk is unknown, and a second one may claim success.
    rewriteDue_ = true;
    changed_ = true;
    flushDue_ = false;
    return failed("flush");
  }
  if (folderFlushDue_ && ::fsync(folder_.get()) != 0) return failed("flush");
  if (aboveFlushDue_ && !flushFoldersAbove(*root_, kDirectory)) return failed("flush");
  flushDue_ = folderFlushDue_ = aboveFlushDue_ = failing_ = false;
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
