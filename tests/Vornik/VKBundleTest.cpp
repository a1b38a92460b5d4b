#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "Vornik/VKBundle.h"
#include "Vornik/VKDPlugInSignature.h"
#include "Vornik/VKSandboxExtension.h"
#include "tests/Support/CapturedLog.h"

namespace Vornik {
namespace {

class FakeBundle : public ServiceBundle {
 public:
  std::optional<std::string> stringProperty(Property property) const override {
    ++reads;
    auto at = properties.find(property);
    return at != properties.end() ? std::optional(at->second) : std::nullopt;
  }
  Message infoDictionary() const override { return manifest; }
  std::string description() const override { return "<bundle>"; }

  std::map<Property, std::string> properties;
  Message manifest;
  mutable int reads = 0;
};

// Every path is a bundle without executable; executables are in no bundle.
class FakeBundles : public ServiceBundles {
 public:
  std::shared_ptr<ServiceBundle> bundleAtPath(std::string_view path) override {
    auto bundle = std::make_shared<FakeBundle>();
    bundle->properties[ServiceBundle::Property::BundlePath] = path;
    bundle->properties[ServiceBundle::Property::SupportPath] = std::string(path) + "/Contents";
    return latest = bundle;
  }
  std::shared_ptr<ServiceBundle> bundleOfExecutable(std::string_view path) override {
    return path == "/A.app/run" ? bundleAtPath("/A.app") : std::make_shared<FakeBundle>();
  }
  std::shared_ptr<ServiceBundle> mainBundle() override { return bundleAtPath("/Main.app"); }

  std::shared_ptr<FakeBundle> latest;
};

TEST(VKBundle, AnswersWhereItsPartsLie) {
  FakeBundles bundles;
  EXPECT_EQ(VKBundle::initForMainBundle(bundles)->path(), "/Main.app");
  auto bundle = VKBundle::initWithURL(bundles, FileURL{"/A.app"});
  EXPECT_EQ(bundle->url(), FileURL{"/A.app"});
  EXPECT_EQ(bundle->executablePath(), "/A.app");
  bundles.latest->properties[ServiceBundle::Property::ExecutablePath] = "/A.app/run";
  EXPECT_EQ(bundle->executablePath(), "/A.app/run");
  bundles.latest->reads = 0;
  EXPECT_EQ(bundle->plugInsPath(), "/A.app/Contents/PlugIns");
  EXPECT_EQ(bundle->plugInsPath(), "/A.app/Contents/PlugIns");
  EXPECT_EQ(bundles.latest->reads, 1);
}

TEST(VKBundle, IsFoundByExecutableOrElseByDirectory) {
  FakeBundles bundles;
  EXPECT_EQ(VKBundle::initWithExecutablePath(bundles, "/A.app/run")->path(), "/A.app");
  EXPECT_EQ(VKBundle::initWithExecutableURL(bundles, FileURL{"/B.app"})->path(), "/B.app");
}

TEST(VKBundle, AnswersNothingOfAnEmptyBundle) {
  support::CapturedLog log;
  auto bundle = VKBundle::initWithZYPBundle(std::make_shared<FakeBundle>());
  EXPECT_FALSE(bundle->path() || bundle->url() || bundle->executablePath() || bundle->plugInsPath());
  EXPECT_FALSE(bundle->bundleIdentifier());
  EXPECT_FALSE(bundle->infoDictionary());
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "failed to retrieve Info.plist for (null) through <bundle>")) << log;
  EXPECT_TRUE(log.has(LogLevel::Info, "ops",
                      "failed to convert Info.plist to dictionary: (null) source=" + Message().description()))
      << log;
}

TEST(VKBundle, ReadsTheManifest) {
  support::CapturedLog log;
  auto source = std::make_shared<FakeBundle>();
  source->manifest = Message::dictionary();
  source->manifest.set("KvBundleIdentifier", "com.example.a");
  auto bundle = VKBundle::initWithZYPBundle(source);
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.a");
  EXPECT_EQ(bundle->infoDictionary(), PlistBuilder().set("KvBundleIdentifier", "com.example.a").take());
  EXPECT_TRUE(log.lines().empty()) << log;
  source->manifest.set("KvBundleIdentifier", 7);
  EXPECT_FALSE(bundle->bundleIdentifier());
}

class FakeSandbox : public SandboxService {
 public:
  bool isSandboxed(std::int32_t) override { return false; }
  std::optional<std::string> issueReadExtension(std::string_view path, int* errorNumber) override {
    if (path == "/there") return "token";
    *errorNumber = 2;
    return std::nullopt;
  }
  std::int64_t consume(std::string_view token) override {
    ++consumed;
    return token == "token" ? 5 : -1;
  }
  void release(std::int64_t handle) override { released.push_back(handle); }

  int consumed = 0;
  std::vector<std::int64_t> released;
};

TEST(VKSandboxExtension, IssuingPassesTheRefusalOn) {
  FakeSandbox sandbox;
  int errorNumber = 0;
  EXPECT_EQ(vk_issue_read_extension(sandbox, FileURL{"/there"}), "token");
  EXPECT_FALSE(vk_issue_read_extension(sandbox, FileURL{"/gone"}, &errorNumber));
  EXPECT_EQ(errorNumber, 2);
  EXPECT_FALSE(vk_issue_read_extension(sandbox, FileURL{"/gone"}));
}

TEST(VKSandboxExtension, IsConsumedAndReleasedOnce) {
  auto sandbox = std::make_shared<FakeSandbox>();
  {
    auto extension = VKSandboxExtension::initWithExtension(sandbox, "token");
    EXPECT_EQ(sandbox->consumed, 0);
    extension->consume();
    extension->consume();
    EXPECT_EQ(extension->handle(), 5);
    extension->expel();
    extension->expel();
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
  EXPECT_EQ(one->requirement(), other->requirement());
  EXPECT_FALSE(error);
}

}  // namespace
}  // namespace Vornik
