#include "tests/Support/PlugInFixture.h"
#include "vkd/plugins/HostPolicy.h"

namespace vkd::testing {
namespace {

using HostPolicyTest = PlugInFixture;

TEST_F(HostPolicyTest, HostsAndPlugInsRestrictEachOther) {
  const std::string invalid = "invalid host restriction entitlement", allowed = "allowed";
  const std::string excluded = "the host's plug-in entitlement does not allow this plug-in";
  const std::string lacks = "the host does not have the \"x.host\" entitlement";
  const std::string restriction = "com.vantrel.developer.vornik.allowedplugins";
  const auto rule = [](const char* identifier) { return dictionary({{"ZoExtensionIdentifier", identifier}}); };
  const struct {
    PlistValue demanded;  // by the plug-in
    std::string right;    // of the host
    PlistValue value;
    std::string expected;
  } cases[] = {
      {{}, restriction, {}, allowed},
      {{}, restriction, true, invalid},
      {{}, restriction, false, invalid},
      {{}, restriction, list({}), invalid},
      {{}, restriction, dictionary({}), allowed},
      {{}, restriction, rule("other"), excluded},
      {{}, restriction, rule("test.plugin"), allowed},
      {"x.host", restriction, {}, lacks},
      {"x.host", restriction, rule("other"), excluded},
      {"x.host", "x.host", false, lacks},
      {"x.host", "x.host", list({}), allowed},
      {5, "5", true, "the host does not have the \"5\" entitlement"},
  };
  for (const auto& test : cases) {
    record->changeSection("ZoExtensionHostEntitlement", test.demanded);
    FakeHost host;
    host.rights = dictionary({{test.right, test.value}});
    EXPECT_EQ(make()->allowForClient(host).value_or(allowed), test.expected)
        << test.demanded.description() << ", " << host.rights.description();
  }
  FakeHost host;
  host.rights = dictionary({{restriction, dictionary({{"A", "b"}})}});
  const HostPolicy policy(host);
  const Verdict verdict = policy.allow(*make());
  EXPECT_EQ(verdict.filter, Verdict::Filter::HostRestriction);
  EXPECT_EQ(verdict.key, "A");
}

}  // namespace
}  // namespace vkd::testing
