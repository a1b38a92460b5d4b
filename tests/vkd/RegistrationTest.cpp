// "add", "remove", "bulk".
#include <gtest/gtest.h>

#include "tests/vkd/FakeDaemon.h"

namespace vkd::testing {
namespace {

using Paths = std::vector<std::string>;

// One folder, and one link to it.
struct LinkedFiles : FakeFileSystem {
  std::optional<std::string> canonicalPath(std::string_view path) override {
    if (path == "/link" || path == "/real") return "/real";
    return std::nullopt;
  }
};

struct Registration : ::testing::Test {
  FakeDaemon daemon{[](FakeServices& device) { device.files = std::make_shared<LinkedFiles>(); }};
  FakeRegistry& registry = *daemon.device.registry;
  LogCapture log;
};

TEST_F(Registration, AddsEachPathInCanonicalFormUntilOneFails) {
  FakeClient client = daemon.connect();
  EXPECT_EQ(client.ask("add", {{"paths", paths({})}}), success());
  EXPECT_EQ(client.ask("add", {{"paths", paths({"relative", "/real"})}}),
            failure(9, "absolute path required: relative"));
  EXPECT_EQ(registry.registered, Paths{});
  EXPECT_EQ(client.ask("add", {{"paths", paths({"/link", "/gone", "/real"})}}),
            failure(9, "invalid plugin path: /gone"));
  EXPECT_EQ(registry.registered, Paths{"/real"}) << "what came before the failure stays, what follows is not looked at";
}

TEST_F(Registration, TellsThatTheRegistryRefused) {
  registry.accepts = false;
  EXPECT_EQ(daemon.connect().ask("add", {{"paths", paths({"/link"})}}),
            failure(2, "unable to register plug-in at /real"));
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", "failed to register plug-in at /real"));
}

TEST_F(Registration, RemovesForAManagerWhetherThePathExistsOrNot) {
  FakeClient manager = daemon.connectManager();
  EXPECT_EQ(manager.ask("remove", {{"paths", paths({"/link", "/gone"})}}), success());
  EXPECT_EQ(registry.unregistered, (Paths{"/real", "/gone"}));
  registry.accepts = false;
  EXPECT_EQ(manager.ask("remove", {{"paths", paths({"/gone", "/real"})}}), failure(9, "no plugin at /gone"));
  EXPECT_EQ(registry.unregistered.size(), 3U);
}

TEST_F(Registration, RefusesToRemoveForAnybodyElse) {
  const Message refusal = failure(11, "caller lacks entitlement for this operation");
  EXPECT_EQ(daemon.connect().ask("remove", {{"paths", paths({"/link", "/real"})}}), refusal);
  EXPECT_TRUE(log.has(LogLevel::Default, "system",
                      "refused request from pid=77 to remove plug-in at /real - client lacks required entitlement"));
  EXPECT_EQ(log.count("refused request"), 1);
  EXPECT_EQ(daemon.connect().ask("remove", {{"paths", paths({"/real", "relative"})}}), refusal);
  EXPECT_EQ(daemon.connect().ask("remove", {{"paths", paths({"relative"})}}),
            failure(9, "absolute path required: relative"))
      << "the path's own check comes first";
  EXPECT_EQ(daemon.connect().ask("remove", {{"paths", paths({})}}), success());
  EXPECT_EQ(registry.unregistered, Paths{});
}

TEST_F(Registration, TakesBulkOptionsAndDoesNothing) {
  EXPECT_EQ(daemon.connect().ask("bulk"), success());
  EXPECT_EQ(daemon.connect().ask("bulk", {{"flags", std::uint64_t{0xAB}}}), success());
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "bulk options 0x0 not supported"));
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "bulk options 0xab not supported"));
}

}  // namespace
}  // namespace vkd::testing
