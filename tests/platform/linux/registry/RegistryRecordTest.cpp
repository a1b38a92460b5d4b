// What is found on a device when the registry opens, and what its records answer.
#include <gtest/gtest.h>

#include "tests/Support/RegistryDevice.h"

namespace {

using namespace platform;
using namespace support;
using Paths = std::vector<std::string>;
using Scope = RegistryPlugInRecord::Scope;

const std::string kSystem = "/System/Library/PlugIns/";

class RegistryRecords : public testing::Test {
 protected:
  void open(std::string_view lang = "") {
    registry_ = nullptr;
    registry_ = device_.open(lang);
  }
  void writeSystemPlugIn(const std::string& name, PlistBuilder manifest) {
    device_.writeBundle(kSystem + name, manifest.take());
  }
  void writeRights(const std::string& name, mode_t mode) {
    device_.write(kSystem + name + "/run", "#!");
    device_.write(kSystem + name + "/run.entitlements",
                  serializePropertyListXML(PlistBuilder().set("right", true).take()), mode);
  }
  std::shared_ptr<RegistryPlugInRecord> at(const std::string& path) {
    return registry_->plugInRecord(FileURL{path[0] == '/' ? path : kSystem + path});
  }

  RegistryDevice device_;
  std::shared_ptr<RegistryWorkspace> registry_;
};

TEST_F(RegistryRecords, AreFoundOfAnyEndingWhereApplicationsAndTheSystemKeepThem) {
  const std::string a = "/Applications/Flat.app/PlugIns/A.appex";
  const std::string b = "/System/Applications/Deep.app/Contents/PlugIns/B.bundle";
  device_.writeApp("/Applications/Flat.app", std::move(PlistBuilder().set("KvBundleName", "Ape")));
  device_.writeBundle(a, plugInManifest("a"));
  device_.writeApp("/System/Applications/Deep.app/Contents", std::move(PlistBuilder().set("CatalonPlaceholder", true)));
  device_.writeBundle(b + "/Contents", plugInManifest("b"));
  device_.writeBundle("/System/Applications/Deep.app/PlugIns/NotHere.appex", plugInManifest("x"));
  device_.writeBundle("/Applications/NoEnding/PlugIns/D.appex", plugInManifest("d"));
  device_.writeApp("/opt/Other.app");
  writeSystemPlugIn("C.vornikplugin", PlistBuilder().set("Vornik", PlistBuilder().take()));
  writeSystemPlugIn("NoPlugIn.bundle", PlistBuilder().set("KvBundleIdentifier", "n"));
  writeSystemPlugIn("NoDictionary.bundle", PlistBuilder().set("ZoExtension", "text"));
  device_.write(kSystem + "Broken.appex/Info.plist", "<plist><dict><key>Zo");
  device_.write(kSystem + "File.appex", "no directory");
  open();
  EXPECT_EQ(installed(*registry_), (Paths{a, b, kSystem + "C.vornikplugin"}));

  EXPECT_FALSE(at(a + "/")->onSystemPartition());
  EXPECT_EQ(at(a)->containingBundle()->bundleURL().path, "/Applications/Flat.app");
  EXPECT_EQ(at(a)->containingBundle()->localizedName(), "Ape");
  EXPECT_FALSE(at(a)->containingBundle()->isPlaceholder());
  EXPECT_TRUE(at(b)->onSystemPartition());
  EXPECT_TRUE(at(b)->containingBundle()->isPlaceholder());
  EXPECT_EQ(at("C.vornikplugin")->containingBundle(), nullptr);
  auto app = [&](const char* path) { return registry_->appRecord(FileURL{path}); };
  EXPECT_EQ(paths(app("/System/Applications/Deep.app")->plugIns()), Paths{b});
  EXPECT_TRUE(app("/opt/Other.app")->plugIns().empty());
  for (const char* none : {"/Applications/None.app", "/Applications/NoEnding"}) EXPECT_EQ(app(none), nullptr) << none;
}

TEST_F(RegistryRecords, CompleteAttributesButNotTheManifest) {
  auto section = [](const PlistValue& attributes) {
    return PlistBuilder().set("ZoExtensionPointIdentifier", "p").set("ZoExtensionAttributes", attributes).take();
  };
  const PlistValue empty = PlistBuilder().take();
  PlistBuilder version = PlistBuilder().set("KvBundleShortVersionString", "2.5");
  const PlistValue own = PlistBuilder().set("ZoExtensionVersion", "7").set("ZoExtensionPointIdentifier", "own").take();
  writeSystemPlugIn("complete", PlistBuilder(version).set("ZoExtension", section(own)));
  writeSystemPlugIn("versioned", PlistBuilder(version).set("ZoExtension", section(empty)));
  writeSystemPlugIn("plain", PlistBuilder().set("Vornik", section(empty)));
  writeSystemPlugIn("without", PlistBuilder(version).set("ZoExtension", section({})));
  open();
  for (const auto& [name, expected, point] :
       {std::array{"complete", "7", "own"}, {"versioned", "2.5", "p"}, {"plain", "1", "p"}}) {
    EXPECT_EQ(at(name)->objectForKey("ZoExtensionVersion", Scope::Attributes), PlistValue(expected)) << name;
    EXPECT_EQ(at(name)->objectForKey("ZoExtensionPointIdentifier", Scope::Attributes), PlistValue(point)) << name;
  }
  auto versioned = at("versioned");
  EXPECT_TRUE(versioned->infoDictionary()["ZoExtension"]["ZoExtensionAttributes"].empty());
  EXPECT_EQ(versioned->plugInDictionary()["ZoExtensionAttributes"]["ZoExtensionVersion"], PlistValue("2.5"));
  EXPECT_EQ(versioned->objectForKey("KvBundleShortVersionString", Scope::Manifest), PlistValue("2.5"));
  EXPECT_FALSE(at("without")->plugInDictionary().contains("ZoExtensionAttributes"));
  EXPECT_EQ(at("without")->objectForKey("ZoExtensionPointIdentifier", Scope::PlugIn), PlistValue("p"));
}

TEST_F(RegistryRecords, AnswerIdentifiersNamesAndEntitlements) {
  PlistBuilder inner = PlistBuilder()
                           .set("ZoExtension", PlistBuilder().set("ZoExtensionIdentifier", "inner").take())
                           .set("KvBundleExecutable", "run");
  writeSystemPlugIn("inner", inner);
  writeRights("inner", 0666);
  writeSystemPlugIn("both", inner.set("KvBundleIdentifier", "outer")
                                .set("KvBundleVersion", "42")
                                .set("KvBundleName", "Short")
                                .set("KvBundleDisplayName", "Long"));
  writeRights("both", 0644);
  auto localize = [&](const char* language, const char* key, const char* name) {
    device_.write(kSystem + "both/Localized/" + language + ".plist",
                  serializePropertyListXML(PlistBuilder().set(key, name).take()));
  };
  localize("de", "KvBundleDisplayName", "Lang");
  open("de_DE.UTF-8");
  auto both = at("both");
  EXPECT_EQ(both->plugInIdentifier(), "inner");
  EXPECT_EQ(both->originalIdentifier(), "outer");
  EXPECT_EQ(both->bundleIdentifier(), "outer");
  EXPECT_EQ(both->bundleVersion(), "42");
  EXPECT_EQ(both->localizedName(), "Lang");
  EXPECT_EQ(both->localizedShortName(), "Short");
  EXPECT_EQ(both->entitlements(), PlistBuilder().set("right", true).take());
  EXPECT_EQ(at("inner")->originalIdentifier(), "inner");
  EXPECT_EQ(at("inner")->localizedName(), std::nullopt);
  EXPECT_FALSE(at("inner")->entitlements()) << "everybody could have written them";

  localize("de_DE", "KvBundleName", "Kurz");
  registry_->clearSchemaCaches();
  EXPECT_EQ(both->localizedShortName(), "Kurz");
  EXPECT_EQ(both->localizedName(), "Long") << "the better language is the only one that counts";
  open("C");
  EXPECT_EQ(at("both")->localizedName(), "Long");
}

TEST_F(RegistryRecords, HaveContainersThatLeadNowhereElse) {
  auto write = [&](const std::string& identifier, PlistBuilder section = {}, const PlistValue& wish = {}) {
    const std::string name = std::to_string(std::hash<std::string>()(identifier));
    writeSystemPlugIn(name, PlistBuilder()
                                .set("ZoExtension", section.take())
                                .set("KvBundleIdentifier", identifier)
                                .set("CatalonDataContainer", wish));
    return name;
  };
  const std::string normal = write("normal");
  const std::string data = write("data", PlistBuilder().set("ZoExtensionProtocol", "#Data"));
  Paths without{data, write("refuses", {}, false), write("linked")};
  for (const char* unsafe : {"..", ".", "../../outside/canary", "/etc", "a/b"}) without.push_back(write(unsafe));
  device_.link("/../../outside", "/var/containers/linked");
  auto container = [&](const std::string& name) { return at(name)->dataContainerURL(); };
  open();
  EXPECT_EQ(container(normal), FileURL{"/var/containers/normal"});
  for (const std::string& name : without) EXPECT_EQ(container(name), std::nullopt) << at(name)->plugInIdentifier();
  using Items = std::filesystem::directory_iterator;
  EXPECT_EQ(std::distance(Items(device_.host("/var/containers")), Items()), 2) << "one container and the link";
  EXPECT_FALSE(std::filesystem::exists(device_.outside("canary")));

  device_.remove("/var/containers");
  EXPECT_EQ(container(normal), std::nullopt);
  std::filesystem::create_directories(device_.host("/var/containers/data"));
  EXPECT_TRUE(container(data)) << "exists when its folder does";
  EXPECT_TRUE(registry_->registerPlugIn(FileURL{kSystem + normal}));
  EXPECT_TRUE(container(normal)) << "made by every registration";
}

}  // namespace
