#include <gtest/gtest.h>

#include <algorithm>

#include "Vornik/VKPlugInCore.h"
#include "tests/Support/CapturedLog.h"
#include "tests/Support/Values.h"

namespace Vornik {
namespace {

using support::CapturedLog, support::dictionary, support::list;

class FakeSdks : public ExtensionSdkRegistry {
 public:
  Message sdk(std::string_view extensionPoint) override {
    return extensionPoint == "com.example.sharing" ? Message::fromPlist(definition) : Message();
  }
  PlistValue definition;
};

class VKPlugInSDK : public testing::Test {
 protected:
  std::shared_ptr<VKPlugInCore> plugIn(const PlistValue& extensionPoint, PlistBuilder section = {}) {
    section.set("ZoExtensionPointIdentifier", extensionPoint);
    return VKPlugInCore::initWithNameUrlBundleInfoInfoUuid("p", FileURL{"/P"},
                                                           dictionary({{"ZoExtension", section.take()}}), {}, {});
  }
  PlistValue merge(const PlistValue& sdk, const PlistValue& own) { return record->mergeDictionaryInto(sdk, own); }

  FakeSdks sdks;
  CapturedLog log;
  std::shared_ptr<VKPlugInCore> record = VKPlugInCore::init();
};

TEST_F(VKPlugInSDK, ThePlugInsOwnValuesWinAtEveryDepthButForTheCleanTimeout) {
  const auto in = [](std::vector<std::pair<std::string, PlistValue>> entries) {
    return dictionary({{"in", dictionary(std::move(entries))}});
  };
  const PlistValue one = list({1}), two = list({2}), text = dictionary({{"in", "text"}});
  const struct {
    PlistValue sdk, own, merged;
  } cases[] = {
      {in({{"b", 2}, {"c", 3}, {"l", one}}), in({{"b", 4}, {"l", two}}), in({{"b", 4}, {"c", 3}, {"l", two}})},
      {dictionary({{"a", 1}}), dictionary({{"x", 0}}), dictionary({{"a", 1}, {"x", 0}})},
      {in({{"b", 1}}), text, text},
      {in({{"CleanTimeout", 10}}), in({{"CleanTimeout", 30}}), in({{"CleanTimeout", 10}})},
      {dictionary({}), in({{"CleanTimeout", 30}}), in({{"CleanTimeout", 30}})},
  };
  for (const auto& [sdk, own, merged] : cases) EXPECT_EQ(merge(sdk, own), merged) << merged.description();
}

TEST_F(VKPlugInSDK, SharedResourcesAreUnited) {
  auto united = [&](const PlistValue& sdk, const PlistValue& own) {
    std::vector<std::string> paths;
    PlistValue merged = merge(dictionary({{"Shared", sdk}}), dictionary({{"Shared", own}}))["Shared"];
    for (const PlistValue& path : merged.elements()) paths.push_back(path.description());
    std::sort(paths.begin(), paths.end());
    return testing::PrintToString(paths);
  };
  EXPECT_EQ(united(list({"a", "b"}), list({"b", "c", "c"})), united(list({"a", "b", "c"}), list({})));
  EXPECT_EQ(united(list({"a"}), "b"), united(list({}), list({"a", "b"})));
  EXPECT_EQ(united(list({1, true, "1"}), list({1.0})), united(list({}), list({1.0, "1"})));
  EXPECT_EQ(merge(dictionary({{"Shared", "a"}}), dictionary({})), dictionary({{"Shared", "a"}}));
}

TEST_F(VKPlugInSDK, ResolvingReplacesBothDictionaries) {
  sdks.definition = dictionary(
      {{"top", 1}, {"ZoExtension", dictionary({{"ZoExtensionAttributes", dictionary({{"A", 1}, {"B", 2}})}})}});
  auto resolved = plugIn("com.example.sharing", PlistBuilder().set("ZoExtensionAttributes", dictionary({{"B", 3}})));
  resolved->resolveSDK(sdks);
  EXPECT_EQ(resolved->attributes(), dictionary({{"A", 1}, {"B", 3}, {"ZoExtensionVersion", "1"}}));
  EXPECT_EQ(resolved->infoKey("top"), 1);
  EXPECT_TRUE(log.lines().empty()) << log;
}

TEST_F(VKPlugInSDK, WithoutSDKARecordIsOnlyCanonicalized) {
  auto unregistered = plugIn("com.example.unknown");
  unregistered->resolveSDK(sdks);
  EXPECT_EQ(unregistered->version(), "1");
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", "plug-in sdk \"com.example.unknown\" not registered")) << log;
  auto pointless = plugIn({});
  pointless->resolveSDK(sdks);
  EXPECT_EQ(pointless->version(), "1");
}

TEST_F(VKPlugInSDK, AMalformedRecordIsLeftAlone) {
  auto malformed = plugIn(7);
  malformed->resolveSDK(sdks);
  EXPECT_FALSE(malformed->attributes());
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "invalid SDK key:7")) << log;
  record->resolveSDK(sdks);
  EXPECT_FALSE(record->plugInDictionary());
  EXPECT_TRUE(log.has(LogLevel::Fault, "ops", "cannot resolve SDK without materialized Info.plist")) << log;
}

}  // namespace
}  // namespace Vornik
