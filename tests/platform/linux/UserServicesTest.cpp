#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/SHA.h"
#include "platform/linux/LinuxServiceBundles.h"
#include "platform/linux/LinuxTypeConformance.h"
#include "platform/linux/LinuxUserServices.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/ScratchRoot.h"

namespace platform {
namespace {

using support::plist;
using support::ScratchRoot;

std::string dictionary(const std::string& key, const std::string& value) {
  return plist("<dict><key>" + key + "</key><string>" + value + "</string></dict>");
}

class PreferencesOf : public ::testing::Test {
 protected:
  std::string value() { return std::string(preferences_.value("key", "com.example.prefs").stringValue()); }
  std::string synchronized() {
    preferences_.synchronize("com.example.prefs");
    return value();
  }
  ScratchRoot scratch_;
  const std::string path_ = "/var/users/" + std::to_string(::getuid()) + "/Preferences/ByHost/com.example.prefs.plist";
  LinuxPreferences preferences_{scratch_.root()};
};

TEST_F(PreferencesOf, FollowWhatOthersWriteAtTheNextSynchronize) {
  EXPECT_EQ(synchronized(), "");
  scratch_.write(path_, dictionary("key", "one"));
  EXPECT_EQ(value(), "");
  EXPECT_EQ(synchronized(), "one");
  // Same size, same tick of the file system's clock: still seen.
  for (const char* text : {"two", "six", "ten"}) {
    scratch_.write(path_, dictionary("key", text));
    EXPECT_EQ(synchronized(), text);
  }
  std::filesystem::remove(scratch_.host(path_));
  EXPECT_EQ(value(), "ten");
  EXPECT_EQ(synchronized(), "");
}

TEST_F(PreferencesOf, KeepTheLastGoodValueWhileTheFileIsHalfWritten) {
  support::CapturedLog log(LogLevel::Error);
  scratch_.write(path_, dictionary("key", "good"));
  EXPECT_EQ(synchronized(), "good");
  scratch_.write(path_, "<plist><dict><key>key");
  EXPECT_EQ(synchronized(), "good");
  EXPECT_EQ(synchronized(), "good");
  EXPECT_EQ(log.lines().size(), 1U) << log;
  scratch_.write(path_, dictionary("key", "better"));
  EXPECT_EQ(synchronized(), "better");
}

TEST_F(PreferencesOf, NeverLeaveTheirFolder) {
  scratch_.write("/var/users/" + std::to_string(::getuid()) + "/secret.plist", dictionary("key", "secret"));
  for (const char* domain : {"../../secret", "..", "", "a/b"}) {
    preferences_.synchronize(domain);
    EXPECT_FALSE(preferences_.value("key", domain)) << domain;
  }
}

TEST(UserServices, AnswerFromTheDevicesFiles) {
  ScratchRoot scratch;
  LinuxUserManager users(scratch.root());
  EXPECT_FALSE(users.isMultiUser());
  scratch.write("/var/db/multi-user", "");
  EXPECT_TRUE(users.isMultiUser());

  LinuxContainerService containers(scratch.root());
  std::uint64_t code = 0;
  auto url = containers.userDataContainer(10, "com.vantrel.vkd", &code);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path, "/var/users/" + std::to_string(::getuid()) + "/Containers/10/com.vantrel.vkd");
  EXPECT_EQ(std::filesystem::status(scratch.host(url->path)).permissions(), std::filesystem::perms(0700));
  EXPECT_EQ(containers.userDataContainer(10, "com.vantrel.vkd", &code)->path, url->path);
  EXPECT_FALSE(containers.userDataContainer(10, "../..", &code));
  EXPECT_EQ(code, static_cast<std::uint64_t>(EINVAL));
  scratch.write("/var/users/" + std::to_string(::getuid()) + "/Containers/11", "a file");
  EXPECT_FALSE(containers.userDataContainer(11, "x", &code));
  EXPECT_EQ(code, static_cast<std::uint64_t>(ENOTDIR));

