#include "platform/linux/sandbox/ReadExtensions.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/linux/files/Files.h"
#include "platform/values/UUID.h"

namespace platform {
namespace {

constexpr std::string_view kFolder = "/run/sandbox";
constexpr std::string_view kTablePath = "/run/sandbox/issued";
constexpr const char* kSecretName = "secret";
constexpr const char* kTableName = "issued";
constexpr std::string_view kTokenPrefix = "vkread1:";
constexpr std::size_t kSecretBytes = 32;
constexpr std::size_t kMarkText = 64;
// A full table of the longest paths, every byte escaped.
constexpr std::uint64_t kMaxTableBytes = kMaxIssuedExtensions * (kMarkText + 2 + std::size_t{3} * 1024);

std::string escaped(std::string_view path) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text;
  for (char c : path) {
    auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F && c != '%' && c != '\\') {
      text += c;
    } else {
      text.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
    }
  }
  return text;
}

int hexDigit(char c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1; }

std::string unescaped(std::string_view text) {
  std::string path;
  for (std::size_t i = 0; i < text.size(); ++i) {
    int high = text[i] == '%' && i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
    int low = high >= 0 ? hexDigit(text[i + 2]) : -1;
    path += low >= 0 ? static_cast<char>(high * 16 + low) : text[i];
    if (low >= 0) i += 2;
  }
  return path;
}

// Calls visit(mark, escaped path) for each complete line; answers how many bytes those took.
template <class Visit>
std::size_t forEachLine(std::string_view text, Visit visit) {
  std::size_t at = 0;
  for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n', at)) {
    std::string_view line = text.substr(at, end - at);
    std::optional<SHA256Digest> mark = sha256FromHex(line.substr(0, kMarkText));
    if (mark && line.size() > kMarkText && line[kMarkText] == ' ') visit(*mark, line.substr(kMarkText + 1));
    at = end + 1;
  }
  return at;
}

