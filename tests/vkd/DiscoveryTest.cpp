// "match": each filter, the choice among versions, replacement, and that the assembled reply is what encoding the forms
// would have given.
#include <gtest/gtest.h>

#include "tests/vkd/FakeDaemon.h"
#include "vkd/Discovery.h"

namespace vkd::testing {
namespace {

using Names = std::vector<std::string>;
constexpr std::uint64_t kAllVersions = 0x1, kDuplicates = 0x4, kSystemOnly = 0x8, kEverything = 0x200;

struct DiscoveryRequest : ::testing::Test {
  FakeDaemon daemon;
  FakeClient client = daemon.connect();
  LogCapture log;

  // A plug-in of one version in an application of its own, so that several may have one identifier.
  std::shared_ptr<FakeRecord> install(const std::string& identifier, const char* version = "1.0", double date = 0) {
    auto record = daemon.install(identifier, PlistBuilder().set(kVKExtensionVersion, version).take());
    record->url = FileURL{"/Applications/App" + record->uuid->text() + ".app/PlugIns/" + identifier + ".appex"};
    record->date = date;
    return record;
  }
  std::shared_ptr<FakeRecord> installSystem(const std::string& identifier, const char* version = "1.0",
                                            double date = 0) {
    auto record = install(identifier, version, date);
    record->url = FileURL{"/System/Library/PlugIns/" + record->uuid->text() + ".appex"};
    record->containing = nullptr;
    record->system = true;
    return record;
  }
  void place(FakeRecord& record, std::string_view folder) {
    record.url = FileURL{std::string(folder) + "/" + record.identifier + ".appex"};
  }

  static PlistValue forms(const Message& reply) {
    const Message* matches = reply.get("matches");
    return matches != nullptr && matches->kind() == Message::Kind::Plist ? matches->toPlist() : PlistValue();
  }
  // The UUIDs of the matches in order, by the names under which `names` knows them.
  PlistValue match(std::uint64_t flags = 0, const Message& rules = {}) { return match(client, flags, rules); }
  static PlistValue match(FakeClient& by, std::uint64_t flags = 0, const Message& rules = {}) {
    return forms(by.ask("match", {{"flags", flags}, {"rules", rules}}));
  }
  static Names identifiers(const PlistValue& list) { return column(list, "identifier"); }
  static Names column(const PlistValue& list, std::string_view key) {
    EXPECT_TRUE(list.isArray());
    Names names;
    for (const PlistValue& form : list.elements()) names.emplace_back(form[key].stringValue());
    return names;
  }
  static Names uuidsOf(std::initializer_list<std::shared_ptr<FakeRecord>> records) {
    Names names;
    for (const auto& record : records) names.push_back(record->uuid->text());
    return names;
  }
};

TEST_F(DiscoveryRequest, SendsTheCompletedFormsInTheOrderOfAcceptance) {
  auto a = install("a"), b = install("b");
  auto plugIn = daemon.server->findPlugIn(*b->uuid);
  daemon.server->setAnnotationForPlugIn(PlistBuilder().set("election", 1).take(), *plugIn);
  b->rights = PlistBuilder().set("right", true).take();
  const Message reply = client.ask("match");
  std::vector<PlistValue> expected;
  for (const auto& record : {a, b}) {
    auto each = daemon.server->findPlugIn(*record->uuid);
    std::optional<DomainError> error;
    PlistBuilder form(each->exportForm(&error));
    PlistValue annotation = daemon.server->annotationForPlugIn(*each);
    form.set(kVKFormAnnotations, annotation ? annotation : PlistBuilder().take());
    each->augmentForm(form);
    expected.push_back(form.take());
  }
  const PlistValue array = PlistValue::array(expected);
  EXPECT_EQ(forms(reply), array);
  ASSERT_NE(reply.get("matches"), nullptr);
  EXPECT_EQ(reply.get("matches")->as<Rope>()->flat().view(), encodePlist(array).flat().view());
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "match returned 2 plug-ins"));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "reply marshalled"));
}

TEST_F(DiscoveryRequest, AnswersAnEmptyListAndNoListInTheOldVersion) {
  EXPECT_EQ(match(), PlistValue::array({}));
  daemon.device.registry->installed = std::nullopt;
  EXPECT_EQ(match(), PlistValue::array({}));
  EXPECT_EQ(client.tell(messageOf({{"version", std::uint64_t{2}}, {"request", "match"}})), success());
}

TEST_F(DiscoveryRequest, RefusesMoreThanAMessageHoldsAndAnswersWhoAsksForLess) {
  auto large = install("p0");
  large->changeManifest("Filler", std::string(kMaxMessageBytes / 16, 'x'));
  for (int i = 1; i < 16; ++i) install("p" + std::to_string(i))->manifest = large->manifest;
  EXPECT_EQ(client.ask("match"), failure(4, "the matching plug-ins exceed the size of a message"));
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "client 77 asked for 16 plug-ins at once, more than a message can hold"));
  daemon.device.registry->installed->pop_back();
  EXPECT_EQ(match().size(), 15U);
}

