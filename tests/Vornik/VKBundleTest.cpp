#include <gtest/gtest.h>

#include <vector>

#include "Vornik/VKBundle.h"
#include "Vornik/VKDPlugInSignature.h"
#include "Vornik/VKSandboxExtension.h"
#include "tests/Support/Fakes.h"

namespace Vornik {
namespace {

using support::messageOf;
using vkd::testing::FakeSandbox, vkd::testing::FakeServiceBundle, vkd::testing::FakeServiceBundles;

TEST(VKBundle, AnswersWhereItsPartsLie) {
  FakeServiceBundles bundles;
  bundles.withoutExecutable.insert("/B.app");
  EXPECT_EQ(VKBundle::initForMainBundle(bundles)->path(), "/main");
  auto bundle = VKBundle::initWithURL(bundles, FileURL{"/A.app"});
  EXPECT_EQ(bundle->url(), FileURL{"/A.app"});
  EXPECT_EQ(bundle->executablePath(), "/A.app/run");
  EXPECT_EQ(bundle->plugInsPath(), "/A.app/PlugIns");
  EXPECT_EQ(VKBundle::initWithURL(bundles, FileURL{"/B.app"})->executablePath(), "/B.app");
  EXPECT_EQ(VKBundle::initWithExecutablePath(bundles, "/A.app/run")->path(), "/A.app");
}

TEST(VKBundle, AnswersNothingOfAnEmptyBundle) {
  support::CapturedLog log;
  auto source = std::make_shared<FakeServiceBundle>();
  auto bundle = VKBundle::initWithZYPBundle(source);
  EXPECT_FALSE(bundle->path() || bundle->url() || bundle->executablePath() || bundle->plugInsPath());
  EXPECT_FALSE(bundle->bundleIdentifier());
  EXPECT_FALSE(bundle->infoDictionary());
  EXPECT_GT(log.count("failed to retrieve Info.plist for (null) through <bundle>"), 0) << log;
  EXPECT_GT(log.count("failed to convert Info.plist to dictionary: (null) source="), 0) << log;
  log.clear();
  source->manifest = messageOf({{"KvBundleIdentifier", "com.example.a"}});
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.a");
  EXPECT_EQ(bundle->infoDictionary(), support::dictionary({{"KvBundleIdentifier", "com.example.a"}}));
  source->manifest = messageOf({{"KvBundleIdentifier", 7}});
  EXPECT_FALSE(bundle->bundleIdentifier());
  EXPECT_TRUE(log.lines().empty()) << log;
}

// Knows one token, and what became of its handle.
struct TokenSandbox : FakeSandbox {
  int consumed = 0;
  std::vector<std::int64_t> released;
  std::int64_t consume(std::string_view token) override { return ++consumed, token == "token" ? 5 : -1; }
  void release(std::int64_t handle) override { released.push_back(handle); }
};

TEST(VKSandboxExtension, IsConsumedAndReleasedOnce) {
  auto sandbox = std::make_shared<TokenSandbox>();
  {
    auto extension = VKSandboxExtension::initWithExtension(sandbox, "token");
    EXPECT_EQ(sandbox->consumed, 0);
    for (int i = 0; i < 2; ++i) extension->consume();
    EXPECT_EQ(extension->handle(), 5);
    for (int i = 0; i < 2; ++i) extension->expel();
    EXPECT_EQ(sandbox->consumed, 1);
    EXPECT_EQ(sandbox->released, std::vector<std::int64_t>{5});
    extension->consume();
  }
  EXPECT_EQ(sandbox->released.size(), 2U);
  VKSandboxExtension::initWithExtension(sandbox, "made up")->consume();
  EXPECT_EQ(sandbox->released.back(), -1);
}

TEST(VKDPlugInSignature, EveryOneHasAHashOfItsOwn) {
  std::optional<DomainError> error;
  auto one = VKDPlugInSignature::initWithURLError(FileURL{"/A.appex"}, &error);
  auto other = VKDPlugInSignature::initWithURLError(FileURL{"/A.appex"}, &error);
  EXPECT_NE(one->cdhash(), other->cdhash());
  EXPECT_EQ(one->requirement(), "dummy requirement");
}

}  // namespace
}  // namespace Vornik
