// Who sees which plug-ins: real hosts with different entitlements ask the real daemon.

#include "tests/integration/Device.h"

namespace integration {
namespace {

constexpr std::string_view kSettings = "/System/Applications/Settings.app";
constexpr std::string_view kNotes = "/Applications/Notes.app";

class HostsTest : public Device {
 protected:
  // Several plug-ins may have one identifier.
  void add(std::string_view name, std::string_view identifier, std::string_view version = "1.0",
           const PlistValue& section = {}, const PlistValue& entitlements = {}) const {
    addPlugIn(std::string(kPhotos) + "/PlugIns/" + std::string(name) + ".appex", manifest(identifier, version, section),
              entitlements);
  }
  static PlistValue attribute(std::string_view key, const PlistValue& value) {
    return dictionary("ZoExtensionAttributes", dictionary(key, value));
  }
  static std::string identifierIs(std::string_view pattern) { return "ZoExtensionIdentifier=" + std::string(pattern); }
};

TEST_F(HostsTest, EachSeesWhatItMayAndAsksFor) {
  addApplication(kPhotos);
  addApplication(kSettings, dictionary(kManager, true));
  addApplication(
      kNotes, dictionary("com.vantrel.developer.vornik.allowedplugins", dictionary("ZoExtensionIdentifier", "open")));
  const PlistValue png = dictionary("identifier", "public.png"), images = PlistValue::array({"public.image"});
  writePlist("/System/Library/Types/types.plist",
             PlistValue::array({PlistBuilder(png).set("conforms-to", images).take()}));
  add("Old", "filter", "1.9");
  add("New", "filter", "1.10");
  addPlugIn("/System/Library/PlugIns/Copy.appex", manifest("filter", "1.10"));
  add("Open", "open", "2.9", attribute("Type", "public.png"));
  add("Own", "own", "1.0", dictionary("Dedicated", true));
  add("Partner", "partner", "1.0", dictionary("ZoExtensionHostEntitlement", "com.example.partners"));
  add("Chosen", "chosen", "2.10", {}, dictionary("com.vantrel.developer.auto-elect-plugin", true));
  add("Crop", "crop.new", "1.0", {}, dictionary("com.vantrel.developer.replace-plugin", "crop"));
  addPlugIn("/System/Library/PlugIns/Crop.appex", manifest("crop"));
  add("Broken", "broken", "1.0", dictionary("PrincipalClass", "Mine"));
  addPlugIn("/Applications/Loose.appex", manifest("loose"));
  startDaemon();

  const std::string common = "chosen 2.10, crop 1.0, crop.new 1.0, filter 1.10, open 2.9";
  const struct {
    std::string_view host;
    std::vector<std::string> words;
    std::string seen;
  } cases[] = {
      {kPhotos, {}, common + ", own 1.0"},
      {kNotes, {}, "open 2.9"},
      {kSettings, {}, common},
      {kSettings, {"--all"}, common + ", own 1.0, partner 1.0"},
      {kPhotos, {"--system-only"}, "crop 1.0, filter 1.10"},
      {kPhotos, {"--rule", identifierIs("filter"), "--all-versions"}, "filter 1.10, filter 1.9"},
      {kPhotos,
       {"--rule", identifierIs("filter"), "--all-versions", "--duplicates"},
       "filter 1.10, filter 1.10, filter 1.9"},
      {kPhotos, {"--rule", "ZoExtensionVersion=>=2.10"}, "chosen 2.10"},
      {kPhotos, {"--rule", "ZoUserElection==1"}, "chosen 2.10"},
      {kPhotos, {"--rule", "Type=?UT-CONFORMS:public.image"}, "open 2.9"},
      {kPhotos, {"--rule", identifierIs(R"(["open", "chosen"])"), "--rule", "Type=false"}, "chosen 2.10"},
      {kNotes, {"--rule", "ZoExtensionContainingApp=" + std::string(kPhotos)}, "open 2.9"},
  };
  for (const auto& [host, words, seen] : cases) {
    EXPECT_EQ(seenBy(host, words), seen) << host << " " << (words.empty() ? "" : words.back());
  }
  EXPECT_TRUE(logSays("\"PrincipalClass\""));
  PlistValue replacing = form(kPhotos, "crop.new"), replaced = form(kPhotos, "crop");
  EXPECT_EQ(replaced["overrider"].stringValue(), replacing["uuid"].stringValue());
  EXPECT_EQ(replacing["overriding"].stringValue(), "crop");
  // A choice that a settings screen writes counts from the next request on.
  writePlist("/var/users/" + std::to_string(getuid()) + "/Preferences/ByHost/com.vantrel.vornik.userprefs.plist",
             dictionary("exclusions", PlistValue::array({dictionary("ZoExtensionVersion", "<2.10")})));
  EXPECT_EQ(seenBy(kSettings, {"--all"}), "chosen 2.10");

  Result refused = as(kPhotos, {"match", "--all"});
  EXPECT_EQ(refused.status, 5);
  EXPECT_NE(refused.err.find("unauthorized discovery flag (VKDiscoverAll) (VKErrorNotPermitted, 11)"),
            std::string::npos);
  // Entitlements count only from files that nobody else can write.
  ::chmod(host(executable(kSettings) + ".entitlements").c_str(), 0664);
  EXPECT_EQ(as(kSettings, {"match", "--all"}).status, 5);
}

}  // namespace
}  // namespace integration
