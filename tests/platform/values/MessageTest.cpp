#include <gtest/gtest.h>

#include "platform/values/Message.h"

using namespace platform;

namespace {

Message sample() {
  Message message = Message::dictionary();
  message.set("version", std::uint64_t{3});
  message.set("signed", std::int64_t{-3});
  message.set("flag", true);
  message.set("text", "x");
  message.set("data", Message::data("\xFF"));
  message.set("uuids", Message::Array{UUID::random(), UUID::random()});
  message.set("plist", encodePlist(PlistValue::array({1.5, PlistValue::date(3)})));
  message.set("zz", Message::dictionary());
  return message;
}

SharedSlice encode(const Message& message) { return encodeMessage(message).flat(); }

}  // namespace

TEST(Message, EveryKindSurvivesTheWire) {
  Message message = sample();
  EXPECT_EQ(decodeMessage(encode(message)), message);
  EXPECT_EQ(encode(decodeMessage(encode(message))).view(), encode(message).view());
}

TEST(Message, BoundsOfDepthAndElementsHold) {
  Message deep = true;
  for (std::size_t i = 0; i < kMessageMaxDepth; ++i) deep = Message::Array{deep};
  EXPECT_TRUE(decodeMessage(encode(deep)));
  EXPECT_FALSE(decodeMessage(encode(Message::Array{deep})));
  std::string many("a\0\0\0\0\0\0\0\0", 9);
  std::uint32_t count = kMessageMaxElements + 1;
  std::uint32_t size = count + 4;
  std::memcpy(many.data() + 1, &size, 4);
  std::memcpy(many.data() + 5, &count, 4);
  many.append(count, 'T');
  EXPECT_FALSE(decodeMessage(SharedSlice::take(many)));
  std::string lying("a\x04\0\0\0\xFF\xFF\xFF\xFF", 9);
  EXPECT_FALSE(decodeMessage(SharedSlice::take(lying)));
}

TEST(Message, TheDirectConversionLosesNothing) {
  PlistValue value = PlistBuilder()
                         .set("real", 2.5)
                         .set("date", PlistValue::date(9))
                         .set("large", ~std::uint64_t{0})
                         .set("negative", -1)
                         .set("list", PlistValue::array({true, "x", PlistValue::data("y")}))
                         .take();
  EXPECT_EQ(Message::fromPlist(value).toPlist(), value);
  EXPECT_EQ(decodeMessage(encode(Message::fromPlist(value))).toPlist(), value);
  UUID uuid = UUID::random();
  EXPECT_EQ(Message(uuid).toPlist(), PlistValue(uuid.text()));
  EXPECT_EQ(UUID::parse(uuid.text()), uuid);
  EXPECT_FALSE(UUID::parse("00000000-0000-0000-0000-00000000000G"));
}

TEST(Message, SettingReplacesNothingRemovesAndLookupsHaveTheirKind) {
  Message message = sample();
  message.set("text", 5);
  EXPECT_EQ(message.getString("text"), nullptr);
  message.set("text", Message());
  EXPECT_EQ(message.get("text"), nullptr);
  EXPECT_EQ(zyp_dictionary_get_array(message, "zz"), nullptr);
  EXPECT_EQ(message.getUnsigned("signed"), 0U);
  EXPECT_EQ(Message::createReply(message).route(), Message::Route::NoReplyWanted) << "nobody asked";
}
