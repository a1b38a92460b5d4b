#include "tests/Support/PlugInFixture.h"
#include "vkd/discovery/VKDUserPrefs.h"

namespace vkd::testing {
namespace {

TEST(VKDUserPrefsTest, ExclusionsFollowTheFileAndAreCompiledOnlyWhenItChanged) {
  auto preferences = std::make_shared<FakePreferences>();
  const auto prefs = VKDUserPrefs::init(preferences);
  EXPECT_FALSE(prefs->exclusions());
  EXPECT_TRUE(prefs->exclusionRules().empty());
  const PlistValue rules = dictionary({{"ZoExtensionIdentifier", "a"}});
  preferences->exclusions = list({"no dictionary", rules});
  EXPECT_EQ(prefs->exclusions(), preferences->exclusions);
  ASSERT_EQ(prefs->exclusionRules().size(), 1U);
  preferences->exclusions = list({"no dictionary", dictionary({{"ZoExtensionIdentifier", "a"}})});
  EXPECT_EQ(prefs->exclusionRules().front().entries().front().pattern.stringValue().data(),
            rules["ZoExtensionIdentifier"].stringValue().data())
      << "an equal value leaves the rules as they were compiled";
  for (const PlistValue& none : {PlistValue("malformed"), rules, PlistValue()}) {
    preferences->exclusions = none;
    EXPECT_TRUE(prefs->exclusionRules().empty());
  }
}

}  // namespace
}  // namespace vkd::testing
