#include <set>
#include <string>
#include <thread>

#include "platform/linux/queues/WorkQueue.h"
#include "platform/plists/PropertyList.h"
#include "tests/Support/PlugInFixture.h"
#include "vkd/plugins/VKDatabase.h"

namespace vkd::testing {
namespace {

using Names = std::multiset<std::string>;

struct Delegate : VKDatabaseDelegate {
  std::function<void(const RegistryPlugInRecords&)> told;
  void removedPlugIns(const RegistryPlugInRecords& records) override { told(records); }
};

class VKDatabaseTest : public ::testing::Test {
 protected:
  VKDatabaseTest() { database->setCacheLimit(100); }
  std::shared_ptr<FakeRecord> install(std::string identifier, const PlistValue& rights = {}) {
    auto record = device.registry->add(FakeRecord::appex(std::move(identifier)));
    record->rights = rights;
    return record;
  }
  Names found(const PlistValue& query = {}) {
    Names identifiers;
    const auto plugIns = database->findPlugIns(query);
    for (const auto& plugIn : plugIns.value()) identifiers.insert(plugIn->identifier());
    return identifiers;
  }
  Names elected(const PlistValue& pattern) { return found(dictionary({{"ZoUserElection", pattern}})); }
  void annotate(std::string_view name, const PlistValue& annotation) {
    database->setAnnotationForPlugIn(annotation, *database->findPlugIn(uuidOf(name)));
  }
  PlistValue stored(const std::string& identifier) {
    return parsePropertyList(device.files->contents["/store"])["data"][identifier];
  }
  static PlistValue election(std::int64_t number) { return dictionary({{"election", number}}); }

  CapturedLog log;
  FakeServices device;
  std::shared_ptr<VKDatabase> database = VKDatabase::initWithDatabase(device.services(), "/store");
  const PlistValue autoElect = dictionary({{"com.vantrel.developer.auto-elect-plugin", true}});
};

TEST_F(VKDatabaseTest, AnEmptyQueryFindsWhatCanBeServedOnce) {
  install("a");
  device.registry->add(install("twice"));
  install("nowhere")->url = std::nullopt;
  install("placeholder")->containing->placeholder = true;
  install("wrong")->containing->application = false;
  install("misconfigured")->container = std::nullopt;
  auto system = install("system");
  system->containing = nullptr;
  system->url = FileURL{"/System/Library/PlugIns/s.appex"};
  const Names expected{"a", "system", "twice"};
  EXPECT_EQ(found(), expected);
  EXPECT_EQ(found(dictionary({})), expected);
  for (const char* line :
       {"skipping al proxy <nowhere", "because its app is a placeholder", "8 installedPlugins: (<a ",
        "AL reported containingBundle is not an application", "ignoring mis-configured plug-in at"}) {
    EXPECT_EQ(log.count(line), 2) << line;
  }
  EXPECT_EQ(log.count("AL reported 3 plug-ins (cache 0/3)") + log.count("AL reported 3 plug-ins (cache 3/3)"), 2);
  device.registry->installed = std::nullopt;
  EXPECT_FALSE(database->findPlugIns(PlistValue()));
}

TEST_F(VKDatabaseTest, ACachedPlugInIsTheSameObjectWithoutReadingItsRecord) {
  auto record = install("a");
  const auto plugIn = database->findPlugIns(PlistValue()).value().front();
  const int reads = record->urlReads, entries = device.queues->named("VKDatabase").entries();
  EXPECT_EQ(database->findPlugIns(PlistValue()).value().front(), plugIn);
  EXPECT_EQ(device.queues->named("VKDatabase").entries(), entries + 2) << "not once a record";
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
  const auto once = *device.registry->installed;
  device.registry->installed->insert(device.registry->installed->end(), once.begin(), once.end());
  EXPECT_EQ(found(), (Names{"a", "b", "c", "d"})) << "none twice, whatever is purged meanwhile";
}

TEST_F(VKDatabaseTest, LookupsAnswerNothingAndSaySo) {
  EXPECT_EQ(database->findPlugIn(uuidOf("unknown")), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "Catalon cannot find plug-in with UUID:" + uuidOf("unknown").text()));
  EXPECT_EQ(database->findPlugInAtPath(FileURL{"/nowhere"}), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "Catalon cannot find plug-in at path:/nowhere"));
  EXPECT_FALSE(database->plugInsWithinApplication(FileURL{"/Applications/None.app"}));
  EXPECT_FALSE(database->plugInsWithinApplication(kHostApp));
  install("z");
  install("bad")->container = std::nullopt;
  install("a");
  EXPECT_EQ(database->findPlugInAtPath(FileURL{pathOf("a")}), database->findPlugIn(uuidOf("a")));
  const auto within = database->plugInsWithinApplication(kHostApp).value();
  ASSERT_EQ(within.size(), 2U);
  EXPECT_EQ(within.front()->identifier(), "z");
}

