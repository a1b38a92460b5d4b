// What is found on a device when the registry opens, and what its records answer.
#include <gtest/gtest.h>

#include "tests/Support/CapturedLog.h"
#include "tests/Support/RegistryDevice.h"

namespace {

using namespace platform;
using namespace support;
using Paths = std::vector<std::string>;
using Scope = RegistryPlugInRecord::Scope;

std::shared_ptr<RegistryPlugInRecord> recordAt(RegistryWorkspace& registry, const std::string& path) {
  return registry.plugInRecord(FileURL{path});
}

TEST(RegistryDiscovery, FindsBundlesOfAnyEndingWhereApplicationsAndTheSystemKeepThem) {
  RegistryDevice device;
  device.writeApp("/Applications/Flat.app");
  device.writeBundle("/Applications/Flat.app/PlugIns/A.appex", plugInManifest("a"));
  device.writeApp("/System/Applications/Deep.app/Contents");
  device.writeBundle("/System/Applications/Deep.app/Contents/PlugIns/B.bundle/Contents", plugInManifest("b"));
  device.writeBundle("/System/Applications/Deep.app/PlugIns/NotHere.appex", plugInManifest("x"));
  device.writeBundle("/System/Library/PlugIns/C.vornikplugin",
                     PlistBuilder().set("Vornik", PlistBuilder().take()).take());
  device.writeBundle("/System/Library/PlugIns/NoPlugIn.bundle", PlistBuilder().set("KvBundleIdentifier", "n").take());
  device.writeBundle("/System/Library/PlugIns/NoDictionary.bundle", PlistBuilder().set("ZoExtension", "text").take());
  device.write("/System/Library/PlugIns/Broken.appex/Info.plist", "<plist><dict><key>Zo");
  device.write("/System/Library/PlugIns/File.appex", "no directory");
  device.writeBundle("/Applications/NoEnding/PlugIns/D.appex", plugInManifest("d"));
  std::filesystem::create_directories(device.host("/System/Library/PlugIns/Fifo.appex"));
  ASSERT_EQ(::mkfifo(device.host("/System/Library/PlugIns/Fifo.appex/Info.plist").c_str(), 0600), 0);

  auto registry = device.open();
  EXPECT_EQ(installed(*registry),
            (Paths{"/Applications/Flat.app/PlugIns/A.appex", "/System/Applications/Deep.app/Contents/PlugIns/B.bundle",
                   "/System/Library/PlugIns/C.vornikplugin"}));

  auto a = recordAt(*registry, "/Applications/Flat.app/PlugIns/A.appex/");
  ASSERT_NE(a, nullptr);
  EXPECT_FALSE(a->onSystemPartition());
  ASSERT_NE(a->containingBundle(), nullptr);
  EXPECT_EQ(a->containingBundle()->bundleURL().path, "/Applications/Flat.app");
  auto b = recordAt(*registry, "/System/Applications/Deep.app/Contents/PlugIns/B.bundle");
  EXPECT_TRUE(b->onSystemPartition());
  EXPECT_EQ(b->containingBundle()->bundleURL().path, "/System/Applications/Deep.app");
  EXPECT_EQ(recordAt(*registry, "/System/Library/PlugIns/C.vornikplugin")->containingBundle(), nullptr);

  auto app = registry->appRecord(FileURL{"/System/Applications/Deep.app"});
  ASSERT_NE(app, nullptr);
  EXPECT_EQ(paths(app->plugIns()), (Paths{"/System/Applications/Deep.app/Contents/PlugIns/B.bundle"}));
  EXPECT_EQ(registry->appRecord(FileURL{"/Applications/None.app"}), nullptr);
  EXPECT_EQ(registry->appRecord(FileURL{"/Applications/NoEnding"}), nullptr);
}

TEST(RegistryRecord, CompletesAttributesButNotTheManifest) {
  RegistryDevice device;
  PlistValue attributes = PlistBuilder().set("ZoExtensionVersion", "7").set("ZoExtensionPointIdentifier", "own").take();
  auto section = [](const PlistValue& inner) {
    return PlistBuilder().set("ZoExtensionPointIdentifier", "p").set("ZoExtensionAttributes", inner).take();
  };
  PlistValue version = PlistBuilder().set("KvBundleShortVersionString", "2.5").take();
  const std::string folder = "/System/Library/PlugIns/";
  device.writeBundle(folder + "complete", PlistBuilder(version).set("ZoExtension", section(attributes)).take());
  device.writeBundle(folder + "versioned",
                     PlistBuilder(version).set("ZoExtension", section(PlistBuilder().take())).take());
  device.writeBundle(folder + "plain", PlistBuilder().set("Vornik", section(PlistBuilder().take())).take());
  device.writeBundle(folder + "without", PlistBuilder(version).set("ZoExtension", section(PlistValue())).take());
  auto registry = device.open();
  auto attribute = [&](const std::string& name, std::string_view key) {
    return std::string(recordAt(*registry, folder + name)->objectForKey(key, Scope::Attributes).stringValue());
  };
  EXPECT_EQ(attribute("complete", "ZoExtensionVersion"), "7");
  EXPECT_EQ(attribute("complete", "ZoExtensionPointIdentifier"), "own");
  EXPECT_EQ(attribute("versioned", "ZoExtensionVersion"), "2.5");
  EXPECT_EQ(attribute("versioned", "ZoExtensionPointIdentifier"), "p");
  EXPECT_EQ(attribute("plain", "ZoExtensionVersion"), "1");
  auto versioned = recordAt(*registry, folder + "versioned");
  EXPECT_TRUE(versioned->infoDictionary()["ZoExtension"]["ZoExtensionAttributes"].empty());
  EXPECT_EQ(versioned->plugInDictionary()["ZoExtensionAttributes"]["ZoExtensionVersion"], PlistValue("2.5"));
  EXPECT_EQ(versioned->objectForKey("KvBundleShortVersionString", Scope::Manifest), PlistValue("2.5"));
  auto without = recordAt(*registry, folder + "without");
  EXPECT_FALSE(without->plugInDictionary().contains("ZoExtensionAttributes"));
  EXPECT_EQ(without->objectForKey("ZoExtensionPointIdentifier", Scope::PlugIn), PlistValue("p"));
}

TEST(RegistryRecord, AnswersIdentifiersNamesAndEntitlements) {
  RegistryDevice device;
  PlistValue section = PlistBuilder().set("ZoExtensionIdentifier", "inner").take();
  device.writeBundle("/System/Library/PlugIns/both", PlistBuilder()
                                                         .set("ZoExtension", section)
                                                         .set("KvBundleIdentifier", "outer")
                                                         .set("KvBundleVersion", "42")
                                                         .set("KvBundleName", "Short")
                                                         .set("KvBundleDisplayName", "Long")
                                                         .set("KvBundleExecutable", "run")
                                                         .take());
  device.write("/System/Library/PlugIns/both/run", "#!");
  device.write("/System/Library/PlugIns/both/run.entitlements",
               serializePropertyListXML(PlistBuilder().set("right", true).take()));
  device.write("/System/Library/PlugIns/both/Localized/de.plist",
               serializePropertyListXML(PlistBuilder().set("KvBundleDisplayName", "Lang").take()));
  device.writeBundle("/System/Library/PlugIns/inner",
                     PlistBuilder().set("ZoExtension", section).set("KvBundleExecutable", "run").take());
  device.write("/System/Library/PlugIns/inner/run", "#!");
  device.write("/System/Library/PlugIns/inner/run.entitlements",
               serializePropertyListXML(PlistBuilder().set("right", true).take()), 0666);
  auto registry = device.open("de_DE.UTF-8");
  auto both = recordAt(*registry, "/System/Library/PlugIns/both");
  EXPECT_EQ(both->plugInIdentifier(), "inner");
  EXPECT_EQ(both->originalIdentifier(), "outer");
  EXPECT_EQ(both->bundleIdentifier(), "outer");
  EXPECT_EQ(both->bundleVersion(), "42");
  EXPECT_EQ(both->localizedName(), "Lang");
  EXPECT_EQ(both->localizedShortName(), "Short");
  EXPECT_EQ(both->entitlements(), PlistBuilder().set("right", true).take());
  auto inner = recordAt(*registry, "/System/Library/PlugIns/inner");
  EXPECT_EQ(inner->originalIdentifier(), "inner");
  EXPECT_EQ(inner->localizedName(), std::nullopt);
  EXPECT_FALSE(inner->entitlements()) << "everybody could have written them";

  device.write("/System/Library/PlugIns/both/Localized/de_DE.plist",
               serializePropertyListXML(PlistBuilder().set("KvBundleName", "Kurz").take()));
  registry->clearSchemaCaches();
  EXPECT_EQ(both->localizedShortName(), "Kurz");
  EXPECT_EQ(both->localizedName(), "Long") << "the better language is the only one that counts";
  registry = nullptr;
  registry = device.open("C");
  EXPECT_EQ(recordAt(*registry, "/System/Library/PlugIns/both")->localizedName(), "Long");
}

TEST(RegistryRecord, ApplicationsAnswerNamesAndPlaceholders) {
  RegistryDevice device;
  device.writeApp("/Applications/A.app", std::move(PlistBuilder().set("KvBundleName", "Ape")));
  device.writeApp("/Applications/P.app", std::move(PlistBuilder().set("CatalonPlaceholder", true)));
  device.writeApp("/opt/Other.app");
  auto registry = device.open();
  EXPECT_EQ(registry->appRecord(FileURL{"/Applications/A.app"})->localizedName(), "Ape");
  EXPECT_FALSE(registry->appRecord(FileURL{"/Applications/A.app"})->isPlaceholder());
  EXPECT_TRUE(registry->appRecord(FileURL{"/Applications/P.app"})->isPlaceholder());
  EXPECT_TRUE(registry->appRecord(FileURL{"/opt/Other.app"})->plugIns().empty());
}

TEST(RegistryContainer, IsMadeForWhoNeedsOneAndLeadsNowhereElse) {
  RegistryDevice device;
  auto plugIn = [&](const std::string& identifier, const PlistValue& protocol, const PlistValue& container) {
    PlistValue section = PlistBuilder().set("ZoExtensionProtocol", protocol).take();
    std::string path = "/System/Library/PlugIns/" + std::to_string(std::hash<std::string>()(identifier));
    device.writeBundle(path, PlistBuilder()
                                 .set("ZoExtension", section)
                                 .set("KvBundleIdentifier", identifier)
                                 .set("CatalonDataContainer", container)
                                 .take());
    return path;
  };
  std::string normal = plugIn("com.example.normal", {}, {});
  std::string data = plugIn("com.example.data", "#Data", {});
  std::string refuses = plugIn("com.example.refuses", {}, false);
  std::vector<std::string> unsafe;
  for (const char* name : {"..", ".", "../../outside/canary", "/etc", "a/b"}) unsafe.push_back(plugIn(name, {}, {}));
  std::filesystem::create_directories(device.host("/var/containers"));
  device.link("/../../outside", "/var/containers/com.example.linked");
  std::string linked = plugIn("com.example.linked", {}, {});
  auto registry = device.open();

  ASSERT_EQ(registry->installedPlugIns()->size(), 4 + unsafe.size());
  EXPECT_EQ(recordAt(*registry, normal)->dataContainerURL(), FileURL{"/var/containers/com.example.normal"});
  EXPECT_EQ(recordAt(*registry, data)->dataContainerURL(), std::nullopt);
  EXPECT_EQ(recordAt(*registry, refuses)->dataContainerURL(), std::nullopt);
  EXPECT_EQ(recordAt(*registry, linked)->dataContainerURL(), std::nullopt) << "leads out of the device";
  for (const std::string& path : unsafe) EXPECT_EQ(recordAt(*registry, path)->dataContainerURL(), std::nullopt);
  std::size_t made = 0;
  for (const auto& item : std::filesystem::directory_iterator(device.host("/var/containers"))) {
    made += item.is_directory() && !item.is_symlink();
  }
  EXPECT_EQ(made, 1U);
  EXPECT_FALSE(std::filesystem::exists(device.outside("canary")));

  device.remove("/var/containers");
  EXPECT_EQ(recordAt(*registry, normal)->dataContainerURL(), std::nullopt);
  std::filesystem::create_directories(device.host("/var/containers/com.example.data"));
  EXPECT_TRUE(recordAt(*registry, data)->dataContainerURL()) << "exists when its folder does";
  EXPECT_TRUE(registry->registerPlugIn(FileURL{normal}));
  EXPECT_TRUE(recordAt(*registry, normal)->dataContainerURL()) << "made by every registration";
}

}  // namespace
