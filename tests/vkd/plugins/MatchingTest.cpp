#include "tests/Support/PlugInFixture.h"
#include "vkd/plugins/MatchRules.h"

namespace vkd::testing {
namespace {

class MatchingTest : public PlugInFixture {
 protected:
  bool matches(std::string key, const PlistValue& pattern) {
    return static_cast<bool>(make()->match(dictionary({{std::move(key), pattern}})));
  }
  // Whether an attribute of that value, or one that is not there, meets the pattern.
  bool holds(const PlistValue& value, const PlistValue& pattern) {
    record = FakeRecord::appex("test.plugin", dictionary({{"A", value}}));
    return matches("A", pattern);
  }
};

TEST_F(MatchingTest, EveryEntryMustHoldAndTheVerdictNamesTheOneThatDidNot) {
  for (const PlistValue& none : {PlistValue(), dictionary({})}) EXPECT_TRUE(make()->match(none));
  const PlistValue rules = dictionary({{"ZoExtensionIdentifier", "test.plugin"}, {"ZoExtensionVersion", ">1.0"}});
  const Verdict verdict = make()->match(MatchRules(rules));
  EXPECT_FALSE(verdict);
  EXPECT_EQ(verdict.filter, Verdict::Filter::Rules);
  EXPECT_EQ(verdict.key, "ZoExtensionVersion");
  EXPECT_EQ(verdict.value, PlistValue(">1.0"));
  EXPECT_TRUE(make()->match(PlistBuilder(rules).set("ZoExtensionVersion", ">=1.0").take()));
}

TEST_F(MatchingTest, KeysChooseWhatIsTested) {
  record->rights = dictionary({{"e", "yes"}, {"off", false}});
  record->changeManifest("TopLevel", "top");
  const std::string uuid = record->uuid->text();
  const std::pair<const char*, PlistValue> hold[] = {
      {"ENTITLEMENT:e", true},
      {"ENTITLEMENT:e", "yes"},
      {"ENTITLEMENT:absent", false},
      {"ZoExtensionIdentifier", list({"other", "test.plugin"})},
      {"com.vantrel.uuid", uuid},
      {"ZoExtensionContainingApp", "/Applications/Host.app"},
      {"ZoExtensionPointIdentifier", "test.point"},
      {"TopLevel", "top"},  // an attribute that is not there is looked for in the manifest
      {"ZoUserElection", "0"},
  };
  for (const auto& [key, pattern] : hold) EXPECT_TRUE(matches(key, pattern)) << key;
  const std::pair<const char*, PlistValue> doNot[] = {{"ENTITLEMENT:off", true},
                                                      {"entitlement:e", true},
                                                      {"ZoExtensionIdentifier", "test"},
                                                      {"com.vantrel.uuid", "x" + uuid}};
  for (const auto& [key, pattern] : doNot) EXPECT_FALSE(matches(key, pattern)) << key;
  // Elections are a decimal text without their flag bits.
  const std::pair<std::int64_t, const char*> elections[] = {{0x5501, "1"}, {0x10002, "65538"}, {-1, "-65281"}};
  for (const auto& [election, text] : elections) {
    annotations.annotation = dictionary({{"election", election}});
    EXPECT_TRUE(matches("ZoUserElection", text)) << text;
  }
  record->containing = nullptr;
  record->url = FileURL{"/System/Library/PlugIns/x.appex"};
  EXPECT_FALSE(matches("ZoExtensionContainingApp", false));
}

using Pairs = std::vector<std::pair<PlistValue, PlistValue>>;  // value, pattern

TEST_F(MatchingTest, TextsCompareVersionsOrTypes) {
  device.types->pairs = {{"jpeg", "image"}};
  const Pairs hold = {{"2.10", ">=2.10"},      {"2.9", "<2.10"}, {"2.9", "<=2.9"},
                      {"3", ">2.9"},           {"a", "<>b"},     {"b", "<>"},
                      {"=2", "==2"},           {"2", "=2"},      {">b", "<>b"},
                      {"<2", "=<2"},           {"", ""},         {"jpeg", "?UT-CONFORMS:image"},
                      {"image", "?UT-IS:jpeg"}};
  const Pairs doNot = {{"2.9", ">=2.10"},
                       {"2.10", "<2.10"},
                       {"3", "<=2.9"},
                       {"2.9", ">2.9"},
                       {"b", "<>b"},
                       {"2", "==2"},
                       {"<", "<"},
                       {"abc", "abc*"},
                       {"x", "?GLOB:x"},
                       {"image", "?UT-CONFORMS:jpeg"},
                       {"jpeg", "?UT-IS:image"},
                       {"jpeg", "?UT-NEAR:jpeg"}};
  for (const auto& [value, pattern] : hold) EXPECT_TRUE(holds(value, pattern)) << pattern.stringValue();
  for (const auto& [value, pattern] : doNot) EXPECT_FALSE(holds(value, pattern)) << pattern.stringValue();
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "unrecognized match operator:?UT-NEAR:jpeg")) << log;
}

TEST_F(MatchingTest, BooleansAskForPresenceAndOneOfThePatternsMustHoldForOneOfTheValues) {
  const PlistValue none = {}, values = list({7, "a", "b"}), mixed = list({"c", true}), data = PlistValue::data("2");
  const Pairs hold = {{"NO", true},  {"NO", 1}, {list({}), 1.0}, {0.0, 0},
                      {none, false}, {none, 0}, {values, "b"},   {values, list({3, "c", "a"})}};
  const Pairs doNot = {{false, true},      {0, 1},        {none, true}, {"", false}, {none, "<>x"}, {values, mixed},
                       {values, list({})}, {values, "7"}, {7, "7"},     {"2", 2},    {"2", data}};
  for (const auto& [value, pattern] : hold) EXPECT_TRUE(holds(value, pattern)) << value.description();
  for (const auto& [value, pattern] : doNot) EXPECT_FALSE(holds(value, pattern)) << value.description();
}

TEST_F(MatchingTest, DictionaryPatternsAreItemsForTheActivationRule) {
  EXPECT_TRUE(holds("rule", dictionary({{"n", 2}})));
  EXPECT_EQ(device.activationRules->rule, PlistValue("rule"));
  EXPECT_EQ(device.activationRules->items, dictionary({{"n", 2}}));
  EXPECT_TRUE(log.has(LogLevel::Debug, "extension", "evaluating ZoExtension filter: {\"n\": 2} value: rule")) << log;
  device.activationRules->answer = false;
  EXPECT_FALSE(holds(dictionary({{"r", 1}}), dictionary({})));
  EXPECT_FALSE(holds(PlistValue(), dictionary({}))) << "without a value there is nothing to evaluate";
}

}  // namespace
}  // namespace vkd::testing
