// What the annotation store keeps and tells. What it is worth when files fail or power goes is PowerCutTest's.
#include <string>

#include "platform/plists/PropertyList.h"
#include "tests/Support/PlugInFixture.h"
#include "vkd/annotations/VKDAnnotationStore.h"

namespace vkd::testing {
namespace {

constexpr const char* kShared = "/var/db/Vornik-Annotations";
constexpr const char* kDirectory = "/var/users/0/Containers/10/com.vantrel.vkd/com.vantrel.vornik";

class VKDAnnotationStoreTest : public PlugInFixture {
 protected:
  void start(const std::optional<std::string>& path = std::nullopt) {
    store = nullptr;
    store = VKDAnnotationStore::initWithDatabase(services, path);
  }
  std::string failure() {
    try {
      start();
    } catch (const StartupFailure& failure) {
      return failure.what();
    }
    return "started";
  }
  void put(const std::string& path, const PlistValue& data, const PlistValue& version = 16) {
    device.files->contents[path] = serializePropertyListXML(dictionary({{"version", version}, {"data", data}}));
  }
  PlistValue fileAt(const std::string& path) { return parsePropertyList(device.files->contents[path], nullptr, 128); }
  void set(std::string identifier, const PlistValue& annotation) {
    record = FakeRecord::appex(std::move(identifier));
    store->setAnnotationForPlugIn(annotation, *make());
  }
  static PlistValue nested(int depth) {
    PlistValue value = 1;
    for (int i = 0; i < depth; ++i) value = list({value});
    return dictionary({{"extension", value}});
  }

  const Services services = device.services();
  std::unique_ptr<VKDAnnotationStore> store;
  const PlistValue elected = dictionary({{"election", 1}});
};

TEST_F(VKDAnnotationStoreTest, ChangesMergeEntriesReplaceValuesAndSaveEveryTime) {
  start();
  EXPECT_TRUE(log.lines().empty()) << "a first start is quiet" << log;
  EXPECT_EQ(device.files->writes, 0);
  set("b", elected);
  EXPECT_EQ(fileAt(kShared), dictionary({{"version", 16}, {"data", dictionary({{"b", elected}})}}));

  const PlistValue first = dictionary({{"a", 1}}), second = dictionary({{"b", 2}});
  put("/store", dictionary({{"a", dictionary({{"election", 0}, {"extension", first}, {"else", "x"}})}}));
  start("/store");
  for (const PlistValue& change : {elected, dictionary({{"extension", second}}), elected}) set("a", change);
  const PlistValue expected = dictionary({{"election", 1}, {"extension", second}, {"else", "x"}});
  EXPECT_EQ(store->annotationForIdentifier("a"), expected);
  EXPECT_EQ(fileAt("/store")["data"], dictionary({{"a", expected}}));
  EXPECT_EQ(device.files->writes, 4);
  set("b", elected);
  set("c", dictionary({}));
  set("a", PlistValue());
  EXPECT_EQ(fileAt("/store")["data"], dictionary({{"b", elected}, {"c", dictionary({})}}));
  set("b", PlistValue());
  set("c", PlistValue());
  EXPECT_EQ(fileAt("/store")["data"], dictionary({}));
}

TEST_F(VKDAnnotationStoreTest, AFileOfAnotherVersionIsToldAndKeptBesideWhenItIsReplaced) {
  for (const char* version : {"15", "0"}) {
    device.files->contents.clear();
    put(kShared, dictionary({{"a", elected}}), std::atoi(version) != 0 ? std::atoi(version) : PlistValue());
    const std::string old = device.files->contents[kShared];
    CapturedLog lines;
    start();
    const std::string problem = std::string("found database version ") + version + " needed version 16 (resetting)";
    EXPECT_TRUE(lines.has(LogLevel::Error, "ops",
                          std::string("unable to load annotation database:") + kShared + " error:" + problem))
        << lines;
    EXPECT_EQ(device.files->contents.size(), 1U) << "nothing happens before the first change";
    set("b", elected);
    EXPECT_EQ(fileAt(kShared)["data"], dictionary({{"b", elected}}));
    ASSERT_EQ(device.files->contents.size(), 2U);
    EXPECT_EQ(device.files->contents.rbegin()->second, old);
  }
}

TEST_F(VKDAnnotationStoreTest, ThePlaceFollowsTheUserModeOrTheDaemonDoesNotStart) {
  put(kShared, dictionary({{"a", elected}}));
  device.users->multiUser = true;
  start();
  EXPECT_EQ(device.files->directories.at(kDirectory), 0700U);
  EXPECT_EQ(device.files->contents.at(std::string(kDirectory) + "/Annotations"), device.files->contents.at(kShared));
  device.files->contents.erase(kShared);
  device.users->multiUser = false;
  device.files->errors["write"] = 28;
  start();
  EXPECT_EQ(store->annotationForIdentifier("a"), elected);
  EXPECT_EQ(log.count(std::string("unable to save migrated annotations to ") + kShared + " error:file error 28"), 1);

  device.users->multiUser = true;
  device.files->errors["create"] = 13;
  EXPECT_EQ(failure(),
            std::string("unable to create plugin annotations directory:") + kDirectory + " error:file error 13");
  EXPECT_EQ(log.count("failed to create storage directory at /var/users"), 1);
  device.containers->container = std::nullopt;
  EXPECT_EQ(failure(), "unable to locate user container: error 9");
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "failed to get storage container: error=9"));
}

TEST_F(VKDAnnotationStoreTest, WhatXMLCannotCarryKeepsNothingElseFromBeingSaved) {
  start("/store");
  const std::string zero("x\0y", 3);
  const PlistValue odd = dictionary({{zero, zero}, {"d", PlistValue::date(1e15)}, {"l", list({"\xFF", "good"})}});
  set("a", elected);
  set("a", dictionary({{"extension", odd}}));
  set(zero, elected);
  set("deep", nested(100));
  set("deeper", nested(126));
  EXPECT_EQ(store->annotationForIdentifier("a")["extension"], odd);
  set("b", elected);
  EXPECT_EQ(log.count("cannot be saved and is kept in memory only"), 2) << "told once a change" << log;
  start("/store");
  const PlistValue mended = dictionary({{"x\uFFFDy", "x\uFFFDy"}, {"l", list({"\uFFFD", "good"})}});
  EXPECT_EQ(store->annotationForIdentifier("a"), PlistBuilder(elected).set("extension", mended).take());
  EXPECT_EQ(store->annotationForIdentifier("b"), elected);
  EXPECT_EQ(store->annotationForIdentifier("deep"), nested(100));
  EXPECT_EQ(fileAt("/store")["data"].size(), 3U);
}

TEST_F(VKDAnnotationStoreTest, ASnapshotStaysAsItWas) {
  start("/store");
  set("a", elected);
  AnnotationSnapshot snapshot = store->snapshot();
  set("a", PlistValue());
  set("b", elected);
  EXPECT_EQ(snapshot->annotation("a"), elected);
  EXPECT_FALSE(snapshot->annotation("b"));
  snapshot = store->snapshot();
  const AnnotationTable* table = snapshot.get();
  snapshot = nullptr;
  set("c", elected);
  EXPECT_EQ(store->snapshot().get(), table) << "nobody looks: no copy is made";
}

}  // namespace
}  // namespace vkd::testing
