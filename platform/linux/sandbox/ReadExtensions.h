// Read extension tokens: who issues them, and the table by which anybody checks one.
//
//   token                     "vkread1:" + hex of HMAC-SHA-256(secret, canonical device path)
//   /run/sandbox/secret       32 random bytes that only the issuing user can read, made at the first token
//   /run/sandbox/issued       "<hex of mark> <path, % \ and control characters escaped as %XX>\n" each; the mark of a
//                             token is SHA-256 of the bytes of its HMAC
//
// The table may be read by everybody and holds no token: from it one can tell whether a token was issued and for which
// path, but not make one. The same path gives the same token for as long as the secret lasts, and one line.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/values/SHA.h"

namespace platform {

// Marks spread by themselves: their first bytes are their hash.
struct MarkHash {
  std::size_t operator()(const SHA256Digest& mark) const {
    std::size_t hash;
    std::memcpy(&hash, mark.data(), sizeof hash);
    return hash;
  }
};

// When the table holds so many lines, those of paths that are gone are dropped; when that does not help nothing more is
// issued (ENOSPC). Both sides keep the table in memory.
inline constexpr std::size_t kMaxIssuedExtensions = 65536;

// The issuing side. Safe from any thread.
class ReadExtensionIssuer {
 public:
  explicit ReadExtensionIssuer(std::shared_ptr<const DeviceRoot> root) : root_(std::move(root)) {}
  // The token for what exists at a path. Nothing and errno.
  std::optional<std::string> issue(std::string_view path);

 private:
  bool open();
  bool openTable(int folder);
  bool makeRoom();
  bool record(const SHA256Digest& mark, const std::string& path);

  const std::shared_ptr<const DeviceRoot> root_;
  std::mutex mutex_;                  // guards what follows
  std::optional<HMACSHA256> secret_;  // nothing until the first token
  UniqueFd table_;
  std::unordered_set<SHA256Digest, MarkHash> recorded_;
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
  std::mutex mutex_;                                 // guards what follows
  std::uint64_t device_ = 0, inode_ = 0, read_ = 0;  // which file, and how much of it is in paths_
  std::unordered_map<SHA256Digest, std::string, MarkHash> paths_;
};

}  // namespace platform
