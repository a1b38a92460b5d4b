#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "Vornik/VKVersionComparison.h"

namespace Vornik {
namespace {

TEST(VKVersionComparison, OrdersVersionsAsPeopleWriteThem) {
  // Each sorts before the next one.
  const std::vector<std::string> ascending = {"",     "-1",  "1",    "1.2",     "1.2.1", "1.2a",  "1.2b", "1.9",
                                              "1.10", "2",   "10",   "10.0 b1", "A1",    "a1",    "a2",   "a10",
                                              "b",    "b.1", "v007", "v8",      "z",     "\u00e4"};
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      EXPECT_EQ(compareVersionString(ascending[i], ascending[j]), std::weak_ordering(i <=> j))
          << ascending[i] << " against " << ascending[j];
    }
  }
}

TEST(VKVersionComparison, LeadingZerosDoNotCountAndNumbersOfAnyLengthAreExact) {
  const std::string large(10000, '9'), larger = "1" + std::string(10000, '0');
  const std::pair<std::string, std::string> equal[] = {{"1.01", "1.1"}, {"0", "000"}};
  const std::pair<std::string, std::string> ascending[] = {
      {"1.01.2", "1.1.3"}, {"9", "010"}, {large, larger}, {"0", "18446744073709551616"}, {large + ".1", large + ".2"}};
  for (const auto& [a, b] : equal) EXPECT_EQ(compareVersionString(a, b), std::weak_ordering::equivalent) << a;
  for (const auto& [a, b] : ascending) EXPECT_EQ(compareVersionString(a, b), std::weak_ordering::less) << a;
}

// Sorting and the choice among versions rely on an order that never contradicts itself.
TEST(VKVersionComparison, IsATotalOrder) {
  std::mt19937 random(20261122);
  std::uniform_int_distribution<std::size_t> length(0, 5), letter(0, 8);
  auto draw = [&] {
    std::string text;
    for (std::size_t left = length(random); left > 0; --left) text += "001129.a\xc3"[letter(random)];
    return text;
  };
  for (int round = 0; round < 200000; ++round) {
    std::string a = draw(), b = draw(), c = draw();
    auto ab = compareVersionString(a, b), bc = compareVersionString(b, c), ac = compareVersionString(a, c);
    ASSERT_EQ(compareVersionString(b, a), 0 <=> ab) << a << " " << b;
    if (ab <= 0 && bc <= 0) {
      ASSERT_TRUE(ac <= 0) << a << " " << b << " " << c;
    }
    if (ab == 0) {
      ASSERT_EQ(ac, bc) << a << " " << b << " " << c;
    }
  }
}

}  // namespace
}  // namespace Vornik