  LinuxExtensionSdkRegistry sdks(scratch.root());
  scratch.write("/System/Library/ExtensionPoints/com.example.point.plist", dictionary("key", "value"));
  scratch.write("/System/Library/other.plist", dictionary("key", "value"));
  EXPECT_EQ(*sdks.sdk("com.example.point").getString("key"), "value");
  EXPECT_FALSE(sdks.sdk("com.example.missing"));
  EXPECT_FALSE(sdks.sdk("../other"));
}

TEST(Consent, IsGivenPerApplicationAndNeverFromABrokenFile) {
  ScratchRoot scratch;
  scratch.write("/A.app/Info.plist", dictionary("KvBundleIdentifier", "com.example.a"));
  LinuxCoreBundles bundles(scratch.root());
  auto bundle = bundles.bundleAtPath("/A.app");
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundles.bundleAtPath("/B.app"), nullptr);
  LinuxConsentService consent(scratch.root());
  EXPECT_EQ(consent.informationForBundle(*bundle)->size(), 0U);
  scratch.write("/var/db/consent.plist",
                plist("<dict><key>com.example.a</key><array>"
                      "<dict><key>service</key><string>S1</string><key>granted</key><true/></dict>"
                      "<dict><key>service</key><string>S2</string><key>granted</key><false/></dict>"
                      "<dict><key>service</key><string>S3</string></dict></array></dict>"));
  auto records = consent.informationForBundle(*bundle);
  ASSERT_EQ(records->size(), 3U);
  EXPECT_EQ(records->at(0).service, "S1");
  EXPECT_EQ(records->at(0).granted, true);
  EXPECT_EQ(records->at(1).granted, false);
  EXPECT_EQ(records->at(2).granted, std::nullopt);
  scratch.write("/var/db/consent.plist", "<plist");
  EXPECT_EQ(consent.informationForBundle(*bundle), std::nullopt);
  scratch.write("/A.app/Info.plist", plist("<dict/>"));
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.a");
  bundle->flushCaches();
  EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);
}

TEST(ServiceBundles, AnswerNothingForWhatIsNoBundle) {
  ScratchRoot scratch;
  scratch.write("/A.app/Contents/Info.plist", dictionary("KvBundleExecutable", "A"));
  LinuxServiceBundles bundles(scratch.root());
  using Property = ServiceBundle::Property;
  auto bundle = bundles.bundleAtPath("/A.app");
  EXPECT_EQ(bundle->stringProperty(Property::BundlePath), "/A.app");
  EXPECT_EQ(bundle->stringProperty(Property::SupportPath), "/A.app/Contents");
  EXPECT_EQ(bundle->stringProperty(Property::ExecutablePath), std::nullopt);
  EXPECT_EQ(*bundle->infoDictionary().getString("KvBundleExecutable"), "A");
  scratch.write("/A.app/Contents/Executables/A", "");
  EXPECT_EQ(bundle->stringProperty(Property::ExecutablePath), "/A.app/Contents/Executables/A");
  EXPECT_EQ(bundles.bundleOfExecutable("/A.app/Contents/Executables/A")->stringProperty(Property::BundlePath),
            "/A.app");
  for (const auto& none : {bundles.bundleAtPath("/none"), bundles.bundleOfExecutable("/A.app"), bundles.mainBundle()}) {
    EXPECT_EQ(none->stringProperty(Property::BundlePath), std::nullopt) << none->description();
    EXPECT_FALSE(none->infoDictionary());
  }
}

std::string type(const std::string& identifier, const std::string& parents) {
  return "<dict><key>identifier</key><string>" + identifier + "</string><key>conforms-to</key><array>" + parents +
         "</array></dict>";
}

TEST(TypeConformance, FollowsDeclarationsThroughCirclesAndChanges) {
  ScratchRoot scratch;
  LinuxTypeConformance types(scratch.root());
  EXPECT_TRUE(types.conforms("a", "a"));
  EXPECT_FALSE(types.conforms("jpeg", "item"));
  scratch.write("/System/Library/Types/one.plist",
                plist("<array>" + type("jpeg", "<string>image</string><string>loop</string>") +
                      type("image", "<string>data</string>") + type("loop", "<string>jpeg</string>") + "</array>"));
  scratch.write("/System/Library/Types/two.plist",
                plist("<array>" + type("data", "<string>item</string>") + "</array>"));
  scratch.write("/System/Library/Types/bad.plist", "garbage");
  EXPECT_FALSE(types.conforms("jpeg", "item"));
  std::this_thread::sleep_for(kTypesRecheckInterval + std::chrono::milliseconds(20));
  EXPECT_TRUE(types.conforms("jpeg", "item"));
  EXPECT_TRUE(types.conforms("loop", "item"));
  EXPECT_FALSE(types.conforms("item", "jpeg"));
  EXPECT_FALSE(types.conforms("data", "image"));
  EXPECT_FALSE(types.conforms("unknown", "item"));
  std::filesystem::remove(scratch.host("/System/Library/Types/two.plist"));
  std::this_thread::sleep_for(kTypesRecheckInterval + std::chrono::milliseconds(20));
  EXPECT_FALSE(types.conforms("jpeg", "item"));
  EXPECT_TRUE(types.conforms("jpeg", "data"));
}

TEST(SHA, FollowsTheStandardVectors) {
  EXPECT_EQ(hexText(sha1("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(hexText(sha1("")), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(hexText(sha256("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  const std::string twoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  EXPECT_EQ(hexText(sha1(twoBlocks)), "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(hexText(sha256(twoBlocks)), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(hexText(sha256(std::string(1'000'000, 'a'))),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(hexText(HMACSHA256("Jefe").digest("what do ya want for nothing?")),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(
      hexText(HMACSHA256(std::string(131, '\xaa')).digest("Test Using Larger Than Block-Size Key - Hash Key First")),
      "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
}

}  // namespace
}  // namespace platform
