// Who sees which plug-ins: real hosts with different entitlements ask the real daemon.

#include "tests/integration/Device.h"

namespace integration {
namespace {

class HostsTest : public Device {
 protected:
  static constexpr std::string_view kSettings = "/System/Applications/Settings.app";
  static constexpr std::string_view kNotes = "/Applications/Notes.app";

  HostsTest() {
    addApplication(kPhotos);
    addApplication(kSettings, dictionary(kManager, true));
  }
  static std::string plugIn(std::string_view app, std::string_view name) {
    return std::string(app) + "/PlugIns/" + std::string(name) + ".appex";
  }
};

TEST_F(HostsTest, OneVersionOfEachIdentifierUnlessAllAreWanted) {
  addPlugIn(plugIn(kPhotos, "Old"), manifest("com.example.filter", "1.9"));
  addPlugIn(plugIn(kPhotos, "New"), manifest("com.example.filter", "1.10"));
  addPlugIn("/System/Library/PlugIns/Copy.appex", manifest("com.example.filter", "1.10"));
  startDaemon();
  EXPECT_EQ(seenBy(kPhotos), "com.example.filter 1.10");
  EXPECT_EQ(seenBy(kPhotos, {"--all-versions"}), "com.example.filter 1.10, com.example.filter 1.9");
  EXPECT_EQ(seenBy(kPhotos, {"--all-versions", "--duplicates"}),
            "com.example.filter 1.10, com.example.filter 1.10, com.example.filter 1.9");
  EXPECT_EQ(seenBy(kPhotos, {"--duplicates"}), "com.example.filter 1.10");
  EXPECT_EQ(form(kPhotos, "com.example.filter", {"--system-only"})["path"].stringValue(),
            "/System/Library/PlugIns/Copy.appex");
}

TEST_F(HostsTest, HostsAndPlugInsRestrictEachOther) {
  addApplication(kNotes, dictionary("com.vantrel.developer.vornik.allowedplugins",
                                    dictionary("ZoExtensionIdentifier", "com.example.open")));
  addPlugIn(plugIn(kPhotos, "Open"), manifest("com.example.open"));
  addPlugIn(plugIn(kPhotos, "Own"), manifest("com.example.own", "1.0", dictionary("Dedicated", true)));
  addPlugIn(plugIn(kPhotos, "Partner"),
            manifest("com.example.partner", "1.0", dictionary("ZoExtensionHostEntitlement", "com.example.partners")));
  startDaemon();
  EXPECT_EQ(seenBy(kPhotos), "com.example.open 1.0, com.example.own 1.0");
  EXPECT_EQ(seenBy(kNotes), "com.example.open 1.0");
  EXPECT_EQ(seenBy(kSettings), "com.example.open 1.0");
  EXPECT_EQ(seenBy(kSettings, {"--all"}), "com.example.open 1.0, com.example.own 1.0, com.example.partner 1.0");
  Result refused = as(kPhotos, {"match", "--all"});
  EXPECT_EQ(refused.status, 5);
  EXPECT_NE(refused.err.find("unauthorized discovery flag (VKDiscoverAll) (VKErrorNotPermitted, 11)"),
            std::string::npos);
}

TEST_F(HostsTest, EntitlementsCountOnlyFromFilesThatNobodyElseCanWrite) {
  addPlugIn(plugIn(kPhotos, "Open"), manifest("com.example.open"));
  ::chmod(host(executable(kSettings) + ".entitlements").c_str(), 0664);
  startDaemon();
  EXPECT_EQ(as(kSettings, {"match", "--all"}).status, 5);
  ::chmod(host(executable(kSettings) + ".entitlements").c_str(), 0644);
  EXPECT_EQ(as(kSettings, {"match", "--all"}).status, 0);
}

TEST_F(HostsTest, ExclusionsReplacementsAndWhatIsNotServed) {
  addPlugIn("/System/Library/PlugIns/Crop.appex", manifest("com.vantrel.crop"));
  addPlugIn(plugIn(kPhotos, "Crop"), manifest("com.example.crop"),
            dictionary("com.vantrel.developer.replace-plugin", "com.vantrel.crop"));
  addPlugIn(plugIn(kPhotos, "Stamp"), manifest("com.example.stamp"));
  addPlugIn(plugIn(kPhotos, "Broken"), manifest("com.example.broken", "1.0", dictionary("PrincipalClass", "Mine")));
  addPlugIn("/Applications/Loose.appex", manifest("com.example.loose"));
  startDaemon();
  EXPECT_EQ(seenBy(kPhotos), "com.example.crop 1.0, com.example.stamp 1.0, com.vantrel.crop 1.0");
  PlistValue replacing = form(kPhotos, "com.example.crop"), replaced = form(kPhotos, "com.vantrel.crop");
  EXPECT_EQ(replaced["overrider"].stringValue(), replacing["uuid"].stringValue());
  EXPECT_EQ(replacing["overriding"].stringValue(), "com.vantrel.crop");
  EXPECT_TRUE(logSays("\"PrincipalClass\""));
  // A choice that a settings screen writes counts from the next request on.
  writePlist("/var/users/" + std::to_string(getuid()) + "/Preferences/ByHost/com.vantrel.vornik.userprefs.plist",
             dictionary("exclusions", PlistValue::array({dictionary("ZoExtensionIdentifier", "com.example.stamp")})));
  EXPECT_EQ(seenBy(kSettings, {"--all"}), "com.example.crop 1.0, com.vantrel.crop 1.0");
}

TEST_F(HostsTest, RulesSelect) {
  writePlist("/System/Library/Types/types.plist",
             PlistValue::array({PlistBuilder()
                                    .set("identifier", "public.png")
                                    .set("conforms-to", PlistValue::array({"public.image"}))
                                    .take()}));
  addPlugIn(plugIn(kPhotos, "A"),
            manifest("com.example.a", "2.9", dictionary("ZoExtensionAttributes", dictionary("Type", "public.png"))));
  addPlugIn(plugIn(kPhotos, "B"), manifest("com.example.b", "2.10"),
            dictionary("com.vantrel.developer.auto-elect-plugin", true));
  startDaemon();
  EXPECT_EQ(seenBy(kPhotos, {"--rule", "ZoExtensionVersion=>=2.10"}), "com.example.b 2.10");
  EXPECT_EQ(seenBy(kPhotos, {"--rule", "ZoUserElection==1"}), "com.example.b 2.10");
  EXPECT_EQ(seenBy(kPhotos, {"--rule", "Type=?UT-CONFORMS:public.image"}), "com.example.a 2.9");
  EXPECT_EQ(seenBy(kPhotos,
                   {"--rule", R"(ZoExtensionIdentifier=["com.example.a", "com.example.b"])", "--rule", "Type=false"}),
            "com.example.b 2.10");
  EXPECT_EQ(seenBy(kPhotos, {"--rule", "ZoExtensionContainingApp=" + std::string(kPhotos)}),
            "com.example.a 2.9, com.example.b 2.10");
}

}  // namespace
}  // namespace integration
