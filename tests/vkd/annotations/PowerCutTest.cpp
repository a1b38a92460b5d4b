// Whatever a power cut leaves of a save, a start or a migration can be loaded again and says what was said to be saved.
//
// POWER_CUTS=full tries a second cut after every first one; by default after some.
#include <cstdio>

#include "platform/linux/files/LinuxFileSystem.h"
#include "platform/linux/system/LinuxUserServices.h"
#include "platform/plists/PropertyList.h"
#include "tests/Support/PlugInFixture.h"
#include "tests/Support/RegistryDevice.h"
#include "tests/fault/PowerCut.h"
#include "vkd/annotations/VKDAnnotationStore.h"

namespace vkd::testing {
namespace {

const std::string kVar = "/var";
constexpr const char* kShared = "/var/db/Vornik-Annotations";
constexpr const char* kMultiUser = "/var/db/multi-user";
constexpr std::size_t kSecondCuts = 23;

std::size_t stride() { return std::getenv("POWER_CUTS") != nullptr ? 1 : kSecondCuts; }

std::string perUser() {
  return "/var/users/" + std::to_string(::getuid()) + "/Containers/10/com.vantrel.vkd/com.vantrel.vornik/Annotations";
}

constexpr int kNone = -1;  // nothing is stored

bool isKept(const std::string& content, const fault::Tree& tree) {
  return std::any_of(tree.begin(), tree.end(), [&](const auto& file) { return file.second == content; });
}

class AnnotationPowerCut : public PlugInFixture {
 protected:
  AnnotationPowerCut() {
    services.users = std::make_shared<LinuxUserManager>(scratch.root());
    services.containers = std::make_shared<LinuxContainerService>(scratch.root());
  }
  // The number that is stored.
  int start() {
    store = nullptr;
    services.files = std::make_shared<LinuxFileSystem>(scratch.root());
    store = VKDAnnotationStore::initWithDatabase(services, std::nullopt);
    return stored();
  }
  int stored() const {
    const PlistValue annotation = store->annotationForIdentifier("test.plugin");
    return annotation ? static_cast<int>(annotation["election"].intValue()) : kNone;
  }
  fault::Oracle::Save save(int number, const fault::Recording& recording) {
    const std::size_t from = recording.now();
    store->setAnnotationForPlugIn(dictionary({{"election", number}}), *make());
    EXPECT_EQ(log.count("unable to save"), 0) << log;
    return {number, from, recording.now()};
  }
  void put(const std::string& path, int number) {
    const PlistValue data = dictionary({{"test.plugin", dictionary({{"election", number}})}});
    scratch.write(path, serializePropertyListXML(dictionary({{"version", 16}, {"data", data}})));
  }

