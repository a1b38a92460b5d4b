// "match": each filter, the choice among versions, replacement, and that the assembled reply is what encoding the forms
// would have given.
#include <gtest/gtest.h>

#include "tests/Support/FakeDaemon.h"
#include "vkd/discovery/Discovery.h"

namespace vkd::testing {
namespace {

constexpr std::uint64_t kAllVersions = 0x1, kDuplicates = 0x4, kSystemOnly = 0x8, kEverything = 0x200;

struct DiscoveryRequest : ::testing::Test {
  FakeDaemon daemon;
  FakeClient client = daemon.connect();
  CapturedLog log;

  // Several may have one identifier, so each has a label of its own, and an application, which makes it easy to tell.
  struct Copy {
    const char* version = "1.0";
    double date = 0;
    bool system = false;
  };
  std::shared_ptr<FakeRecord> install(const std::string& label, const std::string& identifier, const Copy& copy) {
    auto record = daemon.install(identifier, dictionary({{std::string(kVKExtensionVersion), copy.version}}));
    const std::string folder = copy.system ? "/System/Library" : "/Applications/" + label + ".app";
    record->url = FileURL{folder + "/PlugIns/" + label + ".appex"};
    record->uuid = uuidOf(label);
    record->date = copy.date;
    record->system = copy.system;
    if (copy.system) record->containing = nullptr;
    return record;
  }
  std::shared_ptr<FakeRecord> install(const std::string& identifier) { return install(identifier, identifier, {}); }
  void grant(FakeRecord& record, const PlistValue& replaced) {
    record.rights = dictionary({{std::string(kVKEntitlementReplacePlugIn), replaced}});
  }

  static PlistValue match(FakeClient by, std::uint64_t flags = 0, const Message& rules = {}) {
    const Message reply = by.ask("match", {{"flags", flags}, {"rules", rules}});
    const Message* matches = reply.get("matches");
    EXPECT_TRUE(matches != nullptr && matches->kind() == Message::Kind::Plist) << reply.description();
    return matches != nullptr ? matches->toPlist() : PlistValue();
  }
  static std::string label(const PlistValue& uuid) {
    const auto parsed = UUID::parse(uuid.stringValue());
    return parsed ? std::string(parsed->bytes.begin(), std::ranges::find(parsed->bytes, 0)) : "-";
  }
  // The labels that a key of the forms tells, in order.
  static std::string labels(const PlistValue& forms, std::string_view key = "uuid") {
    EXPECT_TRUE(forms.isArray());
    std::string text;
    for (const PlistValue& form : forms.elements()) text += (text.empty() ? "" : " ") + label(form[key]);
    return text;
  }
  std::string seen(std::uint64_t flags = 0) { return labels(match(client, flags)); }
};

TEST_F(DiscoveryRequest, SendsTheCompletedFormsInTheOrderOfAcceptance) {
  auto a = install("a"), b = install("b");
  daemon.server->setAnnotationForPlugIn(dictionary({{"election", 1}}), *daemon.plugIn("b"));
  b->rights = dictionary({{"right", true}});
  const Message reply = client.ask("match");
  std::vector<PlistValue> expected;
  for (const char* name : {"a", "b"}) {
    auto plugIn = daemon.plugIn(name);
    PlistBuilder form(plugIn->exportForm(nullptr));
    const PlistValue annotation = daemon.annotation(name);
    form.set(kVKFormAnnotations, annotation ? annotation : dictionary({}));
    plugIn->augmentForm(form);
    expected.push_back(form.take());
  }
  ASSERT_NE(reply.get("matches"), nullptr);
  EXPECT_EQ(reply.get("matches")->as<Rope>()->flat().view(), encodePlist(list(expected)).flat().view());
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "match returned 2 plug-ins"));
  const Message old = messageOf({{"version", std::uint64_t{2}}, {"request", "match"}});
  EXPECT_EQ(client.tell(old), success()) << "the old version carries no property lists";
  for (bool answers : {true, false}) {
    daemon.device.registry->installed.emplace();
    if (!answers) daemon.device.registry->installed = std::nullopt;
    EXPECT_EQ(match(client), list({}));
  }
}

