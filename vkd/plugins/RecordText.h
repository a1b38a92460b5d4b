// How records of the application registry print in the log.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/Registry.h"
#include "platform/values/Format.h"

namespace vkd {

struct RecordText {
  const platform::RegistryPlugInRecord& record;
};

struct RecordsText {
  const std::optional<platform::RegistryPlugInRecords>& records;
};

// A list of all plug-ins of a device would fill the log.
inline constexpr std::size_t kMaxRecordsText = 4096;

// "<identifier uuid path>".
inline void describeTo(std::string& out, const RecordText& text) {
  const auto url = text.record.bundleURL();
  (out += '<') += text.record.plugInIdentifier();
  out += ' ';
  platform::describeTo(out, text.record.plugInUUID());
  ((out += ' ') += url ? url->path : "(null)") += '>';
}

inline void describeTo(std::string& out, const RecordsText& text) {
  if (!text.records) {
    out += "(null)";
    return;
  }
  const std::size_t start = out.size();
  out += '(';
  for (const auto& record : *text.records) {
    if (out.size() - start > kMaxRecordsText) {
      out += "…";
      break;
    }
    if (out.back() != '(') out += ", ";
    describeTo(out, RecordText{*record});
  }
  out += ')';
}

}  // namespace vkd
