// "add", "remove", "bulk".
#include <gtest/gtest.h>

#include "tests/Support/FakeDaemon.h"

namespace vkd::testing {
namespace {

using Paths = std::vector<std::string>;

// One folder, and one link to it.
struct Registration : ::testing::Test {
  FakeDaemon daemon;
  FakeRegistry& registry = *daemon.device.registry;
  FakeClient manager = daemon.connectManager();
  CapturedLog log;

  Registration() {
    daemon.device.files->directories["/real"] = 0755;
    daemon.device.files->links["/link"] = "/real";
  }
  Message ask(std::string_view type, std::initializer_list<Message> paths) {
    return manager.ask(type, {{"paths", listOf(paths)}});
  }
};

TEST_F(Registration, AddsEachPathInCanonicalFormUntilOneFails) {
  EXPECT_EQ(ask("add", {}), success());
  EXPECT_EQ(ask("add", {"/link", "/gone", "/real"}), failure(9, "invalid plugin path: /gone"));
  EXPECT_EQ(registry.registered, Paths{"/real"}) << "what came before the failure stays, what follows is not looked at";
  registry.accepts = false;
  EXPECT_EQ(ask("add", {"/link"}), failure(2, "unable to register plug-in at /real"));
  EXPECT_TRUE(log.has(LogLevel::Default, "ops", "failed to register plug-in at /real"));
}

TEST_F(Registration, RemovesForAManagerWhetherThePathExistsOrNot) {
  EXPECT_EQ(ask("remove", {"/link", "/gone"}), success());
  EXPECT_EQ(registry.unregistered, (Paths{"/real", "/gone"}));
  registry.accepts = false;
  EXPECT_EQ(ask("remove", {"/gone", "/real"}), failure(9, "no plugin at /gone"));
  EXPECT_EQ(registry.unregistered.size(), 3U);
}

TEST_F(Registration, TakesBulkOptionsAndDoesNothing) {
  EXPECT_EQ(manager.ask("bulk", {{"flags", std::uint64_t{0xAB}}}), success());
  EXPECT_TRUE(log.has(LogLevel::Info, "ops", "bulk options 0xab not supported"));
}

}  // namespace
}  // namespace vkd::testing