TEST_F(DiscoveryRequest, RefusesMoreThanAMessageHoldsAndAnswersWhoAsksForLess) {
  auto large = install("p0");
  large->changeManifest("Filler", std::string(kMaxMessageBytes / 16, 'x'));
  for (int i = 1; i < 16; ++i) install("p" + std::to_string(i))->manifest = large->manifest;
  EXPECT_EQ(client.ask("match"), failure(4, "the matching plug-ins exceed the size of a message"));
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "client 77 asked for 16 plug-ins at once, more than a message can hold"));
  daemon.device.registry->installed->pop_back();
  EXPECT_EQ(match(client).size(), 15U);
}

TEST_F(DiscoveryRequest, ShowsEachClientWhatItMaySee) {
  install("inside");
  install("system", "system", {.system = true});
  install("loose", "loose", {.system = true})->system = false;
  auto dedicated = install("dedicated");
  dedicated->changeSection(kVKDedicated, true);
  dedicated->url = FileURL{pathOf("dedicated")};
  auto held = install("held");
  daemon.device.files->directories[held->url->path] = 0755;
  install("excluded");
  install("guarded")->changeSection(kVKExtensionHostEntitlement, "special");
  install("broken")->changeSection(kVKExtensionAttributes, dictionary({}));
  daemon.device.preferences->exclusions = list({5, dictionary({{std::string(kVKRuleIdentifier), "excluded"}})});
  FakeClient manager = daemon.connectManager(), entitled = daemon.connect(5, dictionary({{"special", true}}));
  daemon.device.codeSigning->processes[6].path = "/Applications/Other.app/run";
  FakeClient other = daemon.connect(6), unknown = daemon.connect(std::make_shared<FakePeer>(7));
  client.tell(lockRequest({held->url->path}, 2));

  const struct {
    const char* who;
    FakeClient client;
    std::uint64_t flags;
    const char* seen;
  } cases[] = {
      {"its application", client, 0, "inside system dedicated"},
      {"its application", client, kSystemOnly, "system"},
      {"another application", other, 0, "inside system"},
      {"nobody knows who", unknown, 0, "inside system"},
      {"entitled", entitled, 0, "inside system dedicated guarded"},
      {"a manager", manager, 0, "inside system dedicated"},
      {"a manager", manager, kEverything | kSystemOnly, "inside system loose dedicated held guarded"},
  };
  for (const auto& test : cases) EXPECT_EQ(labels(match(test.client, test.flags)), test.seen) << test.who;
  EXPECT_EQ(labels(match(manager, kEverything, messageOf({{kVKRuleIdentifier, ">=i"}}))), "inside system loose");
  daemon.server->unholdClient(*client.object());
  EXPECT_EQ(seen(), "inside system dedicated held");

  const std::string guarded = uuidOf("guarded").text();
  EXPECT_GT(log.count("client 77 plugin " + uuidOf("excluded").text() + " globally excluded"), 0);
  EXPECT_GT(log.count("client 77 cannot use plugin " + guarded + R"(: the host does not have the "special")"), 0);
  EXPECT_GT(log.count("failed to export matching plug-in " + uuidOf("broken").text() + ": "), 0) << log;
  const Message refusal = failure(11, "unauthorized discovery flag (VKDiscoverAll)");
  EXPECT_EQ(client.ask("match", {{"flags", kEverything}}), refusal);
  daemon.device.sandbox->sandboxed.insert(FakeDaemon::kPid + 1);
  EXPECT_EQ(manager.ask("match", {{"flags", kEverything}}), refusal);
}

