// Opening a path inside a root directory, step by step: for kernels that cannot do it in one call, or that gave up
// because directories were moved meanwhile.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "platform/linux/files/UniqueFd.h"

namespace platform {

// As many links as the kernel itself follows before it says ELOOP.
inline constexpr int kMaxLinksFollowed = 40;

// As openat2 with RESOLVE_IN_ROOT (without `links` also RESOLVE_NO_SYMLINKS): an absolute link target starts at `root`,
// ".." stops at it. Each step is taken from an open directory and ".." goes back to the one that was left, so a
// directory that is moved away meanwhile leads nowhere else. An invalid descriptor and errno on failure.
UniqueFd openInRoot(int root, std::string_view path, int flags, mode_t mode, bool links);

}  // namespace platform
