// Whatever a power cut leaves of the registry's records can be read, and holds every registration that was reported.
//
// POWER_CUTS=full cuts every recovery off, too; by default some.
#include <cstdio>

#include "tests/Support/CapturedLog.h"
#include "tests/Support/RegistryDevice.h"
#include "tests/fault/PowerCut.h"

namespace {

using namespace platform;
using namespace support;

const std::string kVar = "/var";
constexpr const char* kFound = "/System/Library/PlugIns/Found.appex";  // registered because it lies there
constexpr const char* kSmall = "/opt/Small.appex";
constexpr const char* kLarge = "/opt/Large.appex";
constexpr std::size_t kLargeSize = 150'000;  // so that the journal is rewritten soon
constexpr std::size_t kSecondCuts = 11;

using Registered = std::map<std::string, std::string>;  // path → UUID

class RegistryPowerCut : public testing::TestWithParam<const char*> {
 protected:
  RegistryPowerCut() {
    device.writeBundle(kFound, plugInManifest("found"));
    device.writeBundle(kSmall, plugInManifest("small"));
    device.writeBundle(kLarge,
                       PlistBuilder(plugInManifest("large")).set("Padding", std::string(kLargeSize, 'x')).take());
  }
  Registered registered() {
    Registered result;
    for (const char* path : {kFound, kSmall, kLarge}) {
      auto record = registry->plugInRecord(FileURL{path});
      if (!record) continue;
      result[path] = record->plugInUUID()->text();
      EXPECT_TRUE(record->dataContainerURL()) << path;
    }
    return result;
  }
  Registered start() {
    registry = device.open();
    return registered();
  }
  // What is registered after a start from what a cut left; it ends in good order.
  Registered startFrom(const fault::State& state) {
    fault::restore(device, kVar, state);
    Registered result = start();
    registry = nullptr;
    return result;
  }
  void step(const char* path, bool add, const fault::Recording& recording) {
    const std::size_t from = recording.now();
    ASSERT_TRUE(add ? registry->registerPlugIn(FileURL{path}) : registry->unregisterPlugIn(FileURL{path}));
    oracle.saves.push_back({static_cast<int>(told.size()), from, recording.now()});
    told.push_back(registered());
  }
  // Each plug-in is as it was after a step that may be the stored one.
  bool isAllowed(Registered found, const fault::State& state) {
    const std::set<int> steps = oracle.allowed(state);
    for (const char* path : {kFound, kSmall, kLarge}) {
      const bool fits = std::any_of(steps.begin(), steps.end(), [&](int step) {
        // What lies there and was not stored is found, and registered anew.
        return step == 0 && path == kFound ? true : told[static_cast<std::size_t>(step)][path] == found[path];
      });
      if (!fits) return false;
    }
    return true;
  }

  RegistryDevice device;
  CapturedLog log{LogLevel::Error};
  std::shared_ptr<RegistryWorkspace> registry;
  fault::Oracle oracle{0, {}};
  std::vector<Registered> told{{}};
};

TEST_P(RegistryPowerCut, LosesNoRegistrationThatWasReported) {
  std::filesystem::create_directories(device.host(GetParam()));
  fault::Recording recording(device, kVar);
  told.push_back(start());
  oracle.saves.push_back({1, 0});  // nobody was told
  for (bool add : {true, false, true}) step(kSmall, add, recording);
  for (bool add : {true, false, true, false, true}) step(kLarge, add, recording);
  step(kFound, false, recording);
  registry = nullptr;
  std::size_t checked = 0;
  std::set<std::size_t> recoveries;
  const std::size_t stride = std::getenv("POWER_CUTS") != nullptr ? 1 : kSecondCuts;
  for (const fault::State& state : recording.states()) {
    SCOPED_TRACE("after " + std::to_string(state.first) + " to " + std::to_string(state.last) + " operations");
    log.clear();
    fault::restore(device, kVar, state);
    fault::Recording again(device, kVar);
    ASSERT_TRUE(isAllowed(start(), state)) << state << log;
    registry = nullptr;
    // Each kind of recovery, and some more.
    const bool fresh = recoveries.insert(again.now()).second;
    if (++checked % stride != 0 && !fresh) continue;
    for (const fault::State& second : again.states()) {
      ASSERT_TRUE(isAllowed(startFrom(second), state)) << "after the recovery was cut off\n" << state << second << log;
      ++checked;
    }
  }
  std::printf("%zu states\n", checked);
  EXPECT_GT(checked, 150U);
}

// Folders that are there from the start.
INSTANTIATE_TEST_SUITE_P(With, RegistryPowerCut, testing::Values("/", "/var/db", "/var/db/catalon"));

TEST(RegistryTrouble, WhatCannotBeStoredIsToldOnceAndStoredWhenItCan) {
  const std::pair<const char*, int> troubles[] = {
      {"mkdirat", EROFS}, {"create", ENOSPC}, {"create", EROFS},  {"pwrite", ENOSPC},
      {"pwrite", EIO},    {"fsync", EIO},     {"fdatasync", EIO},
  };
  for (const auto& [operation, error] : troubles) {
    SCOPED_TRACE(std::string(operation) + ", error " + std::to_string(error));
    RegistryDevice device;
    CapturedLog log(LogLevel::Error);
    for (const char* path : {kSmall, kLarge}) device.writeBundle(path, plugInManifest(path + 5));
    device.writeBundle(kFound, plugInManifest("found"));
    std::shared_ptr<RegistryWorkspace> registry;
    auto uuidOf = [&](const char* path) {
      auto record = registry->plugInRecord(FileURL{path});
      return record ? record->plugInUUID() : std::nullopt;
    };
    {
      fault::Trouble trouble(operation, error);
      registry = device.open();
      EXPECT_TRUE(registry->registerPlugIn(FileURL{kSmall}));
    }
    EXPECT_TRUE(uuidOf(kSmall)) << "it lasts as long as the process";
    EXPECT_TRUE(registry->registerPlugIn(FileURL{kLarge}));
    const auto small = uuidOf(kSmall), large = uuidOf(kLarge), found = uuidOf(kFound);
    registry = nullptr;
    registry = device.open();
    EXPECT_EQ(uuidOf(kSmall), small);
    EXPECT_EQ(uuidOf(kLarge), large);
    EXPECT_EQ(uuidOf(kFound), found);
    const auto lines = log.lines();
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [](const LogLine& line) { return line.text.find(" registrations, ") != std::string::npos; }),
        1)
        << log;
  }
}

}  // namespace
