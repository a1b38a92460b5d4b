// The form of the file in which the registry keeps what is registered: entries that are only ever appended, the last
// one of a key counts. Nothing is aligned, numbers are in the byte order of the machine (the file never leaves it).
//
//   file    = magic "VKCATAL1", entries
//   entry   = head, key, payload
//   head    = u32 key length | u32 payload length | u32 checksum of key and payload | u32 checksum of the 12 bytes
//   removal = an entry without payload
//
// Reading stops at the first entry that is not whole. Where the file ends in the midst of an entry whose head is whole,
// or holds nothing but zeros from there on, an append was cut short: what it was to say is not said. Anything else is
// damage.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/values/SharedBytes.h"

namespace platform {

inline constexpr std::string_view kJournalMagic = "VKCATAL1";
// No key (a letter and a path) and no payload (a manifest and entitlements) is longer: what is, was never written.
inline constexpr std::uint32_t kMaxJournalKey = 4096;
inline constexpr std::uint32_t kMaxJournalPayload = std::uint32_t{32} << 20;

void appendJournalEntry(std::string& out, std::string_view key, std::string_view payload);
// The bytes of an entry with its head.
std::uint64_t journalEntrySize(std::string_view key, std::uint64_t payloadSize);

struct JournalEnd {
  enum class State { Whole, Torn, Damaged, NoJournal, ReadError };
  State state = State::Whole;
  std::uint64_t offset = 0;  // behind the last whole entry
  int errorNumber = 0;       // with ReadError
};

// Reads an open file from its start. `visit` is told each whole entry in order; the payload keeps the block of the file
// alive in which it was read, and is empty for a removal.
using JournalVisitor = std::function<void(std::string_view key, const SharedSlice& payload)>;
JournalEnd readJournal(int fd, const JournalVisitor& visit);

}  // namespace platform
