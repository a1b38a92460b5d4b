// "annotate", "bulk-annotate": what is stored, and what is announced.
#include <gtest/gtest.h>

#include "tests/Support/FakeDaemon.h"

namespace vkd::testing {
namespace {

struct Annotations : ::testing::Test {
  FakeDaemon daemon;
  std::shared_ptr<FakeRecord> a = daemon.install("a"), b = daemon.install("b");
  FakeClient client = daemon.connect();
  CapturedLog log;

  std::size_t announcements() const { return daemon.device.notifier->posts.size(); }
  static PlistValue annotation(int election, const char* setting) {
    return dictionary({{"election", election}, {"extension", dictionary({{"setting", setting}})}});
  }
};

TEST_F(Annotations, StoresTheTwoKnownEntriesForEachPlugInAndAnnouncesOnce) {
  const Message change =
      messageOf({{"election", 1}, {"extension", messageOf({{"setting", "x"}})}, {"stranger", "is not stored"}});
  EXPECT_EQ(client.tell(annotateRequest({"a", "b"}, change)), success());
  EXPECT_EQ(daemon.annotation("a"), annotation(1, "x"));
  EXPECT_EQ(daemon.annotation("b"), annotation(1, "x"));
  EXPECT_EQ(daemon.device.notifier->posts, std::vector<std::string>{"com.vantrel.vornik.annotation-change"});
  const std::string who = "client 77 plug-in a(" + a->uuid->text() + ") ";
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", who + "election := 1")) << log;
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", who + "annotation change: " + annotation(1, "x").description())) << log;
}

TEST_F(Annotations, MergesWithWhatIsStored) {
  client.tell(annotateRequest({"a"}, election(2)));
  const Message settings = messageOf({{a->uuid->text(), messageOf({{"setting", "x"}})}});
  EXPECT_EQ(client.ask("bulk-annotate", {{"annotations", settings}}), success());
  EXPECT_EQ(daemon.annotation("a"), annotation(2, "x"));
  EXPECT_EQ(log.count("client 77 bulk plug-in a(" + a->uuid->text() + ") annotation change: "), 1) << log;
  client.tell(annotateRequest({"a"}, election(1)));
  EXPECT_EQ(daemon.annotation("a"), annotation(1, "x"));
  EXPECT_EQ(announcements(), 3U);
  EXPECT_EQ(client.ask("bulk-annotate", {{"annotations", Message::dictionary()}}), success());
  EXPECT_EQ(announcements(), 4U) << "in bulk even nothing is announced";
}

TEST_F(Annotations, KeepsWhatWasWrittenBeforeAFailureAndAnnouncesNothing) {
  EXPECT_EQ(client.tell(annotateRequest({"a", "nobody", "b"}, election(1))),
            failure(4, "no such plugin (uuid not found)"));
  EXPECT_EQ(daemon.annotation("a"), dictionary({{"election", 1}}));
  EXPECT_FALSE(daemon.annotation("b"));
  EXPECT_EQ(announcements(), 0U);
}

}  // namespace
}  // namespace vkd::testing
