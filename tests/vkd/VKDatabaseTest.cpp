#include <set>
#include <string>
#include <thread>

#include "platform/PropertyList.h"
#include "platform/linux/WorkQueue.h"
#include "tests/vkd/PlugInFixture.h"
#include "vkd/VKDatabase.h"

namespace vkd::testing {
namespace {

struct Delegate : VKDatabaseDelegate {
  std::function<void(const RegistryPlugInRecords&)> told;
  void removedPlugIns(const RegistryPlugInRecords& records) override { told(records); }
};

class VKDatabaseTest : public ::testing::Test {
 protected:
  VKDatabaseTest() {
    database = VKDatabase::initWithDatabase(device.services(), "/store");
    database->setCacheLimit(100);
  }
  std::shared_ptr<FakeRecord> install(std::string identifier, const PlistValue& rights = {}) {
    auto record = device.registry->add(FakeRecord::appex(std::move(identifier)));
    record->rights = rights;
    return record;
  }
  std::multiset<std::string> found(const PlistValue& query = {}) {
    std::multiset<std::string> identifiers;
    const auto plugIns = database->findPlugIns(query);
    for (const auto& plugIn : plugIns.value()) identifiers.insert(plugIn->identifier());
    return identifiers;
  }
  std::multiset<std::string> elected(const PlistValue& pattern) {
    return found(dictionary({{"ZoUserElection", pattern}}));
  }
  void annotate(const FakeRecord& record, std::int64_t election) {
    database->setAnnotationForPlugIn(dictionary({{"election", election}}), *database->findPlugIn(*record.uuid));
  }
  PlistValue stored(const std::string& identifier) {
    return parsePropertyList(device.files->contents["/store"])["data"][identifier];
  }

  LogCapture log;
  FakeServices device;
  std::shared_ptr<VKDatabase> database;
  const PlistValue autoElect = dictionary({{"com.vantrel.developer.auto-elect-plugin", true}});
};

TEST_F(VKDatabaseTest, AnEmptyQueryFindsWhatCanBeServedOnce) {
  install("a");
  auto twice = install("twice");
  device.registry->add(twice);
  install("nowhere")->url = std::nullopt;
  install("placeholder")->containing->placeholder = true;
  install("wrong")->containing->application = false;
  install("misconfigured")->container = std::nullopt;
  auto system = install("system");
  system->containing = nullptr;
  system->url = FileURL{"/System/Library/PlugIns/s.appex"};
  const std::multiset<std::string> expected{"a", "system", "twice"};
  EXPECT_EQ(found(), expected);
  EXPECT_EQ(found(dictionary({})), expected);
  EXPECT_EQ(log.count("skipping al proxy <nowhere"), 2);
  EXPECT_EQ(log.count("because its app is a placeholder"), 2);
  EXPECT_EQ(log.count("AL reported containingBundle is not an application"), 2);
  EXPECT_EQ(log.count("ignoring mis-configured plug-in at"), 2) << "what cannot be built is not cached";
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "AL reported 3 plug-ins (cache 0/3)")) << log.all();
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "AL reported 3 plug-ins (cache 3/3)"));
  EXPECT_EQ(log.count("8 installedPlugins: (<a "), 2);
  device.registry->installed = std::nullopt;
  EXPECT_FALSE(database->findPlugIns(PlistValue()));
}

TEST_F(VKDatabaseTest, ACachedPlugInIsTheSameObjectWithoutReadingItsRecord) {
  auto record = install("a");
  const auto plugIn = database->findPlugIns(PlistValue()).value().front();
  const int reads = record->urlReads;
  const int entries = device.queues->named("VKDatabase").entries;
  EXPECT_EQ(database->findPlugIns(PlistValue()).value().front(), plugIn);
  EXPECT_EQ(device.queues->named("VKDatabase").entries, entries + 2) << "not once a record";
  EXPECT_EQ(database->findPlugIn(*record->uuid), plugIn);
  EXPECT_EQ(database->plugInForProxy(record), plugIn);
  EXPECT_EQ(record->urlReads, reads + 1) << "for the log of the registry's answer only";
  EXPECT_EQ(device.registry->uuidLookups, 0);
}

