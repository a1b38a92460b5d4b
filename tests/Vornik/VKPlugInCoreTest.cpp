#include <gtest/gtest.h>

#include <utility>

#include "Vornik/VKError.h"
#include "Vornik/VKPlugInCore.h"
#include "tests/Support/CapturedLog.h"

namespace Vornik {
namespace {

using support::CapturedLog;

PlistValue dictionary(std::vector<std::pair<std::string, PlistValue>> entries) {
  return PlistValue::dictionary(std::move(entries));
}

std::shared_ptr<VKPlugInCore> plugInAt(const std::string& path, const PlistValue& section, PlistValue manifest = {}) {
  manifest = PlistBuilder(manifest).set("ZoExtension", section).take();
  return VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.share", FileURL{path}, manifest, {}, {});
}

const PlistValue kSection = dictionary({{"ZoExtensionAttributes", dictionary({{"ZoExtensionVersion", "1.2"}})},
                                        {"ZoExtensionPointIdentifier", "com.example.sharing"}});
const FileURL kLocation{"/Applications/A.app/PlugIns/S.appex"};

TEST(VKPlugInCore, SetUpRefusesWhatCannotBeARecord) {
  CapturedLog log;
  const UUID uuid = UUID::random();
  EXPECT_EQ(VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("", std::nullopt, {}, {}, uuid), nullptr);
  EXPECT_EQ(VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("p", FileURL{}, {}, {}, uuid), nullptr);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("", kLocation, {}, {}, uuid), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "missing identifier in plug-in at " + kLocation.path)) << log;
  for (const PlistValue& manifest : {PlistValue(7), dictionary({}), dictionary({{"ZoExtension", "text"}})}) {
    log.clear();
    EXPECT_EQ(VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("p", kLocation, manifest, kSection, uuid), nullptr);
    EXPECT_TRUE(
        log.has(LogLevel::Default, "ops",
                "malformed plug-in dictionary in plug-in p at " + kLocation.path + ": " + manifest.description()))
        << log;
  }
}

TEST(VKPlugInCore, TheSectionOfTheManifestWinsOverThatPassedAlong) {
  const PlistValue other = dictionary({{"PrincipalClass", "Other"}});
  auto fromManifest = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid(
      "p", kLocation, dictionary({{"ZoExtension", kSection}}), other, {});
  EXPECT_EQ(fromManifest->plugInDictionary(), kSection);
  auto passedAlong = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("p", kLocation, {}, other, {});
  EXPECT_EQ(passedAlong->plugInDictionary(), other);
  EXPECT_FALSE(passedAlong->bundleInfoDictionary());
}

TEST(VKPlugInCore, IsItsUUID) {
  const UUID uuid = UUID::random();
  auto a = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", kLocation, {}, kSection, uuid);
  auto b = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("b", FileURL{"/b"}, {}, {}, uuid);
  EXPECT_EQ(a->uuid(), uuid);
  EXPECT_TRUE(a->isEqual(*b));
  EXPECT_EQ(a->hash(), b->hash());
  auto fresh = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", kLocation, {}, kSection, {});
  auto again = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", kLocation, {}, kSection, {});
  EXPECT_FALSE(fresh->isEqual(*again));
}

TEST(VKPlugInCore, AnApplicationExtensionIsToldByItsPath) {
  EXPECT_TRUE(plugInAt("/A.appex", kSection)->isAppExtension());
  EXPECT_FALSE(plugInAt("/A.APPEX", kSection)->isAppExtension());
  EXPECT_FALSE(plugInAt("/A.appex/", kSection)->isAppExtension());
}

TEST(VKPlugInCore, ManifestKeysDecideTheKind) {
  auto plain = plugInAt("/P.plugin", kSection);
  EXPECT_FALSE(plain->protocolSpec());
  EXPECT_FALSE(plain->principalSpec());
  EXPECT_FALSE(plain->isDedicated() || plain->isHybrid() || plain->isData() || plain->isMultiplexed());
  EXPECT_EQ(plain->version(), "1.2");
  EXPECT_EQ(plain->sdkSpec(), "com.example.sharing");
  EXPECT_EQ(plain->timestamp().time_since_epoch().count(), 0);

  auto extension = plugInAt("/P.appex", kSection);
  EXPECT_EQ(extension->protocolSpec(), "ZoObject");
  EXPECT_EQ(extension->principalSpec(), "ZoObject");
  EXPECT_EQ(extension->embeddedProtocolSpec(), "ZoObject");

  PlistBuilder rich(kSection);
  rich.set("Dedicated", true)
      .set("EmbeddedCode", false)
      .set("EmbeddedProtocol", "E")
      .set("ZoExtensionProtocol", "#Data");
  auto special = plugInAt("/P.appex", rich.take());
  EXPECT_TRUE(special->isDedicated() && special->isHybrid() && special->isData());
  EXPECT_EQ(special->embeddedProtocolSpec(), "E");
}

