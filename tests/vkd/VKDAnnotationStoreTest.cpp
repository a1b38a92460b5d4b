#include <string>

#include "platform/PropertyList.h"
#include "tests/vkd/PlugInFixture.h"
#include "vkd/VKDAnnotationStore.h"

namespace vkd::testing {
namespace {

constexpr const char* kShared = "/var/db/Vornik-Annotations";
constexpr const char* kPerUser = "/var/users/0/Containers/10/com.vantrel.vkd/com.vantrel.vornik/Annotations";

class VKDAnnotationStoreTest : public PlugInFixture {
 protected:
  void start(const std::optional<std::string>& path = std::nullopt) {
    store = nullptr;
    store = VKDAnnotationStore::initWithDatabase(services, path);
  }
  void put(const std::string& path, const PlistValue& data, int version = 16) {
    device.files->contents[path] = serializePropertyListXML(dictionary({{"version", version}, {"data", data}}));
  }
  PlistValue fileAt(const std::string& path) { return parsePropertyList(device.files->contents[path], nullptr, 128); }
  void set(std::string identifier, const PlistValue& annotation) {
    record = FakeRecord::appex(std::move(identifier));
    store->setAnnotationForPlugIn(annotation, *make());
  }
  std::vector<std::string> asides() {
    std::vector<std::string> found;
    for (const auto& [path, bytes] : device.files->contents) {
      if (path.find(".unreadable-") != std::string::npos) found.push_back(path);
    }
    return found;
  }

  const Services services = device.services();
  std::unique_ptr<VKDAnnotationStore> store;
  const PlistValue elected = dictionary({{"election", 1}});
};

TEST_F(VKDAnnotationStoreTest, AFirstStartIsQuietAndWritesNothing) {
  start();
  EXPECT_TRUE(log.lines().empty()) << log.all();
  EXPECT_EQ(device.files->writes, 0);
  EXPECT_FALSE(store->annotationForIdentifier("a"));
  set("a", elected);
  EXPECT_EQ(fileAt(kShared), dictionary({{"version", 16}, {"data", dictionary({{"a", elected}})}}));
}

TEST_F(VKDAnnotationStoreTest, ChangesMergeEntriesReplaceValuesAndSaveEveryTime) {
  put("/store",
      dictionary({{"a", dictionary({{"election", 0}, {"extension", dictionary({{"a", 1}})}, {"else", "x"}})}}));
  start("/store");
  set("a", elected);
  set("a", dictionary({{"extension", dictionary({{"b", 2}})}}));
  const PlistValue expected = dictionary({{"election", 1}, {"extension", dictionary({{"b", 2}})}, {"else", "x"}});
  EXPECT_EQ(store->annotationForIdentifier("a"), expected);
  EXPECT_EQ(fileAt("/store")["data"], dictionary({{"a", expected}}));
  set("a", elected);
  EXPECT_EQ(device.files->writes, 3);
  set("b", elected);
  set("c", dictionary({}));
  set("a", PlistValue());
  EXPECT_EQ(fileAt("/store")["data"], dictionary({{"b", elected}, {"c", dictionary({})}}));
  set("b", PlistValue());
  set("c", PlistValue());
  EXPECT_EQ(fileAt("/store")["data"], dictionary({}));
}

TEST_F(VKDAnnotationStoreTest, AFileThatCannotBeLoadedIsLoggedAndKeptBesideBeforeItIsReplaced) {
  const struct {
    std::function<void()> spoil;
    std::string error;
  } cases[] = {
      {[&] {
         put(kShared, dictionary({{"a", elected}}), 15);
       },
       "found database version 15 needed version 16"},
      {[&] { device.files->contents[kShared] = serializePropertyListXML(dictionary({})); },
       "found database version 0 needed version 16"},
      {[&] { device.files->contents[kShared] = "garbage"; }, ""},
      {[&] { device.files->readError = 5; }, "file error 5"},
  };
  for (const auto& test : cases) {
    device.files->contents.clear();
    put(kShared, dictionary({{"a", elected}}));
    test.spoil();
    const std::string bad = device.files->contents[kShared];
    LogCapture lines;
    start();
    device.files->readError = 0;
    EXPECT_EQ(lines.count("unable to load annotation database:/var/db/Vornik-Annotations error:" + test.error), 1);
    EXPECT_EQ(lines.count("(resetting)"), 1);
    EXPECT_FALSE(store->annotationForIdentifier("a"));
    EXPECT_TRUE(asides().empty()) << "nothing happens before the first change";
    set("b", elected);
    set("c", elected);
    ASSERT_EQ(asides().size(), 1U);
    EXPECT_EQ(device.files->contents[asides().front()], bad);
    EXPECT_EQ(lines.count(asides().front()), 1);
    EXPECT_EQ(fileAt(kShared)["data"].size(), 2U);
  }
}

TEST_F(VKDAnnotationStoreTest, AFileThatCannotBeKeptAsideIsNotReplaced) {
  device.files->contents[kShared] = "garbage";
  start();
  device.files->keepError = 30;
  set("a", elected);
  EXPECT_EQ(device.files->contents[kShared], "garbage");
  EXPECT_EQ(log.count("unable to save annotations:/var/db/Vornik-Annotations error:file error 30"), 1);
  device.files->keepError = 0;
  set("b", elected);
  EXPECT_EQ(asides().size(), 1U);
  EXPECT_EQ(fileAt(kShared)["data"], dictionary({{"a", elected}, {"b", elected}}));
}

TEST_F(VKDAnnotationStoreTest, ChangingTheUserModeTakesTheOtherModesFileOver) {
  put(kShared, dictionary({{"a", elected}}));
  device.users->multiUser = true;
  start();
  EXPECT_EQ(device.files->directories.at("/var/users/0/Containers/10/com.vantrel.vkd/com.vantrel.vornik"), 0700U);
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", std::string("annotations are stored at ") + kPerUser));
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "migrating shared annotations"));
  EXPECT_EQ(device.files->contents.at(kPerUser), device.files->contents.at(kShared));