TEST_F(DiscoveryRequest, KeepsTheHighestVersionOfEachIdentifierOrEach) {
  for (const char* version : {"1.9", "1.10", "1.2"}) install(std::string("a") + version, "a", {version});
  install("b1", "b", {"1", 1});
  install("b2", "b", {"2", 1});
  install("b2.0late", "b", {"2.0", 2});
  install("b01latest", "b", {"01", 3});
  install("b1late", "b", {"1", 2});
  EXPECT_EQ(seen(), "a1.10 b2.0late");
  EXPECT_EQ(seen(kDuplicates), seen()) << "means nothing by itself";
  EXPECT_EQ(seen(kAllVersions), "a1.9 a1.10 a1.2 b2 b2.0late b01latest") << "2 and 2.0 differ, 1 and 01 do not";
  EXPECT_EQ(seen(kAllVersions | kDuplicates), "a1.9 a1.10 a1.2 b1 b2 b2.0late b01latest b1late");
}

TEST_F(DiscoveryRequest, ChoosesAmongCopiesOfOneVersion) {
  constexpr bool kApplication = false, kSystem = true;
  const struct {
    const char* what;
    Copy first, second;
    const char* winner;
  } cases[] = {
      {"system copy after an application's", {"1", 9, kApplication}, {"1", 1, kSystem}, "second"},
      {"application's copy, older, after the system's", {"1", 5, kSystem}, {"1", 4, kApplication}, "first"},
      {"application's copy, later, after the system's", {"1", 4, kSystem}, {"1", 5, kApplication}, "second"},
      {"later system copy after the system's", {"1", 4, kSystem}, {"1", 5, kSystem}, "second"},
      {"earlier system copy after the system's", {"1", 5, kSystem}, {"1", 4, kSystem}, "first"},
      {"later of two applications", {"1", 4, kApplication}, {"1", 5, kApplication}, "second"},
      {"equal times", {"1", 5, kApplication}, {"1", 5, kApplication}, "first"},
  };
  for (const auto& test : cases) {
    daemon.device.registry->installed->clear();
    daemon.server->setCacheLimit(0);
    install("first", "a", test.first);
    install("second", "a", test.second);
    EXPECT_EQ(seen(), test.winner) << test.what;
    EXPECT_EQ(seen(kAllVersions), test.winner) << test.what;
    EXPECT_EQ(seen(kAllVersions | kDuplicates), "first second") << test.what;
  }
}

TEST_F(DiscoveryRequest, LinksReplacementsWithWhatTheyReplace) {
  install("old");
  install("older");
  grant(*install("new"), list({"old", 5}));
  grant(*install("self"), "self");
  grant(*install("nobody"), true);
  // One that lost to a higher version keeps its claim.
  grant(*install("lost", "winner", {"1"}), "older");
  install("winner", "winner", {"2"});
  const PlistValue forms = match(client);
  EXPECT_EQ(labels(forms), "old older new self nobody winner");
  EXPECT_EQ(labels(forms, "overrider"), "new lost - self - -");
  EXPECT_EQ(forms.at(2)["overriding"], PlistValue("old"));
  EXPECT_EQ(forms.at(3)["overriding"], PlistValue("self"));
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "plug-in " + uuidOf("new").text() + " overrides " + uuidOf("old").text()));
}

TEST_F(DiscoveryRequest, TellsWhichFilterDecided) {
  install("kept", "a", {"2"});
  install("lost", "a", {"1"});
  install("b")->changeSection(kVKExtensionHostEntitlement, "special");
  client.object()->beginRequest();
  const PlistValue rules = dictionary({{std::string(kVKRuleIdentifier), "a"}});
  VKDServer& server = *daemon.server;
  Discovery discovery({server, server, server.userPrefs()}, *client.object(), rules, 0, 3);
  EXPECT_TRUE(discovery.consider(daemon.plugIn("kept")));
  const Verdict byVersion = discovery.consider(daemon.plugIn("lost"));
  EXPECT_EQ(byVersion.filter, Verdict::Filter::Version);
  EXPECT_EQ(byVersion.uuid, uuidOf("kept"));
  const Verdict byRules = discovery.consider(daemon.plugIn("b"));
  EXPECT_EQ(byRules.filter, Verdict::Filter::Rules) << "the host's entitlements are asked about last";
  EXPECT_EQ(byRules.key, kVKRuleIdentifier);
}

}  // namespace
}  // namespace vkd::testing
