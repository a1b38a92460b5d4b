#include "tests/vkd/PlugInFixture.h"
#include "vkd/HostPolicy.h"

namespace vkd::testing {
namespace {

class HostPolicyTest : public PlugInFixture {
 protected:
  std::string refusal() { return make()->allowForClient(host).value_or("allowed"); }
  FakeHost host;
};

constexpr std::string_view kAllowed = "com.vantrel.developer.vornik.allowedplugins";

TEST_F(HostPolicyTest, TheHostsOwnRestrictionMustBeRulesThatThePlugInMatches) {
  EXPECT_EQ(refusal(), "allowed");
  const auto restrict = [&](const PlistValue& to) { host.rights = dictionary({{std::string(kAllowed), to}}); };
  for (const PlistValue& malformed : {PlistValue(true), PlistValue(false), list({})}) {
    restrict(malformed);
    EXPECT_EQ(refusal(), "invalid host restriction entitlement");
  }
  restrict(dictionary({}));
  EXPECT_EQ(refusal(), "allowed");
  restrict(dictionary({{"ZoExtensionIdentifier", "other"}}));
  EXPECT_EQ(refusal(), "the host's plug-in entitlement does not allow this plug-in");
  restrict(dictionary({{"ZoExtensionIdentifier", "test.plugin"}}));
  EXPECT_EQ(refusal(), "allowed");
}

TEST_F(HostPolicyTest, ThePlugInMayAskForAnEntitlementOfItsHosts) {
  record->changeSection("ZoExtensionHostEntitlement", "x.host");
  EXPECT_EQ(refusal(), "the host does not have the \"x.host\" entitlement");
  host.rights = dictionary({{"x.host", false}});
  EXPECT_EQ(refusal(), "the host does not have the \"x.host\" entitlement");
  host.rights = dictionary({{"x.host", list({})}});
  EXPECT_EQ(refusal(), "allowed");
  record->changeSection("ZoExtensionHostEntitlement", 5);
  EXPECT_EQ(refusal(), "the host does not have the \"5\" entitlement");
}

TEST_F(HostPolicyTest, TheHostsRestrictionIsToldFirst) {
  record->changeSection("ZoExtensionHostEntitlement", "x.host");
  host.rights = dictionary({{std::string(kAllowed), dictionary({{"A", "b"}})}});
  const HostPolicy policy(host);
  const Verdict verdict = policy.allow(*make());
  EXPECT_EQ(verdict.filter, Verdict::Filter::HostRestriction);
  EXPECT_EQ(verdict.key, "A");
  EXPECT_FALSE(HostPolicy::refusal(Verdict()));
}

}  // namespace
}  // namespace vkd::testing