  device.files->contents.erase(kShared);
  device.users->multiUser = false;
  device.files->writeError = 28;
  start();
  EXPECT_EQ(store->annotationForIdentifier("a"), elected);
  EXPECT_TRUE(log.has(LogLevel::Error, "ops",
                      "unable to save migrated annotations to /var/db/Vornik-Annotations error:file error 28"));
}

TEST_F(VKDAnnotationStoreTest, WithoutAPlaceTheDaemonDoesNotStart) {
  const auto reason = [&] {
    try {
      start();
      return std::string("started");
    } catch (const StartupFailure& failure) {
      return std::string(failure.what());
    }
  };
  device.users->multiUser = true;
  device.files->directoryError = 13;
  EXPECT_EQ(reason(),
            "unable to create plugin annotations directory:"
            "/var/users/0/Containers/10/com.vantrel.vkd/com.vantrel.vornik error:file error 13");
  EXPECT_EQ(log.count("failed to create storage directory at /var/users"), 1);
  device.containers->container = std::nullopt;
  device.containers->errorCode = 9;
  EXPECT_EQ(reason(), "unable to locate user container: error 9");
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "failed to get storage container: error=9"));
}

TEST_F(VKDAnnotationStoreTest, WhatXMLCannotCarryKeepsNothingElseFromBeingSaved) {
  start("/store");
  const std::string zero("x\0y", 3);
  const PlistValue poison = dictionary(
      {{"extension", dictionary({{zero, zero}, {"d", PlistValue::date(1e15)}, {"l", list({"\xFF", "good"})}})}});
  set("a", elected);
  set("a", poison);
  set(zero, elected);
  PlistValue deep = 1;
  for (int i = 0; i < 126; ++i) deep = list({deep});
  set("deep", dictionary({{"extension", deep}}));
  EXPECT_EQ(store->annotationForIdentifier("a")["extension"], poison["extension"]);
  EXPECT_EQ(log.count("cannot be saved and is kept in memory only"), 2) << log.all();
  set("b", elected);
  EXPECT_EQ(log.count("cannot be saved and is kept in memory only"), 2) << "told once a change";

  const PlistValue saved = fileAt("/store")["data"];
  EXPECT_EQ(saved.size(), 2U);
  EXPECT_EQ(saved["b"], elected);
  EXPECT_EQ(saved["a"],
            dictionary({{"election", 1},
                        {"extension", dictionary({{"x\uFFFDy", "x\uFFFDy"}, {"l", list({"\uFFFD", "good"})}})}}));
}

TEST_F(VKDAnnotationStoreTest, DeepAnnotationsAreReadBack) {
  start("/store");
  PlistValue deep = 1;
  for (int i = 0; i < 100; ++i) deep = list({deep});
  set("a", dictionary({{"extension", deep}}));
  start("/store");
  EXPECT_EQ(store->annotationForIdentifier("a")["extension"], deep);
}

TEST_F(VKDAnnotationStoreTest, ASnapshotStaysAsItWas) {
  start("/store");
  set("a", elected);
  AnnotationSnapshot snapshot = store->snapshot();
  set("a", PlistValue());
  set("b", elected);
  EXPECT_EQ(snapshot->annotation("a"), elected);
  EXPECT_FALSE(snapshot->annotation("b"));
  EXPECT_EQ(fileAt("/store")["data"], dictionary({{"b", elected}}));
  snapshot = store->snapshot();
  const AnnotationTable* table = snapshot.get();
  snapshot = nullptr;
  set("c", elected);
  EXPECT_EQ(store->snapshot().get(), table) << "nobody looks: no copy is made";
}

}  // namespace
}  // namespace vkd::testing
