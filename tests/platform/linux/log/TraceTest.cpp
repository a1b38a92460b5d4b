#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "platform/Trace.h"

extern "C" volatile unsigned short vkd_request_input_semaphore;

namespace platform {
namespace {

std::string outputOf(const char* command) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command, "r"), ::pclose);
  std::string text;
  std::array<char, 4096> buffer{};
  while (std::size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) text.append(buffer.data(), got);
  return text;
}

void fireAll() {
  trace::clientNew(1);
  trace::clientDone(1);
  trace::request(1, nullptr);
  trace::requestInput(1, "text");
  trace::requestOutput(1, "text");
  trace::pluginAdd("/path");
  trace::pluginRemove("/path", true);
  trace::pluginReady("uuid");
  trace::discoverRaw(3);
  trace::dbLoad("domain", 4);
}

TEST(Trace, ProbesStandInTheProgramWithTheirNamesAndArguments) {
  fireAll();
  std::string notes = outputOf(("readelf -n /proc/" + std::to_string(::getpid()) + "/exe 2>/dev/null").c_str());
  if (notes.empty()) GTEST_SKIP() << "no readelf here";
  // With the size of the first argument, negative when it is signed.
  using Probes = std::vector<std::string>;
  const std::pair<std::string, Probes> probes[] = {
      {"-4", {"client-new", "client-done", "request", "request-input", "request-output"}},
      {"8", {"plugin-add", "plugin-remove", "plugin-ready", "db-load"}},
      {"4", {"discover-raw"}}};
  for (const auto& [size, names] : probes) {
    for (const std::string& name : names) {
      std::size_t at = notes.find("Provider: vkd\n    Name: " + name + "\n");
      ASSERT_NE(at, notes.npos) << name;
      std::string note = notes.substr(at, notes.find("stapsdt", at) - at);
      EXPECT_NE(note.find("Arguments: " + size + "@"), note.npos) << note;
      EXPECT_EQ(note.find("Semaphore: 0x0000000000000000"), note.npos) << note;
    }
  }
}

TEST(Trace, AreEnabledWhileATracerCounts) {
  EXPECT_FALSE(trace::requestInputEnabled());
  vkd_request_input_semaphore = 1;
  EXPECT_TRUE(trace::requestInputEnabled());
  EXPECT_FALSE(trace::pluginReadyEnabled());
  vkd_request_input_semaphore = 0;
}

}  // namespace
}  // namespace platform