TEST_F(DiscoveryRequest, RefusesRulesThatAreNoDictionaryAndUnauthorizedFlags) {
  EXPECT_EQ(client.ask("match", {{"rules", "x"}}), failure(4, "invalid request format (bad rules dictionary)"));
  const Message refusal = failure(11, "unauthorized discovery flag (VKDiscoverAll)");
  EXPECT_EQ(client.ask("match", {{"flags", kEverything}}), refusal);
  daemon.device.sandbox->sandboxed.insert(5);
  EXPECT_EQ(daemon.connectManager(5).ask("match", {{"flags", kEverything}}), refusal);
  EXPECT_EQ(daemon.connectManager(6).ask("match", {{"flags", kEverything}}).get("error"), nullptr);
}

TEST_F(DiscoveryRequest, LeavesOutWhatIsNeitherOfTheSystemNorInAnApplication) {
  auto loose = installSystem("loose");
  loose->system = false;
  install("inside");
  installSystem("system");
  EXPECT_EQ(identifiers(match()), (Names{"inside", "system"}));
  EXPECT_EQ(identifiers(match(kSystemOnly)), Names{"system"});
  FakeClient manager = daemon.connectManager();
  EXPECT_EQ(identifiers(match(manager, kEverything | kSystemOnly)), (Names{"loose", "inside", "system"}));
}

TEST_F(DiscoveryRequest, ShowsADedicatedPlugInToItsOwnApplicationOnly) {
  auto record = install("dedicated");
  record->changeSection(kVKDedicated, true);
  place(*record, "/Applications/Host.app/PlugIns");
  EXPECT_EQ(identifiers(match()), Names{"dedicated"});
  daemon.codeSigning->processes[5].path = "/Applications/Other.app/run";
  FakeClient other = daemon.connect(5);
  EXPECT_EQ(identifiers(match(other)), Names{});
  FakeClient unknown = daemon.connect(std::make_shared<FakeConnection>(6));
  EXPECT_EQ(identifiers(match(unknown)), Names{});
}

TEST_F(DiscoveryRequest, HidesHeldPlugInsUntilTheyAreReleased) {
  auto record = install("a");
  install("b");
  FakeClient manager = daemon.connectManager();
  auto hold = VKDPlugInHold::initWithPlugInsForClient(daemon.messages, {daemon.server->findPlugIn(*record->uuid)},
                                                      manager.object());
  daemon.server->addHold(hold);
  EXPECT_EQ(identifiers(match()), Names{"b"});
  EXPECT_EQ(identifiers(match(manager, kEverything)), (Names{"a", "b"}));
  daemon.server->unholdToken(hold->uuid());
  EXPECT_EQ(identifiers(match()), (Names{"a", "b"}));
}

TEST_F(DiscoveryRequest, AppliesRulesAndExclusionsToEverybody) {
  install("a");
  auto excluded = install("b");
  install("c");
  FakeClient manager = daemon.connectManager();
  daemon.device.preferences->exclusions =
      PlistValue::array({PlistValue(5), PlistBuilder().set(kVKRuleIdentifier, "b").take()});
  EXPECT_EQ(identifiers(match()), (Names{"a", "c"}));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "client 77 plugin " + excluded->uuid->text() + " globally excluded"));
  EXPECT_EQ(identifiers(match(manager, kEverything, messageOf({{kVKRuleIdentifier, ">=b"}}))), Names{"c"});
}

TEST_F(DiscoveryRequest, AppliesTheHostPolicyLast) {
  auto record = install("a");
  record->changeSection(kVKExtensionHostEntitlement, "special");
  EXPECT_EQ(identifiers(match()), Names{});
  EXPECT_TRUE(log.has(
      LogLevel::Debug, "ops",
      "client 77 cannot use plugin " + record->uuid->text() + R"(: the host does not have the "special" entitlement)"))
      << log.all();
  FakeClient manager = daemon.connectManager();
  EXPECT_EQ(identifiers(match(manager, kEverything)), Names{"a"});
  EXPECT_EQ(log.count("cannot use plugin"), 1);
  EXPECT_EQ(identifiers(match(0, messageOf({{kVKRuleIdentifier, "z"}}))), Names{});
  EXPECT_EQ(log.count("cannot use plugin"), 1) << "the rules come first";
}

TEST_F(DiscoveryRequest, LeavesOutWhatCannotBeExported) {
  auto record = install("a");
  record->setSection(
      PlistBuilder(record->plugInDictionary()).set(kVKExtensionAttributes, PlistBuilder().take()).take());
  install("b");
  EXPECT_EQ(identifiers(match()), Names{"b"});
  EXPECT_EQ(log.count("failed to export matching plug-in " + record->uuid->text() + ": "), 1) << log.all();
}

TEST_F(DiscoveryRequest, KeepsTheHighestVersionOfEachIdentifier) {
  auto low = install("a", "1.9");
  auto other = install("b");
  auto high = install("a", "1.10");
  auto lower = install("a", "1.2");
  EXPECT_EQ(column(match(), "uuid"), uuidsOf({other, high}));
  EXPECT_EQ(column(match(kDuplicates), "uuid"), uuidsOf({other, high})) << "means nothing by itself";
  EXPECT_EQ(column(match(kAllVersions), "uuid"), uuidsOf({low, other, high, lower}));
}

