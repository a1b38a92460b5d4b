// What the services of this machine share when they read and write their files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/files/DeviceRoot.h"
#include "platform/values/DomainError.h"
#include "platform/values/PlistValue.h"

namespace platform {

// A larger manifest, preferences file or declaration is not read: each is kept in memory, and anyone may have written
// it.
inline constexpr std::uint64_t kMaxPlistFileBytes = std::uint64_t{4} << 20;

// "path: reason", with the error number; a file that is not there has the code FileErrorNoSuchFile.
DomainError fileError(std::string_view path, int errorNumber);

// Whether a name that somebody else chose can be one component of a path, and no other than that.
bool isSafeComponent(std::string_view name);

// Everything behind an open descriptor, at most `limit` bytes; nothing and errno (EFBIG when there is more).
std::optional<std::string> readAll(int fd, std::uint64_t limit);
// Writes all of it; false and errno.
bool writeAll(int fd, std::string_view bytes);

// The property list in a regular file. Nothing and *error (may be null) when it cannot be read or parsed.
PlistValue readPlistFile(const DeviceRoot& root, std::string_view devicePath, DomainError* error = nullptr,
                         std::uint64_t limit = kMaxPlistFileBytes);

// Flushes the folders above this one up to the root, so that its name survives a power cut. A folder that this process
// may not read or that cannot be flushed at all is left out: nobody made anything in it. False and errno.
bool flushFoldersAbove(const DeviceRoot& root, std::string_view folder);

// What lies in the directory under this name is replaced at once by these bytes, with exactly this mode; a link of that
// name is replaced too, not followed. `durable`: file and directory are flushed, the new content survives a power cut.
// Two writers leave the content of one of them. False and errno; the directory is then as it was.
bool replaceFile(int directory, const std::string& name, std::string_view bytes, mode_t mode, bool durable);

}  // namespace platform
