#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/linux/identity/LinuxServiceBundles.h"
#include "platform/linux/rules/LinuxTypeConformance.h"
#include "platform/linux/system/LinuxUserServices.h"
#include "platform/plists/PropertyList.h"
#include "platform/values/SHA.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/ScratchRoot.h"

namespace platform {
namespace {

using support::plist;
using support::ScratchRoot;

std::string dictionary(const std::string& key, const std::string& value) {
  return plist("<dict><key>" + key + "</key><string>" + value + "</string></dict>");
}

const std::string kUser = "/var/users/" + std::to_string(::getuid());

class UserServices : public ::testing::Test {
 protected:
  ScratchRoot scratch_;
};

TEST_F(UserServices, PreferencesFollowWhatOthersWriteAtTheNextSynchronize) {
  const std::string domain = "com.example.prefs";
  const std::string path = kUser + "/Preferences/ByHost/" + domain + ".plist";
  LinuxPreferences preferences(scratch_.root());
  auto value = [&](const std::string& in) { return std::string(preferences.value("key", in).stringValue()); };
  auto synchronized = [&](const std::string& in) {
    preferences.synchronize(in);
    return value(in);
  };
  EXPECT_EQ(synchronized(domain), "");
  scratch_.write(path, dictionary("key", "one"));
  EXPECT_EQ(value(domain), "");
  EXPECT_EQ(synchronized(domain), "one");
  // Same size, same tick of the file system's clock: still seen.
  for (const char* text : {"two", "six", "ten"}) {
    scratch_.write(path, dictionary("key", text));
    EXPECT_EQ(synchronized(domain), text);
  }
  // Half written: the last good value holds, and it is said once.
  support::CapturedLog log(LogLevel::Error);
  scratch_.write(path, "<plist><dict><key>key");
  for (int time = 0; time < 2; ++time) EXPECT_EQ(synchronized(domain), "ten");
  EXPECT_EQ(log.lines().size(), 1U) << log;
  std::filesystem::remove(scratch_.host(path));
  EXPECT_EQ(value(domain), "ten");
  EXPECT_EQ(synchronized(domain), "");
  // No domain leads out of their folder.
  scratch_.write(kUser + "/secret.plist", dictionary("key", "secret"));
  for (const char* name : {"../../secret", "..", "", "a/b"}) EXPECT_EQ(synchronized(name), "") << name;
}

TEST_F(UserServices, AnswerFromTheDevicesFiles) {
  LinuxUserManager users(scratch_.root());
  EXPECT_FALSE(users.isMultiUser());
  scratch_.write("/var/db/multi-user", "");
  EXPECT_TRUE(users.isMultiUser());

  LinuxContainerService containers(scratch_.root());
  std::uint64_t code = 0;
  const std::string path = kUser + "/Containers/10/com.vantrel.vkd";
  for (int time = 0; time < 2; ++time) {
    EXPECT_EQ(containers.userDataContainer(10, "com.vantrel.vkd", &code), FileURL{path});
    EXPECT_EQ(std::filesystem::status(scratch_.host(path)).permissions(), std::filesystem::perms(0700));
  }
  EXPECT_FALSE(containers.userDataContainer(10, "../..", &code));
  EXPECT_EQ(code, static_cast<std::uint64_t>(EINVAL));
  scratch_.write(kUser + "/Containers/11", "a file");
  EXPECT_FALSE(containers.userDataContainer(11, "x", &code));
  EXPECT_EQ(code, static_cast<std::uint64_t>(ENOTDIR));

  LinuxExtensionSdkRegistry sdks(scratch_.root());
  for (const char* file : {"ExtensionPoints/com.example.point", "other"}) {
    scratch_.write(std::string("/System/Library/") + file + ".plist", dictionary("key", "value"));
  }
  EXPECT_EQ(*sdks.sdk("com.example.point").getString("key"), "value");
  for (const char* none : {"com.example.missing", "../other"}) EXPECT_FALSE(sdks.sdk(none)) << none;
}

TEST_F(UserServices, ConsentIsGivenPerApplicationAndNeverFromABrokenFile) {
  scratch_.write("/A.app/Info.plist", dictionary("KvBundleIdentifier", "com.example.a"));
  LinuxCoreBundles bundles(scratch_.root());
  auto bundle = bundles.bundleAtPath("/A.app");
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundles.bundleAtPath("/B.app"), nullptr);
  LinuxConsentService consent(scratch_.root());
  EXPECT_EQ(consent.informationForBundle(*bundle)->size(), 0U);
  std::string services;
  for (const char* granted : {"<key>granted</key><true/>", "<key>granted</key><false/>", ""}) {
    services += std::string("<dict><key>service</key><string>S</string>") + granted + "</dict>";
  }
  scratch_.write("/var/db/consent.plist",
                 plist("<dict><key>com.example.a</key><array>" + services + "</array></dict>"));
  std::vector<std::optional<bool>> granted;
  const auto records = consent.informationForBundle(*bundle).value();
  for (const auto& record : records) {
    EXPECT_EQ(record.service, "S");
    granted.push_back(record.granted);
  }
  EXPECT_EQ(granted, (std::vector<std::optional<bool>>{true, false, std::nullopt}));
  scratch_.write("/var/db/consent.plist", "<plist");
  EXPECT_EQ(consent.informationForBundle(*bundle), std::nullopt);
  scratch_.write("/A.app/Info.plist", plist("<dict/>"));
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.a");
  bundle->flushCaches();
  EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);
}

