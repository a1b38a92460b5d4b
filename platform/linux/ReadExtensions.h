// Read extension tokens: who issues them, and the table by which anybody checks one.
//
//   token                     "vkread1:" + hex of HMAC-SHA-256(secret, canonical device path)
//   /run/sandbox/secret       32 random bytes that only the issuing user can read, made at the first token
//   /run/sandbox/issued       "<hex of SHA-256(token)> <path, % \ and control characters escaped as %XX>\n" each
//
// The table may be read by everybody and holds no token: from it one can tell whether a token was issued and for which
// path, but not make one. The same path gives the same token for as long as the secret lasts, and one line.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "platform/linux/DeviceRoot.h"

namespace platform {

// When the table holds so many lines, those of paths that are gone are dropped; when that does not help nothing more is
// issued (ENOSPC). Both sides keep the table in memory.
inline constexpr std::size_t kMaxIssuedExtensions = 65536;

// The issuing side. Safe from any thread.
class ReadExtensionIssuer {
 public:
  explicit ReadExtensionIssuer(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
  // The token for what exists at a path; costs one look at the path when it was issued before. Nothing and errno.
  std::optional<std::string> issue(std::string_view path);

 private:
  bool open();
  bool openTable(int folder);
  bool makeRoom();
  bool append(const std::string& line);

  const std::shared_ptr<const DeviceRoot> root_;
  std::mutex mutex_;    // guards what follows
  std::string secret_;  // empty until the first token
  UniqueFd table_;
  std::unordered_set<std::string> recorded_;             // digests of tokens
  std::unordered_map<std::string, std::string> issued_;  // path to token
};

// The checking side. Safe from any thread.
class ReadExtensionTable {
 public:
  explicit ReadExtensionTable(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
  // The path that a token was issued for.
  std::optional<std::string> pathOf(std::string_view token);

 private:
  void refresh();

  const std::shared_ptr<const DeviceRoot> root_;
  std::mutex mutex_;                                    // guards what follows
  std::uint64_t device_ = 0, inode_ = 0, read_ = 0;     // which file, and how much of it is in paths_
  std::unordered_map<std::string, std::string> paths_;  // by digest
};

}  // namespace platform
