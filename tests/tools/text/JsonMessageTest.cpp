#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tools/text/JsonMessage.h"
#include "tools/text/StrictJson.h"

using namespace platform;
using namespace vkctl;

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string refusal(std::string_view text) {
  std::string error;
  EXPECT_FALSE(messageFromJson(text, &error)) << text;
  return error;
}

std::string plistRefusal(std::string_view text) {
  std::string error;
  EXPECT_FALSE(plistFromJson(text, &error)) << text;
  return error;
}

std::string nested(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

// The JSON stands for exactly this message, in both directions.
void expectStandsFor(const std::string& json, const Message& message) {
  EXPECT_EQ(jsonFromMessage(message), json);
  std::string error;
  const std::optional<Message> read = messageFromJson(json, &error);
  ASSERT_TRUE(read) << error;
  EXPECT_EQ(*read, message) << json;
}

}  // namespace

TEST(JsonMessage, EveryKindHasItsForm) {
  expectStandsFor("true", true);
  expectStandsFor("-9223372036854775808", INT64_MIN);
  expectStandsFor("9223372036854775807", INT64_MAX);
  expectStandsFor(R"({"$uint":3})", std::uint64_t{3});
  expectStandsFor(R"({"$uint":18446744073709551615})", UINT64_MAX);
  expectStandsFor(R"({"$uuid":"01234567-89AB-CDEF-0123-456789ABCDEF"})",
                  *UUID::parse("01234567-89ab-cdef-0123-456789abcdef"));
  expectStandsFor(R"({"$data":"AP8="})", Message::data(std::string_view("\0\xFF", 2)));
  expectStandsFor(R"({"$data":""})", Message::data(""));
  expectStandsFor(R"(["ä\n\"",[],{}])", Message::Array{"ä\n\"", Message::array(), Message::dictionary()});
  EXPECT_EQ(jsonFromMessage(Message::error(ConnectionError::Invalid, "gone")), R"({"$error":"gone"})");
  EXPECT_EQ(jsonFromMessage(Message()), "null");
}

TEST(JsonMessage, KeysAreSortedAndDollarsDoubled) {
  Message message = Message::dictionary();
  for (const char* key : {"b", "$uint", "$$", "$", "#", "%", ""}) message.set(key, 1);
  expectStandsFor(R"({"":1,"#":1,"$$":1,"$$$":1,"$$uint":1,"%":1,"b":1})", message);
}

TEST(JsonMessage, PropertyListsKeepEveryKind) {
  const PlistValue value =
      PlistBuilder()
          .set("$key", PlistValue::array({1, 1.0, 1e300, -0.0, UINT64_MAX, true, "x", PlistValue::data("a")}))
          .set("date", PlistValue::array({PlistValue::date(1795376401), PlistValue::date(-0.25), PlistValue::date(1e15),
                                          PlistValue::date(kInfinity)}))
          .set("odd", PlistValue::array({kInfinity, -kInfinity, std::nan("")}))
          .take();
  const std::string json =
      R"({"$$key":[1,1.0,1e+300,-0.0,18446744073709551615,true,"x",{"$data":"YQ=="}],)"
      R"("date":[{"$date":"2026-11-22T19:40:01Z"},{"$date":-0.25},{"$date":1e+15},{"$date":{"$real":"inf"}}],)"
      R"("odd":[{"$real":"inf"},{"$real":"-inf"},{"$real":"nan"}]})";
  EXPECT_EQ(jsonFromPlist(value), json);
  EXPECT_EQ(encodePlist(plistFromJson(json)).flat().view(), encodePlist(value).flat().view());
  expectStandsFor(R"({"form":{"$plist":)" + json + "}}", [&] {
    Message message = Message::dictionary();
    message.set("form", encodePlist(value));
    return message;
  }());
}

TEST(JsonMessage, WhatAMessageLacksIsRefusedWithItsPlace) {
  EXPECT_EQ(refusal(R"({"a":[0,{"b":1.5}]})"), "JSON at /a/1/b: a message has no reals but in {\"$plist\": …}");
  EXPECT_EQ(refusal("9223372036854775808"), "JSON at /: beyond the signed integers; write {\"$uint\": …}");
  EXPECT_EQ(refusal("[null]"), "JSON at /0: a message has no null");
  EXPECT_EQ(refusal(R"({"u":{"$uint":-1}})"), "JSON at /u/$uint: wants an unsigned integer");
  EXPECT_EQ(refusal(R"({"$uint":1,"a":2})"),
            "JSON at /: \"$uint\" among other keys; a key that starts with \"$\" needs two of them");
  for (const char* text :
       {R"({"$uint":"3"})", R"({"$uint":1.0})", R"({"$uuid":"0123"})", R"({"$uuid":3})", R"({"$data":"A"})",
        R"({"$data":[]})", R"({"$date":"2026-11-22T19:40:01Z"})", R"({"$error":"x"})", R"({"$x":1})",
        R"({"$plist":null})", R"({"$plist":{"$uint":1}})", R"({"$plist":{"$date":"2026"}})",
        R"({"$plist":{"$date":1}})", R"({"$plist":{"$real":"1"}})", R"({"$plist":{"$plist":1}})"}) {
    EXPECT_TRUE(refusal(text).starts_with("JSON at /")) << text;
  }
}

TEST(JsonMessage, MalformedTextIsRefusedWithItsOffset) {
  EXPECT_EQ(refusal(R"({"a":1,"b":{"c":2},"a":3})"), "JSON, byte 22: key \"a\" stands twice");
  EXPECT_EQ(refusal("[18446744073709551616]"), "JSON, byte 22: integer beyond 64 bits");
  EXPECT_EQ(plistRefusal("[-9223372036854775809]"), "JSON, byte 22: integer beyond 64 bits");
  for (const char* text :
       {"", "{", "[1,]", "{} x", "tru", "\"\xFF\"", "\"\\ud800\"", "[1e999]", "'a'", "{\"a\" 1}", "nan"}) {
    EXPECT_TRUE(plistRefusal(text).starts_with("JSON, byte ")) << text;
  }
}

TEST(JsonMessage, NestingIsBounded) {
  EXPECT_TRUE(messageFromJson(nested(kMessageMaxDepth)));
  EXPECT_FALSE(refusal(nested(kMessageMaxDepth + 1)).empty());
  EXPECT_TRUE(plistFromJson(nested(kPlistMaxMessageDepth)));
  EXPECT_FALSE(plistRefusal(nested(kPlistMaxMessageDepth + 1)).empty());
  EXPECT_FALSE(plistRefusal(nested(1'000'000)).empty());
  // The deepest message with the deepest property list inside.
  EXPECT_TRUE(messageFromJson(std::string(kMessageMaxDepth, '[') + "{\"$plist\":" + nested(kPlistMaxMessageDepth) +
                              "}" + std::string(kMessageMaxDepth, ']')));
}

TEST(JsonMessage, PrintedTextIsOneHarmlessLine) {
  EXPECT_EQ(jsonFromMessage("a\xFF"
                            "b"),
            "\"a\xEF\xBF\xBD"
            "b\"");
  EXPECT_EQ(jsonFromMessage("\n\x1B[m\x7F\xC2\x9B\xC2\xA0"), "\"\\n\\u001b[m\\u007f\\u009b\xC2\xA0\"");
  EXPECT_EQ(jsonFromPlist(PlistBuilder().set("\xFF", "\xC2").take()), "{\"\xEF\xBF\xBD\":\"\xEF\xBF\xBD\"}");
}