TEST_F(UserServices, ServiceBundlesAnswerNothingForWhatIsNoBundle) {
  scratch_.write("/A.app/Contents/Info.plist", dictionary("KvBundleExecutable", "A"));
  const std::string executable = "/A.app/Contents/Executables/A";
  LinuxServiceBundles bundles(scratch_.root());
  using Property = ServiceBundle::Property;
  auto bundle = bundles.bundleAtPath("/A.app");
  EXPECT_EQ(bundle->stringProperty(Property::SupportPath), "/A.app/Contents");
  EXPECT_EQ(bundle->stringProperty(Property::ExecutablePath), std::nullopt);
  EXPECT_EQ(*bundle->infoDictionary().getString("KvBundleExecutable"), "A");
  scratch_.write(executable, "");
  EXPECT_EQ(bundle->stringProperty(Property::ExecutablePath), executable);
  EXPECT_EQ(bundles.bundleOfExecutable(executable)->stringProperty(Property::BundlePath), "/A.app");
  for (const auto& none : {bundles.bundleAtPath("/none"), bundles.bundleOfExecutable("/A.app"), bundles.mainBundle()}) {
    EXPECT_EQ(none->stringProperty(Property::BundlePath), std::nullopt) << none->description();
    EXPECT_FALSE(none->infoDictionary());
  }
}

TEST_F(UserServices, TypesConformThroughCirclesAndChanges) {
  LinuxTypeConformance types(scratch_.root());
  auto declare = [&](const std::string& file, std::initializer_list<std::pair<const char*, const char*>> declarations) {
    std::vector<PlistValue> list;
    for (const auto& [identifier, parent] : declarations) {
      PlistValue parents = PlistValue::array({"loop", parent});
      list.push_back(PlistBuilder().set("identifier", identifier).set("conforms-to", parents).take());
    }
    scratch_.write("/System/Library/Types/" + file, serializePropertyListXML(PlistValue::array(std::move(list))));
  };
  auto settle = [] { std::this_thread::sleep_for(kTypesRecheckInterval + std::chrono::milliseconds(20)); };
  EXPECT_TRUE(types.conforms("a", "a"));
  EXPECT_FALSE(types.conforms("jpeg", "item"));
  declare("one.plist", {{"jpeg", "image"}, {"image", "data"}, {"loop", "jpeg"}});
  declare("two.plist", {{"data", "item"}});
  scratch_.write("/System/Library/Types/bad.plist", "garbage");
  EXPECT_FALSE(types.conforms("jpeg", "item"));
  settle();
  for (const char* type : {"jpeg", "loop"}) EXPECT_TRUE(types.conforms(type, "item")) << type;
  for (const char* type : {"item", "unknown"}) EXPECT_FALSE(types.conforms(type, "image")) << type;
  std::filesystem::remove(scratch_.host("/System/Library/Types/two.plist"));
  settle();
  EXPECT_FALSE(types.conforms("jpeg", "item"));
  EXPECT_TRUE(types.conforms("jpeg", "data"));
}

TEST(SHA, FollowsTheStandardVectors) {
  const std::string twoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  const std::string longKey(131, '\xaa');
  const std::pair<std::string, const char*> vectors[] = {
      {hexText(sha1("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {hexText(sha1("")), "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {hexText(sha1(twoBlocks)), "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {hexText(sha256(twoBlocks)), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {hexText(sha256(std::string(1'000'000, 'a'))),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
      {hexText(HMACSHA256("Jefe").digest("what do ya want for nothing?")),
       "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
      {hexText(HMACSHA256(longKey).digest("Test Using Larger Than Block-Size Key - Hash Key First")),
       "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"}};
  for (const auto& [computed, expected] : vectors) EXPECT_EQ(computed, expected);
}

}  // namespace
}  // namespace platform
