// The daemon as a program: its command line, its service name, and what it keeps over a restart.

#include "tests/integration/Device.h"

namespace integration {
namespace {

class DaemonTest : public Device {
 protected:
  static constexpr std::string_view kPlugIn = "/Applications/Photos.app/PlugIns/Share.appex";
  DaemonTest() {
    addApplication(kPhotos);
    addPlugIn(kPlugIn, manifest("com.example.share"));
  }
};

TEST_F(DaemonTest, UsageErrorsPrintTheUsageAndExitWithTwo) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"-x"}, {"-S", "name", "operand"}}) {
    Result result = run(with(VKD_PROGRAM, words));
    EXPECT_EQ(result.status, 2) << words[0];
    EXPECT_TRUE(result.err.ends_with("Usage: vkd [-S servicename] [-v]\n")) << result.err;
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(DaemonTest, ANameIsServedByOneAndTakenOverFromTheDead) {
  startDaemon({"-S", "com.example.unused", "-S", "com.vantrel.vornik.vkd"});
  EXPECT_EQ(vkctl({"-S", "com.example.unused", "match"}).status, 7);
  auto other = start({VKD_PROGRAM, "-S", "com.example.other"});
  EXPECT_TRUE(eventually([&] { return vkctl({"-S", "com.example.other", "match"}).status == 0; }));
  Result second = run({VKD_PROGRAM});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("com.vantrel.vornik.vkd"), std::string::npos) << second.err;
  EXPECT_EQ(seenBy(kPhotos), "com.example.share 1.0");
  stopDaemon(SIGKILL);
  ASSERT_TRUE(fs::exists(host("/run/zyp/com.vantrel.vornik.vkd")));
  EXPECT_EQ(vkctl({"match"}).status, 7);
  startDaemon();
  EXPECT_EQ(seenBy(kPhotos), "com.example.share 1.0");
}

TEST_F(DaemonTest, RegistrationsAndAnnotationsSurviveEvenAKill) {
  const std::vector<std::string> elsewhere{"-d", "/var/db/elsewhere"};
  startDaemon(elsewhere);
  const PlistValue first = form(kPhotos, "com.example.share");
  ASSERT_EQ(as(kPhotos, {"elect", "com.example.share", "2"}).status, 0);
  PlistValue file = parsePropertyList(contentOf(host("/var/db/elsewhere")));
  EXPECT_EQ(file["data"]["com.example.share"]["election"].intValue(), 2);
  EXPECT_FALSE(fs::exists(host("/var/db/Vornik-Annotations")));
  stopDaemon(SIGKILL);
  startDaemon(elsewhere);
  const PlistValue again = form(kPhotos, "com.example.share");
  for (const char* key : {"uuid", "lastmodified"}) EXPECT_EQ(again[key], first[key]);
  EXPECT_EQ(again["annotations"]["election"].intValue(), 2);
  // What changed while nobody looked is another registration; what was annotated stays the identifier's.
  stopDaemon();
  addPlugIn(kPlugIn, manifest("com.example.share", "1.1"));
  startDaemon(elsewhere);
  const PlistValue changed = form(kPhotos, "com.example.share");
  EXPECT_EQ(changed["version"].stringValue(), "1.1");
  EXPECT_NE(changed["uuid"], first["uuid"]);
  EXPECT_EQ(changed["annotations"]["election"].intValue(), 2);
}

}  // namespace
}  // namespace integration