TEST_F(VKDatabaseTest, TheCacheIsPurgedWholeWhenItIsAboveItsLimit) {
  database->setCacheLimit(2);
  for (const char* name : {"a", "b", "c", "d"}) database->findPlugIn(*install(name)->uuid);
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "purging cache for 3 > 2"));
  EXPECT_EQ(log.count("purging cache"), 1);
  EXPECT_EQ(device.registry->cacheClears, 1);
  database->setCacheLimit(0);
  EXPECT_EQ(found(), (std::multiset<std::string>{"a", "b", "c", "d"}));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "AL reported 4 plug-ins (cache 1/1)")) << log.all();
}

TEST_F(VKDatabaseTest, APurgeInTheMiddleLeavesNoPlugInTwice) {
  database->setCacheLimit(0);
  for (const char* name : {"a", "b"}) install(name);
  const auto once = *device.registry->installed;
  for (const auto& record : once) device.registry->installed->push_back(record);
  EXPECT_EQ(found(), (std::multiset<std::string>{"a", "b"}));
}

TEST_F(VKDatabaseTest, LookupsAnswerNothingAndSaySo) {
  const UUID unknown = UUID::random();
  EXPECT_EQ(database->findPlugIn(unknown), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "Catalon cannot find plug-in with UUID:" + unknown.text()));
  EXPECT_EQ(database->findPlugInAtPath(FileURL{"/nowhere"}), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "Catalon cannot find plug-in at path:/nowhere"));
  const auto record = install("a");
  EXPECT_EQ(database->findPlugInAtPath(*record->url), database->findPlugIn(*record->uuid));

  EXPECT_FALSE(database->plugInsWithinApplication(FileURL{"/Applications/Host.app"}));
  auto app = device.registry->apps["/Applications/Host.app"] = std::make_shared<FakeAppRecord>();
  EXPECT_FALSE(database->plugInsWithinApplication(FileURL{"/Applications/Host.app"}));
  auto bad = FakeRecord::appex("bad");
  bad->container = std::nullopt;
  app->list = {install("z"), bad, record};
  const auto within = database->plugInsWithinApplication(FileURL{"/Applications/Host.app"}).value();
  ASSERT_EQ(within.size(), 2U);
  EXPECT_EQ(within.front()->identifier(), "z");
}

TEST_F(VKDatabaseTest, RegistrationPassesTheRegistrysAnswerOn) {
  EXPECT_FALSE(database->addPlugIn(FileURL{"/p"}));
  device.registry->accepts = false;
  EXPECT_EQ(*database->addPlugIn(FileURL{"/p"})->description, "Catalon failed to register the plug-in");
  EXPECT_EQ(*database->removePlugIn(FileURL{"/q"})->description, "Catalon failed to deregister the plug-in");
  EXPECT_EQ(database->removePlugIn(FileURL{"/q"})->code, VKErrorRegistry);
}

TEST_F(VKDatabaseTest, ElectionsArePreselected) {
  const auto one = install("one"), two = install("two"), flagged = install("flagged");
  install("never");
  install("auto", autoElect);
  install("replaces", dictionary({{"com.vantrel.developer.replace-plugin", "two"}}));
  annotate(*one, 1);
  annotate(*two, 2);
  annotate(*flagged, 257);
  EXPECT_EQ(elected("=1"), (std::multiset<std::string>{"auto", "flagged", "one"}));
  EXPECT_EQ(elected(list({"1", "2"})), (std::multiset<std::string>{"auto", "flagged", "one", "replaces", "two"}));
  EXPECT_EQ(elected("0"), (std::multiset<std::string>{"never"}));
  EXPECT_EQ(elected("01"), (std::multiset<std::string>{}));
  EXPECT_EQ(elected(list({})), (std::multiset<std::string>{}));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "al filter two -> 1"));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "al filter two -> 0"));
  for (const PlistValue& open : {PlistValue("<2"), PlistValue(""), PlistValue(1), list({"1", "<2"}), list({"1", 1})}) {
    EXPECT_EQ(elected(open).size(), 6U) << open.description();
  }
}

