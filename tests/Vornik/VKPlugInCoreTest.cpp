#include <gtest/gtest.h>

#include <utility>

#include "Vornik/VKError.h"
#include "Vornik/VKPlugInCore.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/Values.h"

namespace Vornik {
namespace {

using support::CapturedLog, support::dictionary;

const PlistValue kSection = dictionary({{"ZoExtensionAttributes", dictionary({{"ZoExtensionVersion", "1.2"}})},
                                        {"ZoExtensionPointIdentifier", "com.example.sharing"}});
const FileURL kLocation{"/Applications/A.app/PlugIns/S.appex"};

std::shared_ptr<VKPlugInCore> record(const std::string& name, const std::optional<FileURL>& url,
                                     const PlistValue& manifest, const PlistValue& section = {},
                                     const std::optional<UUID>& uuid = {}) {
  return VKPlugInCore::initWithNameUrlBundleInfoInfoUuid(name, url, manifest, section, uuid);
}
std::shared_ptr<VKPlugInCore> plugInAt(const std::string& path, const PlistValue& section, PlistValue manifest = {}) {
  return record("p", FileURL{path}, PlistBuilder(manifest).set("ZoExtension", section).take());
}

TEST(VKPlugInCore, SetUpRefusesWhatCannotBeARecord) {
  CapturedLog log;
  EXPECT_EQ(record("", std::nullopt, {}), nullptr);
  EXPECT_EQ(record("p", FileURL{}, {}), nullptr);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(record("", kLocation, {}), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "missing identifier in plug-in at " + kLocation.path)) << log;
  const std::string malformed = "malformed plug-in dictionary in plug-in p at " + kLocation.path + ": ";
  for (const PlistValue& manifest : {PlistValue(7), dictionary({}), dictionary({{"ZoExtension", "text"}})}) {
    EXPECT_EQ(record("p", kLocation, manifest, kSection), nullptr);
    EXPECT_TRUE(log.has(LogLevel::Default, "ops", malformed + manifest.description())) << log;
  }
}

TEST(VKPlugInCore, TheSectionOfTheManifestWinsOverThatPassedAlong) {
  const PlistValue other = dictionary({{"PrincipalClass", "Other"}});
  EXPECT_EQ(record("p", kLocation, dictionary({{"ZoExtension", kSection}}), other)->plugInDictionary(), kSection);
  auto passedAlong = record("p", kLocation, {}, other);
  EXPECT_EQ(passedAlong->plugInDictionary(), other);
  EXPECT_FALSE(passedAlong->bundleInfoDictionary());
}

TEST(VKPlugInCore, IsItsUUIDAndTellsIt) {
  const UUID uuid{{1}};
  auto a = record("a", FileURL{"/P"}, {}, kSection, uuid), b = record("b", FileURL{"/b"}, {}, {}, uuid);
  EXPECT_EQ(a->uuid(), uuid);
  EXPECT_TRUE(a->isEqual(*b));
  EXPECT_EQ(a->hash(), b->hash());
  EXPECT_FALSE(record("a", kLocation, {}, kSection)->isEqual(*record("a", kLocation, {}, kSection)));
  const std::string text = "<a 1.2 01000000-0000-0000-0000-000000000000 /P>";
  EXPECT_EQ(formatText("%@", std::vector{a, a}), "(" + text + ", " + text + ")");
}

TEST(VKPlugInCore, ManifestAndPathDecideTheKind) {
  CapturedLog log;
  auto plain = plugInAt("/P.plugin", kSection), extension = plugInAt("/P.appex", kSection);
  EXPECT_FALSE(plain->protocolSpec() || plain->principalSpec());
  EXPECT_FALSE(plain->isDedicated() || plain->isHybrid() || plain->isData() || plain->isMultiplexed());
  EXPECT_EQ(plain->sdkSpec(), "com.example.sharing");
  EXPECT_TRUE(extension->isAppExtension());
  for (const char* path : {"/A.APPEX", "/A.appex/"}) EXPECT_FALSE(plugInAt(path, kSection)->isAppExtension()) << path;
  for (const auto& name : {extension->protocolSpec(), extension->principalSpec(), extension->embeddedProtocolSpec()}) {
    EXPECT_EQ(name, "ZoObject");
  }
  PlistBuilder rich(kSection);
  rich.set("Dedicated", true).set("EmbeddedCode", false).set("EmbeddedProtocol", "E").set("Multiple", false);
  auto special = plugInAt("/P.appex", rich.set("ZoExtensionProtocol", "#Data").take());
  EXPECT_TRUE(special->isDedicated() && special->isHybrid() && special->isData());
  EXPECT_EQ(special->embeddedProtocolSpec(), "E");
  EXPECT_FALSE(special->isMultiplexed());
  EXPECT_EQ(log.count("multiplexed plug-ins (Multiple key) obsolete and ignored"), 1) << log;
}

TEST(VKPlugInCore, StyleIsToldByTheManifest) {
  CapturedLog log;
  const PlistValue old = dictionary({{"Vornik", dictionary({})}});
  EXPECT_FALSE(plugInAt("/P", kSection, old)->oldStyle());
  auto plugIn = record("p", kLocation, {}, kSection);
  EXPECT_FALSE(plugIn->setDictionaries(old));
  EXPECT_TRUE(plugIn->oldStyle());
  EXPECT_TRUE(log.lines().empty()) << log;
  EXPECT_FALSE(plugIn->setDictionaries(dictionary({})));
  EXPECT_FALSE(plugIn->oldStyle());
  EXPECT_TRUE(log.has(LogLevel::Fault, "ops", "unknown plug-in configuration style"));
}

TEST(VKPlugInCore, DiagnoseNamesTheFirstFault) {
  const PlistValue bare = dictionary({{"ZoExtensionAttributes", dictionary({})}});
  const auto with = [&](const char* key, const PlistValue& value) { return PlistBuilder(bare).set(key, value); };
  const std::string principal = "Application Extensions may not use the \"PrincipalClass\" key";
  const struct {
    const char* path;
    PlistValue section;
    std::string message;  // empty: nothing is wrong
  } cases[] = {
      {"/P.plugin", PlistValue(), "missing \"ZoExtensionProtocol\" key in Info.plist or SDK"},
      {"/P.appex", PlistValue(), "missing \"ZoExtensionAttributes\" key in Info.plist or SDK"},
      {"/P.appex", with("PrincipalClass", "Mine").set("PassProxy", true).take(), principal},
      {"/P.appex", with("PrincipalClass", 7).take(), principal},
      {"/P.appex", with("PassProxy", false).set("EmbeddedCode", 1).take(),
       "the \"PassProxy\" key is not supported on this platform"},
      {"/P.appex", with("EmbeddedCode", 0).take(), "hybrid plug-ins are not supported on this platform"},
      {"/P.appex", with("PrincipalClass", "ZoObject").take(), ""},
      {"/P", with("PrincipalClass", "Mine").set("ZoExtensionProtocol", "P").take(), ""},
  };
  for (const auto& [path, section, message] : cases) {
    const auto error = record("p", FileURL{path}, {}, section)->diagnose();
    EXPECT_EQ(error ? error->description : "", message);
    EXPECT_TRUE(!error || (error->isInDomain(VKErrorDomain) && error->code == 12));
  }
  EXPECT_EQ(VKPlugInCore::init()->diagnose()->description,
            "missing identifier (no ZoExtensionIdentifier, nor even KvBundleIdentifier)");
}

TEST(VKPlugInCore, CanonicalizeCompletesAttributesAndVersion) {
  const PlistValue versioned = dictionary({{"KvBundleShortVersionString", "3.4"}});
  auto named = plugInAt("/P", dictionary({{"ZoExtensionAttributes", dictionary({{"A", 1}})}}), versioned);
  named->canonicalize();
  EXPECT_EQ(named->attributes(), dictionary({{"A", 1}, {"ZoExtensionVersion", "3.4"}}));
  auto complete = plugInAt("/P", kSection, versioned);
  complete->canonicalize();
  EXPECT_EQ(complete->plugInDictionary(), kSection);
}

}  // namespace
}  // namespace Vornik
