#include <gtest/gtest.h>

#include <stdexcept>

#include "platform/values/PlistEncoding.h"

using namespace platform;

namespace {

PlistValue sample() {
  return PlistBuilder()
      .set("array", PlistValue::array({1, -2, 2.5, "x", true}))
      .set("data", PlistValue::data(std::string_view("\0\xFF", 2)))
      .set("date", PlistValue::date(-1.5))
      .set("empty", PlistBuilder().take())
      .set("large", std::uint64_t{1} << 63)
      .set("nested", PlistBuilder().set("a", PlistBuilder().set("b", "c").take()).take())
      .take();
}

PlistValue nested(std::size_t depth) {
  PlistValue value = 1;
  for (std::size_t i = 0; i < depth; ++i) value = PlistValue::array({value});
  return value;
}

}  // namespace

TEST(PlistValue, ChangingALevelLeavesTheOriginalAndSharesTheRest) {
  PlistValue original = sample();
  PlistValue changed = PlistBuilder(original).set("date", 7).remove("array").take();
  EXPECT_EQ(original, sample());
  EXPECT_EQ(changed["date"], PlistValue(7));
  EXPECT_FALSE(changed.contains("array"));
  EXPECT_EQ(changed["nested"]["a"]["b"].stringValue().data(), original["nested"]["a"]["b"].stringValue().data());
}

TEST(PlistValue, NumbersCompareAcrossTheirKindsAndTextsWithNothingElse) {
  EXPECT_EQ(PlistValue(true), PlistValue(1));
  EXPECT_EQ(PlistValue(1), PlistValue(1.0));
  EXPECT_EQ(PlistValue(0.0), PlistValue(false));
  EXPECT_NE(PlistValue("1"), PlistValue(1));
  EXPECT_NE(PlistValue(-1), PlistValue(UINT64_MAX));
  EXPECT_NE(PlistValue(INT64_MAX), PlistValue(INT64_MAX - 1));
  EXPECT_NE(PlistValue::data("a"), PlistValue("a"));
  EXPECT_NE(PlistValue::date(0), PlistValue(0));
  EXPECT_FALSE(PlistValue("").equals(false));
}

TEST(PlistValue, LookupsOfAnotherKindAnswerNothing) {
  PlistValue value = sample();
  EXPECT_FALSE(value["array"]["key"]);
  EXPECT_FALSE(value.at(0));
  EXPECT_FALSE(value["array"].at(5));
  EXPECT_EQ(value["array"].intValue(), 0);
  EXPECT_TRUE(value["large"].isLargeUnsigned());
  EXPECT_EQ(value["large"].intValue(), INT64_MAX);
  EXPECT_EQ(PlistValue(-3.9).intValue(), -3);
  EXPECT_EQ(PlistValue(1e300).intValue(), INT64_MAX);
}

TEST(PlistValue, GrowthWithoutEndIsRefused) {
  EXPECT_NO_THROW(nested(kPlistMaxDepth));
  EXPECT_THROW(nested(kPlistMaxDepth + 1), std::length_error);
  PlistValue shared = PlistValue(std::string(1000, 'x'));
  auto doubleIt = [&] { shared = PlistValue::array({shared, shared}); };
  EXPECT_THROW(for (int i = 0; i < 64; ++i) doubleIt(), std::length_error);
}

TEST(PlistEncoding, AnEncodedValueIsEqualAlsoAsAPartOfATree) {
  PlistValue encoded = decodePlist(encodePlist(sample()).flat());
  EXPECT_EQ(encoded, sample());
  EXPECT_EQ(encoded.description(), sample().description());
  PlistValue mixed = PlistBuilder(encoded["nested"]).set("more", encoded).take();
  EXPECT_EQ(encodePlist(mixed).flat().size(), mixed.encodedSize());
  EXPECT_EQ(decodePlist(encodePlist(mixed).flat())["more"]["array"].at(3), PlistValue("x"));
}

TEST(PlistEncoding, LargeEncodedPartsAreReferredToNotCopied) {
  PlistValue large = compactPlist(PlistValue::array({std::string(5000, 'x')}));
  Rope rope = encodePlist(PlistBuilder().set("a", large).set("b", 1).take());
  ASSERT_EQ(rope.pieces().size(), 3u);
  EXPECT_EQ(rope.pieces()[1].view().data(), large.encoded().view().data());
}

TEST(PlistEncoding, WrongOrderDepthAndKindsAreErrors) {
  using namespace std::string_literals;
  // Every order of two keys, wherever they begin to differ and however they end.
  std::vector<std::string> keys;
  for (const std::string prefix : {"", "common prefix", "commonPRefix"}) {
    for (const char* end : {"", "a", "a\xff", " a", " and more", " \xff"}) keys.push_back(prefix + end);
  }
  for (const std::string& first : keys) {
    for (const std::string& second : keys) {
      PlistEncoder encoder;
      encoder.dictionaryHead(2 * (4 + 1) + first.size() + second.size(), 2);
      encoder.key(first);
      encoder.value(true);
      encoder.key(second);
      encoder.value(true);
      EXPECT_EQ(static_cast<bool>(decodePlist(encoder.take().flat())), first < second) << first << ", " << second;
    }
  }
  EXPECT_FALSE(decodePlist(SharedSlice::take("u\1\0\0\0\0\0\0\0"s)));
  EXPECT_FALSE(decodePlist(SharedSlice::take("q"s)));
  SharedSlice deep = encodePlist(nested(70)).flat();
  EXPECT_FALSE(decodePlist(deep));
  EXPECT_TRUE(decodePlist(deep, nullptr, 70));
}