TEST_F(VKDatabaseTest, PlugInsThatAskForItAreElectedWhenTheyAreMade) {
  const auto fresh = install("fresh", autoElect), zero = install("zero"), chosen = install("chosen"),
             extended = install("extended");
  install("off", dictionary({{"com.vantrel.developer.auto-elect-plugin", false}}));
  install("replaces", PlistBuilder(autoElect).set("com.vantrel.developer.replace-plugin", "replaced").take());
  annotate(*zero, 0);
  annotate(*chosen, 2);
  database->setAnnotationForPlugIn(dictionary({{"extension", dictionary({{"x", 1}})}}),
                                   *database->findPlugIn(*extended->uuid));
  for (const auto& record : {zero, chosen, extended}) {
    record->rights = autoElect;
    device.registry->observer->pluginsWillUninstall({record});
  }
  found();
  const PlistValue one = dictionary({{"election", 1}});
  EXPECT_EQ(stored("fresh"), one);
  EXPECT_EQ(stored("zero"), one);
  EXPECT_EQ(stored("chosen"), dictionary({{"election", 2}}));
  EXPECT_EQ(stored("extended"), dictionary({{"election", 1}, {"extension", dictionary({{"x", 1}})}}));
  EXPECT_FALSE(stored("off"));
  EXPECT_EQ(stored("replaced"), one);
  EXPECT_TRUE(device.notifier->posts.empty());
  EXPECT_EQ(database->annotationForPlugIn(*database->findPlugIn(*fresh->uuid)), one);
  EXPECT_EQ(database->annotationSnapshot()->annotation("fresh"), one);
  database->notifyAnnotationChange();
  EXPECT_EQ(device.notifier->posts, std::vector<std::string>{"com.vantrel.vornik.annotation-change"});
}

TEST_F(VKDatabaseTest, UninstallsEmptyTheCacheAndTellTheDelegateOutsideTheQueue) {
  auto record = install("a");
  device.registry->observer->pluginsDidInstall({record});
  const std::string text = "bundle a(1) " + record->uuid->text() + " " + record->url->path;
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", "plug-in INSTALLED:" + text));
  annotate(*record, 7);
  auto delegate = std::make_shared<Delegate>();
  int told = 0;
  delegate->told = [&](const RegistryPlugInRecords& records) {
    told += static_cast<int>(records.size());
    EXPECT_EQ(database->findPlugIn(*record->uuid), nullptr);
  };
  database->setDelegate(delegate);
  device.registry->uninstall(record);
  EXPECT_EQ(told, 1);
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", "plug-in UNINSTALLED:" + text));
  EXPECT_EQ(stored("a"), dictionary({{"election", 7}})) << "annotations survive";
  delegate = nullptr;
  device.registry->uninstall(record);
  EXPECT_EQ(told, 1);
}

// On real queues: lookups with snapshots of the annotations, changes of them and uninstalls at the same time.
TEST(VKDatabaseThreadsTest, LookupsChangesAndUninstallsDoNotDisturbEachOther) {
  setLogSink([](const LogLine&) {}, LogLevel::Fault);
  FakeServices device;
  Services services = device.services();
  services.queues = makeWorkQueues();
  const auto database = VKDatabase::initWithDatabase(services, "/store");
  database->setCacheLimit(15);
  for (int i = 0; i < 20; ++i) device.registry->add(FakeRecord::appex("p" + std::to_string(i)));
  const RegistryPlugInRecords records = *device.registry->installed;
  constexpr int kRounds = 200;
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) device.registry->observer->pluginsWillUninstall({records[i % 20]});
  });
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) {
      const auto plugIn = database->plugInForProxy(records[i % 20]);
      database->setAnnotationForPlugIn(dictionary({{"election", i}}), *plugIn);
    }
  });
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        EXPECT_EQ(database->findPlugIns(PlistValue())->size(), records.size());
        EXPECT_LE(database->findPlugIns(dictionary({{"ZoUserElection", "1"}}))->size(), 1U);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  setLogSink({});
  EXPECT_EQ(database->annotationSnapshot()->annotation("p19"), dictionary({{"election", kRounds - 1}}));
}

}  // namespace
}  // namespace vkd::testing