TEST_F(VKDatabaseTest, ElectionsArePreselected) {
  for (const char* name : {"one", "two", "flagged", "never"}) install(name);
  install("auto", autoElect);
  install("replaces", dictionary({{"com.vantrel.developer.replace-plugin", "two"}}));
  annotate("one", election(1));
  annotate("two", election(2));
  annotate("flagged", election(257));
  EXPECT_EQ(elected("=1"), (Names{"auto", "flagged", "one"}));
  EXPECT_EQ(elected(list({"1", "2"})), (Names{"auto", "flagged", "one", "replaces", "two"}));
  EXPECT_EQ(elected("0"), Names{"never"});
  for (const PlistValue& nothing : {PlistValue("01"), list({})}) EXPECT_EQ(elected(nothing), Names{});
  EXPECT_GT(log.count("al filter two -> 1"), 0);
  for (const PlistValue& open : {PlistValue("<2"), PlistValue(""), PlistValue(1), list({"1", "<2"}), list({"1", 1})}) {
    EXPECT_EQ(elected(open).size(), 6U) << open.description();
  }
}

TEST_F(VKDatabaseTest, PlugInsThatAskForItAreElectedWhenTheyAreMade) {
  const PlistValue settings = dictionary({{"x", 1}});
  install("fresh", autoElect);
  install("off", dictionary({{"com.vantrel.developer.auto-elect-plugin", false}}));
  install("replaces", PlistBuilder(autoElect).set("com.vantrel.developer.replace-plugin", "replaced").take());
  const auto zero = install("zero"), chosen = install("chosen"), extended = install("extended");
  annotate("zero", election(0));
  annotate("chosen", election(2));
  annotate("extended", dictionary({{"extension", settings}}));
  for (const auto& record : {zero, chosen, extended}) {
    record->rights = autoElect;
    device.registry->observer->pluginsWillUninstall({record});
  }
  found();
  for (const char* name : {"fresh", "zero", "replaced"}) EXPECT_EQ(stored(name), election(1)) << name;
  EXPECT_EQ(stored("chosen"), election(2));
  EXPECT_EQ(stored("extended"), dictionary({{"election", 1}, {"extension", settings}}));
  EXPECT_FALSE(stored("off"));
  EXPECT_EQ(database->annotationSnapshot()->annotation("fresh"), election(1));
  EXPECT_TRUE(device.notifier->posts.empty());
}

TEST_F(VKDatabaseTest, UninstallsEmptyTheCacheAndTellTheDelegateOutsideTheQueue) {
  auto record = install("a");
  device.registry->observer->pluginsDidInstall({record});
  const std::string text = "bundle a(1) " + record->uuid->text() + " " + record->url->path;
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", "plug-in INSTALLED:" + text));
  annotate("a", election(7));
  auto delegate = std::make_shared<Delegate>();
  std::size_t told = 0;
  delegate->told = [&](const RegistryPlugInRecords& records) {
    told += records.size();
    EXPECT_EQ(database->findPlugIn(*record->uuid), nullptr);
  };
  database->setDelegate(delegate);
  device.registry->uninstall(record);
  EXPECT_EQ(told, 1U);
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", "plug-in UNINSTALLED:" + text));
  EXPECT_EQ(stored("a"), election(7)) << "annotations survive";
  delegate = nullptr;
  device.registry->uninstall(record);
  EXPECT_EQ(told, 1U);
}

// On real queues: lookups with snapshots of the annotations, changes of them and uninstalls at the same time.
TEST(VKDatabaseThreadsTest, LookupsChangesAndUninstallsDoNotDisturbEachOther) {
  CapturedLog log(LogLevel::Fault);
  FakeServices device;
  Services services = device.services();
  services.queues = makeWorkQueues();
  const auto database = VKDatabase::initWithDatabase(services, "/store");
  database->setCacheLimit(15);
  for (int i = 0; i < 20; ++i) device.registry->add(FakeRecord::appex("p" + std::to_string(i)));
  const RegistryPlugInRecords records = *device.registry->installed;
  const std::function<void(int)> look = [&](int) {
    EXPECT_EQ(database->findPlugIns(PlistValue())->size(), records.size());
    EXPECT_LE(database->findPlugIns(dictionary({{"ZoUserElection", "1"}}))->size(), 1U);
  };
  const std::function<void(int)> uninstall = [&](int i) {
    device.registry->observer->pluginsWillUninstall({records[i % 20]});
  };
  const std::function<void(int)> annotate = [&](int i) {
    const auto plugIn = database->plugInForProxy(records[i % 20]);
    database->setAnnotationForPlugIn(dictionary({{"election", i}}), *plugIn);
  };
  constexpr int kRounds = 200;
  std::vector<std::thread> threads;
  for (const auto& body : {look, look, uninstall, annotate}) {
    threads.emplace_back([body] {
      for (int i = 0; i < kRounds; ++i) body(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(database->annotationSnapshot()->annotation("p19"), dictionary({{"election", kRounds - 1}}));
}

}  // namespace
}  // namespace vkd::testing