// The secret, if the file is one that nobody else can have read or written; nothing and errno.
std::optional<std::string> readSecret(int folder) {
  UniqueFd file(::openat(folder, kSecretName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat state {};
  if (!file || ::fstat(file.get(), &state) != 0) return std::nullopt;
  std::optional<std::string> secret = readAll(file.get(), kSecretBytes);
  if (!S_ISREG(state.st_mode) || state.st_uid != ::geteuid() || (state.st_mode & 077) != 0 || !secret ||
      secret->size() != kSecretBytes) {
    errno = EACCES;
    return std::nullopt;
  }
  return secret;
}

// Two that make one at the same time end up with the same: a name is given to a complete file, and only once.
bool makeSecret(int folder) {
  std::array<char, kSecretBytes> bytes{};
  if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return false;
  std::string aside = ".secret." + UUID::random().text();
  UniqueFd file(::openat(folder, aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) return false;
  bool made = writeAll(file.get(), {bytes.data(), bytes.size()}) &&
              (::linkat(folder, aside.c_str(), folder, kSecretName, 0) == 0 || errno == EEXIST);
  int error = errno;
  ::unlinkat(folder, aside.c_str(), 0);
  errno = error;
  return made;
}

}  // namespace

std::optional<std::string> ReadExtensionIssuer::issue(std::string_view path) {
  std::optional<std::string> canonical = root_->canonicalPath(path);
  if (!canonical) return std::nullopt;
  std::lock_guard lock(mutex_);
  if (!secret_ && !open()) return std::nullopt;
  SHA256Digest code = secret_->digest(*canonical);
  SHA256Digest mark = sha256(asText(code));
  if (!recorded_.contains(mark) && !(makeRoom() && record(mark, *canonical))) return std::nullopt;
  return std::string(kTokenPrefix) + hexText(code);
}

bool ReadExtensionIssuer::open() {
  UniqueFd folder = root_->makeDirectories(kFolder, 0755);
  if (!folder) return false;
  std::optional<std::string> secret = readSecret(folder.get());
  if (!secret && errno == ENOENT && makeSecret(folder.get())) secret = readSecret(folder.get());
  if (!secret || !openTable(folder.get())) return false;
  secret_.emplace(*secret);
  return true;
}

bool ReadExtensionIssuer::openTable(int folder) {
  UniqueFd table(::openat(folder, kTableName, O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
  struct stat state {};
  if (!table || ::fstat(table.get(), &state) != 0) return false;
  if (!S_ISREG(state.st_mode) || state.st_uid != ::geteuid()) {
    errno = EACCES;
    return false;
  }
  if (::fchmod(table.get(), 0644) != 0) return false;
  std::optional<std::string> text = readAll(table.get(), kMaxTableBytes);
  if (!text) return false;
  recorded_.clear();
  recorded_.reserve(static_cast<std::size_t>(std::count(text->begin(), text->end(), '\n')));
  std::size_t complete =
      forEachLine(*text, [&](const SHA256Digest& mark, std::string_view) { recorded_.insert(mark); });
  // The beginning of a line that was not finished would spoil the next one.
  if (complete < text->size() && ::ftruncate(table.get(), static_cast<off_t>(complete)) != 0) return false;
  table_ = std::move(table);
  return true;
}

bool ReadExtensionIssuer::record(const SHA256Digest& mark, const std::string& path) {
  struct stat before {};
  if (::fstat(table_.get(), &before) != 0) return false;
  if (writeAll(table_.get(), hexText(mark).append(" ").append(escaped(path)).append("\n"))) {
    return recorded_.insert(mark).second;
  }
  int error = errno;
  static_cast<void>(::ftruncate(table_.get(), before.st_size));  // else the next start cuts it off
  errno = error;
  return false;
}

bool ReadExtensionIssuer::makeRoom() {
  if (recorded_.size() < kMaxIssuedExtensions) return true;
  UniqueFd folder = root_->makeDirectories(kFolder, 0755);
  UniqueFd current = folder ? root_->openRegularFile(kTablePath) : UniqueFd();
  std::optional<std::string> text = current ? readAll(current.get(), kMaxTableBytes) : std::nullopt;
  if (!text) return false;
  std::string kept;
  forEachLine(*text, [&](const SHA256Digest& mark, std::string_view path) {
    struct stat state {};
    if (root_->stat(unescaped(path), &state)) kept.append(hexText(mark)).append(" ").append(path).append("\n");
  });
  if (!replaceFile(folder.get(), kTableName, kept, 0644, false) || !openTable(folder.get())) return false;
  errno = ENOSPC;
  return recorded_.size() < kMaxIssuedExtensions;
}

std::optional<std::string> ReadExtensionTable::pathOf(std::string_view token) {
  if (!token.starts_with(kTokenPrefix)) return std::nullopt;
  std::optional<SHA256Digest> code = sha256FromHex(token.substr(kTokenPrefix.size()));
  if (!code) return std::nullopt;
  std::lock_guard lock(mutex_);
  refresh();
  auto found = paths_.find(sha256(asText(*code)));
  return found == paths_.end() ? std::nullopt : std::optional(found->second);
}

// Reads what was appended since; everything when the table was replaced.
void ReadExtensionTable::refresh() {
  UniqueFd file = root_->openRegularFile(kTablePath);
  struct stat state {};
  bool counts = file && ::fstat(file.get(), &state) == 0 && (state.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  bool same =
      counts && state.st_dev == device_ && state.st_ino == inode_ && static_cast<std::uint64_t>(state.st_size) >= read_;
  if (!same) {
    paths_.clear();
    read_ = 0;
  }
  if (!counts) return;
  device_ = state.st_dev;
  inode_ = state.st_ino;
  if (static_cast<std::uint64_t>(state.st_size) == read_) return;
  if (::lseek(file.get(), static_cast<off_t>(read_), SEEK_SET) < 0) return;
  std::optional<std::string> text = readAll(file.get(), kMaxTableBytes);
  if (!text) return;
  read_ += forEachLine(
      *text, [&](const SHA256Digest& mark, std::string_view path) { paths_.insert_or_assign(mark, unescaped(path)); });
}

}  // namespace platform
