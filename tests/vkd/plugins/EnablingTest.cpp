#include <cstdlib>

#include "Vornik/VKError.h"
#include "tests/Support/PlugInFixture.h"

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
  FakeHost host;
  const std::string uuid = record->uuid->text();
};

TEST_F(EnablingTest, TheServiceManagerGetsHostExecutableAndOverlay) {
  record->changeManifest("ZYPService", dictionary({{"Own", 1}, {"_SandboxProfile", "mine"}}));
  const std::string home = "/var/containers/it";
  const PlistValue variables = dictionary({{"HOME", home}, {"KvFIXED_USER_HOME", home}, {"TMPDIR", home + "/tmp"}});
  EXPECT_EQ(enabled(), dictionary({{"Own", 1},
                                   {"_SandboxProfile", "plugin"},
                                   {"_OmitSandboxParameters", true},
                                   {"EnvironmentVariables", variables}}));
  const auto& added = device.serviceManager->added.back();
  EXPECT_EQ(added.pid, host.id);
  EXPECT_EQ(added.executable, record->url->path + "/run");
  EXPECT_EQ(*added.overlay.getString("KvBundlePackageType"), "ZYP!");
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "assigning plug-in test.plugin(1.0) " + uuid + " to plugin sandbox"));
  EXPECT_TRUE(log.has(LogLevel::Default, "ops",
                      "allowing host 77 /Applications/Host.app/Host to use plug-in test.plugin(1.0) uuid=" + uuid +
                          " at " + record->url->path))
      << log;
}

TEST_F(EnablingTest, ThePlugInsOwnEnvironmentWins) {
  ::setenv("VKTEST_SDK", "/sdk", 1);
  EXPECT_EQ(enabled()["EnvironmentVariables"]["VKTEST_SDK"], PlistValue("/sdk"));
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
}

TEST_F(EnablingTest, TheExtensionPointAndConsentChooseTheSandbox) {
  const std::string keyboard = "com.vantrel.keyboard-service";
  const PlistValue none = {};
  const struct {
    std::string point;
    PlistValue openAccess;
    std::optional<bool> granted;
    const char* profile;
  } cases[] = {
      {"com.vantrel.netvane.filter-data", none, {}, "network-filter"},
      {"com.vantrel.peekaro.extension.preview", none, {}, "peekarod"},
      {"com.vantrel.app.non-ui-extension", none, {}, "sketchpad-devtools"},
      {"com.vantrel.app.non-ui-extension.multiple-instances", none, {}, "sketchpad-devtools"},
      {"com.vantrel.app.non-ui-extension.other", none, {}, "plugin"},
      {keyboard, 1, true, "plugin"},
      {keyboard, false, true, "keyboard"},
      {keyboard, none, true, "keyboard"},
      {keyboard, true, false, "keyboard"},
      {keyboard, true, {}, "keyboard"},
  };
  const PlistValue attributes = record->plugInDictionary()["ZoExtensionAttributes"];
  for (const auto& [point, openAccess, granted, profile] : cases) {
    record->changeSection("ZoExtensionPointIdentifier", point);
    record->changeSection("ZoExtensionAttributes",
                          PlistBuilder(attributes).set("RequestsOpenAccess", openAccess).take());
    device.consent->records = {{granted, "ZelvServiceKeyboardNetwork"}};
    EXPECT_EQ(enabled()["_SandboxProfile"], PlistValue(profile)) << point << " " << openAccess.description();
  }
  // Without an application and an answer nothing is granted.
  device.consent->records = {{true, "S"}};
  EXPECT_EQ(make()->allowedZelvServices(), std::set<std::string>{"S"});
  device.consent->records = std::nullopt;
  EXPECT_TRUE(make()->allowedZelvServices().empty());
  EXPECT_EQ(log.count("ZelvAccessCopyInformationForBundle failed for <core /Applications/Host.app>"), 1);
  device.coreBundles->exist = false;
  EXPECT_TRUE(make()->allowedZelvServices().empty());
  EXPECT_EQ(log.count("failed to create bundle for " + record->url->path), 1);
}

TEST_F(EnablingTest, FailuresAreToldAndLogged) {
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
  EXPECT_EQ(device.assertions->identifiers, std::set<std::string>{"test.bundle"});
  Message instance = Message::dictionary();
  instance.set("BundleIdentifier", "test.bundle");
  device.assertions->instances = {Message::dictionary(), instance};
  EXPECT_EQ(make()->checkBusy(), instance);
  EXPECT_EQ(log.count("assurd reported incomplete bundle for plug-in test.plugin/" + uuid), 1);
}

}  // namespace
}  // namespace vkd::testing
