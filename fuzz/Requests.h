// The requests that a record of fuzz input can stand for.
#pragma once

#include <cstddef>
#include <string_view>

#include "Vornik/VKProtocol.h"

namespace vkd::testing {

inline constexpr std::string_view kTypes[] = {
    Vornik::kVKRequestAdd,      Vornik::kVKRequestRemove,       Vornik::kVKRequestBulk,
    Vornik::kVKRequestMatch,    Vornik::kVKRequestReady,        Vornik::kVKRequestAccess,
    Vornik::kVKRequestAnnotate, Vornik::kVKRequestBulkAnnotate, Vornik::kVKRequestLock};
// What comes before the message of a record: u8 who asks and what for, u16 length.
inline constexpr std::size_t kRecordHead = 3;

}  // namespace vkd::testing
