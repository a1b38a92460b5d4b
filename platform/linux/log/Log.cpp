#include "platform/Log.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace platform {
namespace {

// A peer chooses some of the texts. More of one than this helps nobody, and the system journal splits longer lines.
constexpr std::size_t kMaxTextBytes = std::size_t{16} << 10;

struct LevelName {
  std::string_view name;
  std::string_view journalPriority;
};
constexpr std::array<LevelName, 5> kLevels{{
    {"debug", "<7>"},
    {"info", "<6>"},
    {"default", "<5>"},
    {"error", "<3>"},
    {"fault", "<2>"},
}};

const LevelName& nameOf(LogLevel level) { return kLevels[static_cast<std::size_t>(level)]; }

// What the environment says, read once.
struct Settings {
  LogLevel least = LogLevel::Default;
  Privacy privacy = Privacy::HidePrivate;
  bool journal = false;

  Settings() {
    if (const char* wanted = std::getenv("VANTREL_LOG")) {
      for (std::size_t i = 0; i < kLevels.size(); ++i) {
        if (kLevels[i].name == wanted) least = static_cast<LogLevel>(i);
      }
    }
    const char* showPrivate = std::getenv("VANTREL_LOG_PRIVATE");
    if (showPrivate != nullptr && std::string_view(showPrivate) == "1") privacy = Privacy::ShowAll;
    // The variable is inherited by shells too, whose standard error is not the journal.
    journal = std::getenv("JOURNAL_STREAM") != nullptr && ::isatty(STDERR_FILENO) == 0;
  }
};

const Settings& settings() {
  static const Settings value;
  return value;
}

// The test's sink, never destroyed: threads may log until the process ends.
struct Sink {
  std::function<void(const LogLine&)> function;
  LogLevel least = LogLevel::Debug;
};
std::atomic<Sink*> currentSink{nullptr};

void appendTime(std::string& out) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  ::gmtime_r(&now.tv_sec, &utc);
  std::array<char, 64> text{};
  std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  length += static_cast<std::size_t>(
      std::snprintf(text.data() + length, text.size() - length, ".%06ldZ ", now.tv_nsec / 1000));
  out.append(text.data(), length);
}

// Control characters are spelled out: an entry stays one line, and a terminal is told nothing by somebody's file name.
// 0xC2 with 0x80 to 0x9F are the control characters beyond ASCII.
void appendEscaped(std::string& out, std::string_view text) {
  constexpr std::string_view kHex = "0123456789abcdef";
  auto isControl = [&](std::size_t at) {
    unsigned char c = static_cast<unsigned char>(text[at]);
    if (c < 0x20 || c == 0x7F) return true;
    return c >= 0x80 && c < 0xA0 && at > 0 && text[at - 1] == '\xC2';
  };
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\n') {
      out += "\\n";
    } else if (isControl(at)) {
      unsigned char c = static_cast<unsigned char>(text[at]);
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += text[at];
    }
  }
}

void writeToStandardError(LogLevel level, std::string_view category, std::string_view text) {
  std::string line;
  line.reserve(text.size() + category.size() + 48);
  if (settings().journal) {
    line += nameOf(level).journalPriority;
  } else {
    appendTime(line);
  }
  line.append(nameOf(level).name).append(" ").append(category).append(": ");
  appendEscaped(line, text.substr(0, kMaxTextBytes));
  if (text.size() > kMaxTextBytes) line += "...";
  line += '\n';
  // One call a line, so that lines of several threads never mix. What cannot be written is lost: there is nobody to
  // tell.
  while (::write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
  }
}

// Whether the name can stand in a line and be found there again.
bool isUsable(std::string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return static_cast<unsigned char>(c) > 0x20 && c != 0x7F && c != ':';
  });
}

}  // namespace

bool Logger::enabled(LogLevel level) const {
  const Sink* sink = currentSink.load(std::memory_order_acquire);
  return level >= (sink != nullptr ? sink->least : settings().least);
}

void Logger::writeArguments(LogLevel level, std::string_view format, const FormatArgument* arguments) const {
  if (const Sink* sink = currentSink.load(std::memory_order_acquire)) {
    sink->function({level, category_, formatArguments(format, arguments, Privacy::ShowAll)});
    return;
  }
  writeToStandardError(level, category_, formatArguments(format, arguments, settings().privacy));
}

std::unique_ptr<Logger> makeLogger(std::string_view subsystem, std::string_view category) {
  if (!isUsable(subsystem) || !isUsable(category)) return nullptr;
  return std::make_unique<Logger>(std::string(category));
}

// Never destroyed, because threads may log until the process ends.
const Logger& defaultLog() {
  static const Logger* log = new Logger("default");
  return *log;
}

const Logger& systemLog() {
  static const Logger* log = new Logger("system");
  return *log;
}

void setLogSink(std::function<void(const LogLine&)> sink, LogLevel least) {
  Sink* next = sink ? new Sink{std::move(sink), least} : nullptr;
  delete currentSink.exchange(next, std::memory_order_acq_rel);
}

}  // namespace platform