  ScratchRoot scratch;
  Services services = device.services();
  std::unique_ptr<VKDAnnotationStore> store;
};

TEST_F(AnnotationPowerCut, LeavesTheOldOrTheNewTable) {
  const struct {
    const char* name;
    std::function<void()> prepare;
    int before;
    std::string kept;
    bool readable = true;
  } starts[] = {
      {"first start", [] {}, kNone, ""},
      {"first start, multi-user", [&] { scratch.write(kMultiUser, ""); }, kNone, ""},
      {"later start", [&] { put(kShared, 0); }, 0, ""},
      {"to multi-user", [&] { put(kShared, 0), scratch.write(kMultiUser, ""); }, 0, ""},
      {"to single-user", [&] { put(perUser(), 0); }, 0, ""},
      {"unreadable", [&] { scratch.write(kShared, "garbage"); }, kNone, "garbage"},
      {"unreadable for once", [&] { put(kShared, 0); }, 0, "", false},
  };
  std::size_t checked = 0;
  for (const auto& test : starts) {
    for (bool unnamed : {true, false}) {
      SCOPED_TRACE(std::string(test.name) + (unnamed ? "" : ", without unnamed files"));
      std::optional<fault::Trouble> without;
      if (!unnamed) without.emplace("tmpfile", EOPNOTSUPP);
      std::filesystem::remove_all(scratch.host(kVar));
      test.prepare();
      fault::Recording recording(scratch, kVar);
      fault::Oracle oracle{test.before, {}};
      {
        std::optional<fault::Trouble> trouble;
        if (!test.readable) trouble.emplace("read", EIO);
        ASSERT_EQ(start(), test.readable ? test.before : kNone);
      }
      for (int number = 1; number <= 3; ++number) oracle.saves.push_back(save(number, recording));
      for (const fault::State& state : recording.states()) {
        SCOPED_TRACE("after " + std::to_string(state.first) + " to " + std::to_string(state.last) + " operations");
        fault::restore(scratch, kVar, state);
        fault::Recording again(scratch, kVar);
        const int found = start();
        ASSERT_TRUE(oracle.allowed(state).contains(found)) << found << " is stored\n" << state;
        ASSERT_TRUE(test.kept.empty() || isKept(test.kept, state.tree)) << state;
        if (++checked % stride() != 0) continue;
        const fault::Oracle next{found, {save(4, again)}};
        for (const fault::State& second : again.states()) {
          fault::restore(scratch, kVar, second);
          const int then = start();
          ASSERT_TRUE(next.allowed(second).contains(then)) << "first " << found << ", then " << then << '\n' << second;
          ++checked;
        }
      }
    }
  }
  std::printf("%zu states\n", checked);
  EXPECT_GT(checked, 500U);
}

// A disk that is full or broken, a folder that cannot be written to: the change is kept and told, nothing lies about,
// and the next save brings it along.
TEST_F(AnnotationPowerCut, WhatCannotBeSavedIsSavedByTheNextOneThatCan) {
  const std::pair<const char*, int> troubles[] = {
      {"tmpfile", ENOSPC}, {"tmpfile", EROFS}, {"tmpfile", EACCES}, {"write", ENOSPC},   {"write", EIO},
      {"fsync", EIO},      {"linkat", ENOSPC}, {"linkat", EROFS},   {"renameat", EROFS}, {"renameat", EIO},
  };
  for (const auto& [operation, error] : troubles) {
    SCOPED_TRACE(std::string(operation) + ", error " + std::to_string(error));
    put(kShared, 0);
    ASSERT_EQ(start(), 0);
    const int told = log.count("unable to save annotations:/var/db/Vornik-Annotations error:");
    {
      fault::Trouble trouble(operation, error);
      store->setAnnotationForPlugIn(dictionary({{"election", 1}}), *make());
    }
    EXPECT_EQ(log.count("unable to save annotations:/var/db/Vornik-Annotations error:"), told + 1);
    EXPECT_EQ(stored(), 1);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(scratch.host("/var/db")), {}), 1);
    const auto other = VKDAnnotationStore::initWithDatabase(services, std::nullopt);
    EXPECT_EQ(other->annotationForIdentifier("test.plugin")["election"].intValue(), 0) << "the old file stays";
    record = FakeRecord::appex("test.other");
    store->setAnnotationForPlugIn(dictionary({{"election", 1}}), *make());
    record = FakeRecord::appex("test.plugin");
    EXPECT_EQ(start(), 1);
  }
}

TEST_F(AnnotationPowerCut, WhatCannotBeReadIsReplacedOnlyWhenItIsKept) {
  put(kShared, 0);
  const std::string old = scratch.read(kShared);
  {
    fault::Trouble trouble("read", EIO);
    EXPECT_EQ(start(), kNone);
  }
  EXPECT_EQ(log.count("(resetting)"), 1);
  for (const char* operation : {"linkat", "fsync", "write", "renameat"}) {
    fault::Trouble trouble(operation, EROFS);
    store->setAnnotationForPlugIn(dictionary({{"election", 1}}), *make());
    EXPECT_EQ(scratch.read(kShared), old) << operation;
  }
  EXPECT_EQ(log.count("unable to save"), 4);
  store->setAnnotationForPlugIn(dictionary({{"election", 1}}), *make());
  EXPECT_EQ(start(), 1);
  std::string kept;
  for (const auto& file : std::filesystem::directory_iterator(scratch.host("/var/db"))) {
    if (log.count("could not be loaded at /var/db/" + file.path().filename().string()) != 0) kept = file.path();
  }
  EXPECT_EQ(ScratchRoot::contents(kept), old) << log;
}

}  // namespace
}  // namespace vkd::testing