TEST(VKPlugInCore, StyleIsToldByTheManifest) {
  CapturedLog log;
  EXPECT_FALSE(plugInAt("/P", kSection, dictionary({{"Vornik", dictionary({})}}))->oldStyle());
  EXPECT_TRUE(log.lines().empty()) << log;
  auto record = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("p", kLocation, {}, kSection, {});
  EXPECT_FALSE(record->setDictionaries(dictionary({{"Vornik", dictionary({})}})));
  EXPECT_TRUE(record->oldStyle());
  EXPECT_FALSE(record->setDictionaries(dictionary({})));
  EXPECT_FALSE(record->oldStyle());
  EXPECT_TRUE(log.has(LogLevel::Fault, "ops", "unknown plug-in configuration style"));
}

TEST(VKPlugInCore, TheObsoleteMultiplexingMarkerIsOnlyLogged) {
  CapturedLog log;
  auto plugIn = plugInAt("/P", PlistBuilder(kSection).set("Multiple", false).take());
  EXPECT_FALSE(plugIn->isMultiplexed());
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", "multiplexed plug-ins (Multiple key) obsolete and ignored")) << log;
}

TEST(VKPlugInCore, DiagnoseNamesTheFirstFault) {
  const PlistValue bare = dictionary({{"ZoExtensionAttributes", dictionary({})}});
  const struct {
    const char* path;
    PlistValue section;
    const char* message;
  } cases[] = {
      {"/P.plugin", PlistValue(), "missing \"ZoExtensionProtocol\" key in Info.plist or SDK"},
      {"/P.appex", PlistValue(), "missing \"ZoExtensionAttributes\" key in Info.plist or SDK"},
      {"/P.appex", PlistBuilder(bare).set("PrincipalClass", "Mine").set("PassProxy", true).take(),
       "Application Extensions may not use the \"PrincipalClass\" key"},
      {"/P.appex", PlistBuilder(bare).set("PrincipalClass", 7).take(),
       "Application Extensions may not use the \"PrincipalClass\" key"},
      {"/P.appex", PlistBuilder(bare).set("PassProxy", false).set("EmbeddedCode", 1).take(),
       "the \"PassProxy\" key is not supported on this platform"},
      {"/P.appex", PlistBuilder(bare).set("EmbeddedCode", 0).take(),
       "hybrid plug-ins are not supported on this platform"},
  };
  for (const auto& each : cases) {
    auto plugIn = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("p", FileURL{each.path}, {}, each.section, {});
    auto error = plugIn->diagnose();
    ASSERT_TRUE(error) << each.message;
    EXPECT_TRUE(error->isInDomain(VKErrorDomain));
    EXPECT_EQ(error->code, 12);
    EXPECT_EQ(error->description, each.message);
  }
  EXPECT_EQ(VKPlugInCore::init()->diagnose()->description,
            "missing identifier (no ZoExtensionIdentifier, nor even KvBundleIdentifier)");
  EXPECT_FALSE(plugInAt("/P.appex", PlistBuilder(bare).set("PrincipalClass", "ZoObject").take())->diagnose());
  EXPECT_FALSE(plugInAt("/P", PlistBuilder(bare).set("PrincipalClass", "Mine").set("ZoExtensionProtocol", "P").take())
                   ->diagnose());
}

TEST(VKPlugInCore, CanonicalizeCompletesAttributesAndVersion) {
  auto bare = plugInAt("/P", dictionary({}));
  bare->canonicalize();
  EXPECT_EQ(bare->version(), "1");
  auto named = plugInAt("/P", dictionary({{"ZoExtensionAttributes", dictionary({{"A", 1}})}}),
                        dictionary({{"KvBundleShortVersionString", "3.4"}}));
  named->canonicalize();
  EXPECT_EQ(named->attributes(), dictionary({{"A", 1}, {"ZoExtensionVersion", "3.4"}}));
  auto complete = plugInAt("/P", kSection, dictionary({{"KvBundleShortVersionString", "3.4"}}));
  complete->canonicalize();
  EXPECT_EQ(complete->plugInDictionary(), kSection);
}

// A record that answers its manifest from elsewhere.
class LivePlugIn : public VKPlugInCore {
 public:
  PlistValue pluginKey(std::string_view key) const override {
    return key == "ZoExtensionAttributes" ? dictionary({{"ZoExtensionVersion", "9"}}) : PlistValue();
  }
};

TEST(VKPlugInCore, DerivedPropertiesFollowAReplacedLookup) { EXPECT_EQ(LivePlugIn().version(), "9"); }

TEST(VKPlugInCore, DescribesItselfAndLists) {
  auto plugIn = VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("p", FileURL{"/P"}, {}, kSection, UUID{{1}});
  const std::string expected = "<p 1.2 01000000-0000-0000-0000-000000000000 /P>";
  EXPECT_EQ(formatText("%@", *plugIn), expected);
  EXPECT_EQ(formatText("%@", std::vector{plugIn, plugIn}), "(" + expected + ", " + expected + ")");
}

}  // namespace
}  // namespace Vornik