TEST_F(DiscoveryRequest, ChoosesAmongCopiesOfOneVersion) {
  struct Case {
    const char* what;
    bool firstOfSystem, secondOfSystem;
    double firstDate, secondDate;
    bool secondWins;
  };
  for (const Case& c : {
           Case{"system copy after an application's", false, true, 9, 1, true},
           Case{"application's copy, older, after the system's", true, false, 5, 4, false},
           Case{"application's copy, later, after the system's", true, false, 4, 5, true},
           Case{"later system copy after the system's", true, true, 4, 5, true},
           Case{"earlier system copy after the system's", true, true, 5, 4, false},
           Case{"later of two applications", false, false, 4, 5, true},
           Case{"equal times", false, false, 5, 5, false},
       }) {
    daemon.device.registry->installed = RegistryPlugInRecords();
    auto first = c.firstOfSystem ? installSystem("a", "1", c.firstDate) : install("a", "1", c.firstDate);
    auto second = c.secondOfSystem ? installSystem("a", "1", c.secondDate) : install("a", "1", c.secondDate);
    const Names winner = uuidsOf({c.secondWins ? second : first});
    EXPECT_EQ(column(match(), "uuid"), winner) << c.what;
    EXPECT_EQ(column(match(kAllVersions), "uuid"), winner) << c.what;
    EXPECT_EQ(column(match(kAllVersions | kDuplicates), "uuid"), uuidsOf({first, second})) << c.what;
  }
}

TEST_F(DiscoveryRequest, ComparesEachVersionWithItsOwnCopiesOnly) {
  auto one = install("a", "1", 1);
  auto two = install("a", "2", 1);
  auto laterTwo = install("a", "2.0", 2);
  auto latestOne = install("a", "01", 3);
  auto laterOne = install("a", "1", 2);
  EXPECT_EQ(column(match(kAllVersions), "uuid"), uuidsOf({two, laterTwo, latestOne}))
      << "2 and 2.0 differ, 1 and 01 do not";
  EXPECT_EQ(column(match(), "uuid"), uuidsOf({laterTwo}));
  EXPECT_EQ(column(match(kAllVersions | kDuplicates), "uuid"), uuidsOf({one, two, laterTwo, latestOne, laterOne}));
}

TEST_F(DiscoveryRequest, LinksReplacementsWithWhatTheyReplace) {
  auto replaced = install("old"), alsoReplaced = install("older");
  auto replacing = install("new");
  replacing->rights =
      PlistBuilder().set(kVKEntitlementReplacePlugIn, PlistValue::array({PlistValue("old"), PlistValue(5)})).take();
  auto self = install("self");
  self->rights = PlistBuilder().set(kVKEntitlementReplacePlugIn, "self").take();
  auto nobody = install("nobody");
  nobody->rights = PlistBuilder().set(kVKEntitlementReplacePlugIn, true).take();
  const PlistValue list = match();
  EXPECT_EQ(column(list, "uuid"), uuidsOf({replaced, alsoReplaced, replacing, self, nobody}));
  const std::string by = replacing->uuid->text(), own = self->uuid->text();
  EXPECT_EQ(column(list, "overrider"), (Names{by, "", "", own, ""}));
  EXPECT_EQ(column(list, "overriding"), (Names{"", "", "old", "self", ""}));
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "plug-in " + by + " overrides " + replaced->uuid->text()));
  EXPECT_EQ(list, encodePlist(list).size() != 0 ? decodePlist(encodePlist(list).flat()) : PlistValue());
}

TEST_F(DiscoveryRequest, KeepsTheClaimOfAReplacementThatLostToAHigherVersion) {
  auto first = install("new", "1");
  first->rights = PlistBuilder().set(kVKEntitlementReplacePlugIn, "old").take();
  auto second = install("new", "2");
  auto old = install("old");
  const PlistValue list = match();
  EXPECT_EQ(column(list, "uuid"), uuidsOf({second, old}));
  EXPECT_EQ(column(list, "overrider"), (Names{"", first->uuid->text()}));
}

TEST_F(DiscoveryRequest, TellsWhichFilterDecided) {
  auto kept = install("a", "2");
  auto lost = install("a", "1");
  auto refused = install("b");
  client.object()->beginRequest();
  Discovery discovery(*daemon.server, *client.object(), PlistBuilder().set(kVKRuleIdentifier, "a").take(), 0, 3);
  EXPECT_TRUE(discovery.consider(daemon.server->findPlugIn(*kept->uuid)));
  const Verdict byVersion = discovery.consider(daemon.server->findPlugIn(*lost->uuid));
  EXPECT_EQ(byVersion.filter, Verdict::Filter::Version);
  EXPECT_EQ(byVersion.uuid, *kept->uuid);
  const Verdict byRules = discovery.consider(daemon.server->findPlugIn(*refused->uuid));
  EXPECT_EQ(byRules.filter, Verdict::Filter::Rules);
  EXPECT_EQ(byRules.key, kVKRuleIdentifier);
}

}  // namespace
}  // namespace vkd::testing
