#include "tests/vkd/PlugInFixture.h"
#include "vkd/MatchRules.h"

namespace vkd::testing {
namespace {

class MatchingTest : public PlugInFixture {
 protected:
  bool matches(const PlistValue& rules) { return static_cast<bool>(make()->match(rules)); }
  bool matches(std::string key, const PlistValue& pattern) { return matches(dictionary({{std::move(key), pattern}})); }
  // Whether an attribute of that value meets the pattern.
  bool holds(const PlistValue& value, const PlistValue& pattern) {
    record = FakeRecord::appex("test.plugin", value ? dictionary({{"A", value}}) : PlistValue());
    return matches("A", pattern);
  }
};

TEST_F(MatchingTest, EveryEntryMustHoldAndTheVerdictNamesTheOneThatDidNot) {
  EXPECT_TRUE(matches(PlistValue()));
  EXPECT_TRUE(matches(dictionary({})));
  const PlistValue rules = dictionary({{"ZoExtensionIdentifier", "test.plugin"}, {"ZoExtensionVersion", ">1.0"}});
  const Verdict verdict = make()->match(MatchRules(rules));
  EXPECT_FALSE(verdict);
  EXPECT_EQ(verdict.filter, Verdict::Filter::Rules);
  EXPECT_EQ(verdict.key, "ZoExtensionVersion");
  EXPECT_EQ(verdict.value, PlistValue(">1.0"));
  EXPECT_TRUE(matches(dictionary({{"ZoExtensionIdentifier", "test.plugin"}, {"ZoExtensionVersion", ">=1.0"}})));
}

TEST_F(MatchingTest, KeysChooseWhatIsTested) {
  record->rights = dictionary({{"e", "yes"}, {"off", false}});
  record->changeManifest("TopLevel", "top");
  EXPECT_TRUE(matches("ENTITLEMENT:e", true));
  EXPECT_TRUE(matches("ENTITLEMENT:e", "yes"));
  EXPECT_FALSE(matches("ENTITLEMENT:off", true));
  EXPECT_TRUE(matches("ENTITLEMENT:absent", false));
  EXPECT_FALSE(matches("entitlement:e", true));
  EXPECT_TRUE(matches("ZoExtensionIdentifier", list({"other", "test.plugin"})));
  EXPECT_FALSE(matches("ZoExtensionIdentifier", "test"));
  EXPECT_TRUE(matches("com.vantrel.uuid", record->uuid->text()));
  EXPECT_FALSE(matches("com.vantrel.uuid", "x" + record->uuid->text()));
  EXPECT_TRUE(matches("ZoExtensionContainingApp", "/Applications/Host.app"));
  EXPECT_TRUE(matches("ZoExtensionPointIdentifier", "test.point"));
  EXPECT_TRUE(matches("TopLevel", "top")) << "an attribute that is not there is looked for in the manifest";

  record->containing = nullptr;
  record->url = FileURL{"/System/Library/PlugIns/x.appex"};
  EXPECT_FALSE(matches("ZoExtensionContainingApp", false));
}

TEST_F(MatchingTest, ElectionIsADecimalTextWithoutItsFlagBits) {
  EXPECT_TRUE(matches("ZoUserElection", "0")) << "never annotated";
  annotations.annotation = dictionary({{"election", 0x5501}});
  EXPECT_TRUE(matches("ZoUserElection", "1"));
  annotations.annotation = dictionary({{"election", 0x10002}});
  EXPECT_TRUE(matches("ZoUserElection", "65538"));
  annotations.annotation = dictionary({{"election", -1}});
  EXPECT_TRUE(matches("ZoUserElection", "-65281"));
}

TEST_F(MatchingTest, BooleanPatternsAskForPresence) {
  for (const PlistValue& yes : {PlistValue(true), PlistValue(1), PlistValue(1.0)}) {
    EXPECT_TRUE(holds("NO", yes));
    EXPECT_TRUE(holds(list({}), yes));
    EXPECT_FALSE(holds(false, yes));
    EXPECT_FALSE(holds(0, yes));
    EXPECT_FALSE(holds(PlistValue(), yes));
  }
  for (const PlistValue& no : {PlistValue(false), PlistValue(0)}) {
    EXPECT_FALSE(holds("", no));
    EXPECT_TRUE(holds(0.0, no));
    EXPECT_TRUE(holds(PlistValue(), no));
  }
}

TEST_F(MatchingTest, OperatorsCompareVersions) {
  const struct {
    const char *value, *pattern;
    bool expected;
  } cases[] = {
      {"2.9", ">=2.10", false}, {"2.10", ">=2.10", true}, {"2.9", "<2.10", true}, {"2.10", "<2.10", false},
      {"2.9", "<=2.9", true},   {"3", "<=2.9", false},    {"3", ">2.9", true},    {"2.9", ">2.9", false},
      {"a", "<>b", true},       {"b", "<>b", false},      {"b", "<>", true},      {"=2", "==2", true},
      {"2", "==2", false},      {"2", "=2", true},        {">b", "<>b", true},    {"<2", "=<2", true},
      {"", "", true},           {"<", "<", false},        {"abc", "abc*", false}, {"x", "?GLOB:x", false},
  };
  for (const auto& test : cases)
    EXPECT_EQ(holds(test.value, test.pattern), test.expected) << test.value << test.pattern;
}

TEST_F(MatchingTest, OneOfThePatternsMustHoldForOneOfTheValues) {
  const PlistValue values = list({7, "a", "b"});
  EXPECT_TRUE(holds(values, "b"));
  EXPECT_TRUE(holds(values, list({3, "c", "a"})));
  EXPECT_FALSE(holds(values, list({"c", true})));
  EXPECT_FALSE(holds(values, list({})));
  EXPECT_FALSE(holds(values, "7")) << "numbers inside an array never match";
  EXPECT_FALSE(holds(7, "7"));
  EXPECT_FALSE(holds("2", 2)) << "a number other than 0 and 1 is no pattern";
  EXPECT_FALSE(holds("2", PlistValue::data("2")));
  EXPECT_FALSE(holds(PlistValue(), "<>x"));
}

TEST_F(MatchingTest, TypeTestsAskInTheRightDirection) {
  device.types->pairs = {{"public.jpeg", "public.image"}};
  EXPECT_TRUE(holds("public.jpeg", "?UT-CONFORMS:public.image"));
  EXPECT_FALSE(holds("public.image", "?UT-CONFORMS:public.jpeg"));
  EXPECT_FALSE(holds("public.jpeg", "?UT-IS:public.image"));
  EXPECT_TRUE(holds("public.image", "?UT-IS:public.jpeg"));
  EXPECT_FALSE(holds("public.jpeg", "?UT-NEAR:public.jpeg"));
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "unrecognized match operator:?UT-NEAR:public.jpeg")) << log.all();
}

TEST_F(MatchingTest, DictionaryPatternsAreItemsForTheActivationRule) {
  EXPECT_TRUE(holds("rule", dictionary({{"n", 2}})));
  EXPECT_EQ(device.activationRules->rule, PlistValue("rule"));
  EXPECT_EQ(device.activationRules->items, dictionary({{"n", 2}}));
  EXPECT_TRUE(log.has(LogLevel::Debug, "extension", "evaluating ZoExtension filter: {\"n\": 2} value: rule"))
      << log.all();
  device.activationRules->answer = false;
  EXPECT_FALSE(holds(dictionary({{"r", 1}}), dictionary({})));
  EXPECT_FALSE(holds(PlistValue(), dictionary({}))) << "without a value there is nothing to evaluate";
}

}  // namespace
}  // namespace vkd::testing
