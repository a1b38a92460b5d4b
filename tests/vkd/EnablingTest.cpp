#include <cstdlib>

#include "Vornik/VKError.h"
#include "tests/vkd/PlugInFixture.h"

namespace vkd::testing {
namespace {

class EnablingTest : public PlugInFixture {
 protected:
  ~EnablingTest() override { ::unsetenv("VKTEST_SDK"); }

  // The service description that the service manager was given.
  PlistValue enabled() {
    EXPECT_FALSE(make()->enableForClient(host));
    return device.serviceManager->added.back().overlay.get("ZYPService")->toPlist();
  }
  std::string profileOf(std::string_view point, const PlistValue& openAccess = {}) {
    record->changeSection("ZoExtensionPointIdentifier", point);
    PlistValue attributes = record->plugInDictionary()["ZoExtensionAttributes"];
    record->changeSection("ZoExtensionAttributes",
                          PlistBuilder(attributes).set("RequestsOpenAccess", openAccess).take());
    return std::string(enabled()["_SandboxProfile"].stringValue());
  }
  void grant(std::string service, std::optional<bool> granted) {
    device.consent->records = {{granted, std::move(service)}};
  }
  FakeHost host;
};

TEST_F(EnablingTest, TheServiceManagerGetsHostExecutableAndOverlay) {
  record->changeManifest("ZYPService", dictionary({{"Own", 1}, {"_SandboxProfile", "mine"}}));
  const PlistValue description = enabled();
  EXPECT_EQ(description, dictionary({{"Own", 1},
                                     {"_SandboxProfile", "plugin"},
                                     {"_OmitSandboxParameters", true},
                                     {"EnvironmentVariables", dictionary({{"HOME", "/var/containers/it"},
                                                                          {"KvFIXED_USER_HOME", "/var/containers/it"},
                                                                          {"TMPDIR", "/var/containers/it/tmp"}})}}));
  const auto& added = device.serviceManager->added.back();
  EXPECT_EQ(added.pid, host.id);
  EXPECT_EQ(added.executable, record->url->path + "/run");
  EXPECT_EQ(*added.overlay.getString("KvBundlePackageType"), "ZYP!");
  const std::string uuid = record->uuid->text();
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "assigning plug-in test.plugin(1.0) " + uuid + " to plugin sandbox"));
  EXPECT_TRUE(log.has(LogLevel::Default, "ops",
                      "allowing host 77 /Applications/Host.app/Host to use plug-in test.plugin(1.0) uuid=" + uuid +
                          " at " + record->url->path))
      << log.all();
  EXPECT_EQ(log.count("raw ZYPService="), 1);
}

TEST_F(EnablingTest, ThePlugInsOwnEnvironmentWins) {
  ::setenv("VKTEST_SDK", "/sdk", 1);
  EXPECT_EQ(enabled()["EnvironmentVariables"]["VKTEST_SDK"], PlistValue("/sdk"));
  EXPECT_EQ(log.count("no ZYPService for plug-in; database returned"), 1);
  record->changeManifest("ZYPService",
                         dictionary({{"EnvironmentVariables", dictionary({{"HOME", "/h"}, {"VKTEST_SDK", "own"}})}}));
  const PlistValue variables = enabled()["EnvironmentVariables"];
  EXPECT_EQ(variables["HOME"], PlistValue("/h"));
  EXPECT_EQ(variables["VKTEST_SDK"], PlistValue("own"));
  EXPECT_EQ(variables["TMPDIR"], PlistValue("/var/containers/it/tmp"));

  record->container = std::nullopt;
  record->changeSection("ZoExtensionProtocol", "#Data");
  record->changeManifest("ZYPService", dictionary({{"EnvironmentVariables", "malformed"}}));
  EXPECT_EQ(enabled()["EnvironmentVariables"], dictionary({{"VKTEST_SDK", "/sdk"}}));
  EXPECT_EQ(log.count("no data container for plug-in test.plugin(1.0)"), 1);
}

TEST_F(EnablingTest, TheExtensionPointChoosesTheSandbox) {
  EXPECT_EQ(profileOf("com.vantrel.netvane.filter-data"), "network-filter");
  EXPECT_EQ(profileOf("com.vantrel.peekaro.extension.preview"), "peekarod");
  EXPECT_EQ(profileOf("com.vantrel.app.non-ui-extension"), "sketchpad-devtools");
  EXPECT_EQ(profileOf("com.vantrel.app.non-ui-extension.multiple-instances"), "sketchpad-devtools");
  EXPECT_EQ(profileOf("com.vantrel.app.non-ui-extension.other"), "plugin");

  grant("ZelvServiceKeyboardNetwork", true);
  EXPECT_EQ(profileOf("com.vantrel.keyboard-service", 1), "plugin");
  EXPECT_EQ(profileOf("com.vantrel.keyboard-service", false), "keyboard");
  EXPECT_EQ(profileOf("com.vantrel.keyboard-service"), "keyboard");
  grant("ZelvServiceKeyboardNetwork", false);
  EXPECT_EQ(profileOf("com.vantrel.keyboard-service", true), "keyboard");
  grant("ZelvServiceKeyboardNetwork", std::nullopt);
  EXPECT_EQ(profileOf("com.vantrel.keyboard-service", true), "keyboard");
}

TEST_F(EnablingTest, GrantedServicesNeedAnApplicationAndAnAnswer) {
  grant("S", true);
  EXPECT_EQ(make()->allowedZelvServices(), std::set<std::string>{"S"});
  device.consent->records = std::nullopt;
  EXPECT_TRUE(make()->allowedZelvServices().empty());
  EXPECT_EQ(log.count("ZelvAccessCopyInformationForBundle failed for <core /Applications/Host.app>"), 1);
  device.coreBundles->exist = false;
  EXPECT_TRUE(make()->allowedZelvServices().empty());
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "failed to create bundle for " + record->url->path));
}

TEST_F(EnablingTest, FailuresAreToldAndLogged) {
  const std::string uuid = record->uuid->text();
  device.serviceManager->answer = 13;
  auto error = make()->enableForClient(host);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, VKErrorInvalidRequest);
  EXPECT_EQ(*error->description, "unable to enable plug-in test.plugin(" + uuid + ")");
  EXPECT_EQ(log.count("jobd error 13 trying to allow 77 /Applications/Host.app/Host to use plug-in test.plugin(1.0)"),
            1);

  device.serviceBundles->withoutExecutable.insert(record->url->path);
  error = make()->enableForClient(host);
  ASSERT_TRUE(error);
  EXPECT_EQ(*error->description, "cannot obtain executable path for plug-in test.plugin(" + uuid + ")");
  EXPECT_EQ(device.serviceManager->added.size(), 1U);
}

TEST_F(EnablingTest, ABusyPlugInNamesOneRunningInstance) {
  EXPECT_FALSE(make()->checkBusy()) << "without bundle identifier";
  record->changeManifest("KvBundleIdentifier", "test.bundle");
  EXPECT_FALSE(make()->checkBusy());
  EXPECT_EQ(device.assertions->asked, std::set<std::string>{"test.bundle"});
  Message instance = Message::dictionary();
  instance.set("BundleIdentifier", "test.bundle");
  device.assertions->instances = {Message::dictionary(), instance};
  EXPECT_EQ(make()->checkBusy(), instance);
  EXPECT_TRUE(log.has(LogLevel::Error, "ops",
                      "assurd reported incomplete bundle for plug-in test.plugin/" + record->uuid->text()));
}

}  // namespace
}  // namespace vkd::testing
