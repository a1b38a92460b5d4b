// "annotate", "bulk-annotate": what is stored, what is announced, and what is refused before anything is touched.
#include <gtest/gtest.h>

#include "tests/vkd/FakeDaemon.h"

namespace vkd::testing {
namespace {

struct Annotations : ::testing::Test {
  FakeDaemon daemon;
  std::shared_ptr<FakeRecord> a = daemon.install("a"), b = daemon.install("b");
  FakeClient client = daemon.connect();
  LogCapture log;

  PlistValue stored(const std::shared_ptr<FakeRecord>& record) {
    return daemon.server->annotationForPlugIn(*daemon.server->findPlugIn(*record->uuid));
  }
  std::size_t announcements() const { return daemon.device.notifier->posts.size(); }
  static PlistValue annotation(int election, const char* setting) {
    PlistBuilder builder;
    if (election != 0) builder.set("election", election);
    if (setting != nullptr) builder.set("extension", PlistBuilder().set("setting", setting).take());
    return builder.take();
  }
};

TEST_F(Annotations, StoresTheTwoKnownEntriesForEachPlugInAndAnnouncesOnce) {
  const Message change =
      messageOf({{"election", 1}, {"extension", messageOf({{"setting", "x"}})}, {"stranger", "is not stored"}});
  EXPECT_EQ(client.ask("annotate", {{"uuids", uuids({a, b})}, {"annotations", change}}), success());
  EXPECT_EQ(stored(a), annotation(1, "x"));
  EXPECT_EQ(stored(b), annotation(1, "x"));
  EXPECT_EQ(daemon.device.notifier->posts, std::vector<std::string>{"com.vantrel.vornik.annotation-change"});
  const std::string who = "client 77 plug-in a(" + a->uuid->text() + ") ";
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", who + "election := 1")) << log.all();
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", who + "annotation change: " + annotation(1, "x").description()));
}

TEST_F(Annotations, MergesWithWhatIsStored) {
  client.ask("annotate", {{"uuids", uuids({a})}, {"annotations", messageOf({{"election", 2}})}});
  client.ask("bulk-annotate", {{"annotations", messageOf({{a->uuid->text(), messageOf({{"setting", "x"}})}})}});
  EXPECT_EQ(stored(a), annotation(2, "x"));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "bulk change requested for 1 plug-ins"));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops",
                      "client 77 bulk plug-in a(" + a->uuid->text() + R"() annotation change: )" +
                          PlistBuilder().set("setting", "x").take().description()))
      << log.all();
  client.ask("annotate", {{"uuids", uuids({a})}, {"annotations", messageOf({{"election", 1}})}});
  EXPECT_EQ(stored(a), annotation(1, "x"));
  EXPECT_EQ(announcements(), 3U);
}

TEST_F(Annotations, ValidatesTheChangeBeforeAnyPlugInIsTouched) {
  const Message valid = uuids({a});
  const Message badDictionary = failure(4, "invalid request format (bad annotations dictionary)");
  EXPECT_EQ(client.ask("annotate", {{"uuids", valid}}), badDictionary);
  EXPECT_EQ(client.ask("annotate", {{"uuids", valid}, {"annotations", "x"}}), badDictionary);
  EXPECT_EQ(client.ask("annotate", {{"uuids", valid}, {"annotations", messageOf({{"election", "1"}})}}),
            failure(4, "invalid request format (annotation election)"));
  EXPECT_EQ(
      client.ask("annotate", {{"uuids", valid}, {"annotations", messageOf({{"election", 1}, {"extension", "x"}})}}),
      failure(4, "invalid request format (annotation extension)"));
  EXPECT_EQ(client.ask("annotate", {{"annotations", messageOf({{"stranger", 1}})}}), success())
      << "an empty change asks for no plug-ins";
  EXPECT_FALSE(stored(a));
  EXPECT_EQ(announcements(), 0U);
}

TEST_F(Annotations, KeepsWhatWasWrittenBeforeAFailureAndAnnouncesNothing) {
  Message list = uuids({a});
  list.append(UUID::random());
  list.append(*b->uuid);
  EXPECT_EQ(client.ask("annotate", {{"uuids", list}, {"annotations", messageOf({{"election", 1}})}}),
            failure(4, "no such plugin (uuid not found)"));
  EXPECT_EQ(stored(a), annotation(1, nullptr));
  EXPECT_FALSE(stored(b));
  EXPECT_EQ(announcements(), 0U);
}

TEST_F(Annotations, ChecksEachBulkEntryInTurn) {
  const Message badDictionary = failure(4, "invalid request format (bad annotations dictionary)");
  auto bulk = [&](const Message& annotations) { return client.ask("bulk-annotate", {{"annotations", annotations}}); };
  EXPECT_EQ(client.ask("bulk-annotate"), badDictionary);
  EXPECT_EQ(bulk(Message::array()), badDictionary);
  EXPECT_EQ(bulk(messageOf({{"no uuid", 5}})), failure(18, "annotations values must be dictionaries"));
  EXPECT_EQ(bulk(messageOf({{"no uuid", Message::dictionary()}})), failure(18, "invalid plug-in UUID value"));
  EXPECT_EQ(bulk(messageOf({{UUID::random().text(), Message::dictionary()}})),
            failure(2, "no plug-in with the requested uuid"));
  EXPECT_EQ(announcements(), 0U);
  EXPECT_EQ(bulk(Message::dictionary()), success());
  EXPECT_EQ(announcements(), 1U);
}

}  // namespace
}  // namespace vkd::testing
