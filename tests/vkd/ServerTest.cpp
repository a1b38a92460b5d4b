// The command line, the life of the server and of its clients.
#include <gtest/gtest.h>

#include "tests/vkd/FakeDaemon.h"
#include "vkd/CommandLine.h"
#include "vkd/StartupFailure.h"

namespace vkd::testing {
namespace {

// --- Command line ----------------------------------------------------------------------------------------------------

std::optional<CommandLine> parse(std::vector<const char*> words, std::string* diagnostic = nullptr) {
  std::string ignored;
  return CommandLine::parse(words, diagnostic != nullptr ? diagnostic : &ignored);
}

TEST(CommandLineTest, ReadsOptionsGroupedAttachedAndRepeated) {
  auto plain = parse({});
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->cacheLimit, 1000000U);
  EXPECT_FALSE(plain->service || plain->database);
  EXPECT_EQ(plain->verbose, 0U);

  LogCapture log;
  auto full = parse({"-vvc5", "-S", "one", "-Stwo", "-d/store", "-c", "-1", "--"});
  ASSERT_TRUE(full);
  EXPECT_EQ(full->cacheLimit, 4294967295U);
  EXPECT_EQ(full->service, "two");
  EXPECT_EQ(full->database, "/store");
  EXPECT_EQ(full->verbose, 2U);
  constexpr auto kLine = "verbose option -v is ineffective; use log config --subsystem com.vantrel.vornik";
  EXPECT_TRUE(log.has(LogLevel::Error, "default", kLine));
  EXPECT_EQ(log.count(kLine), 2);

  EXPECT_EQ(parse({"-c", "abc"})->cacheLimit, 0U);
  EXPECT_EQ(parse({"-c", "12abc"})->cacheLimit, 12U);
  EXPECT_EQ(parse({"-S", "--"})->service, "--") << "an argument, whatever it looks like";
}

TEST(CommandLineTest, RefusesWhatItDoesNotKnow) {
  LogCapture log;
  std::string diagnostic;
  EXPECT_FALSE(parse({"-vx"}, &diagnostic));
  EXPECT_EQ(diagnostic, "vkd: invalid option -- 'x'\n");
  EXPECT_FALSE(parse({"-vS"}, &diagnostic));
  EXPECT_EQ(diagnostic, "vkd: option requires an argument -- 'S'\n");
  EXPECT_FALSE(parse({"-:"}, &diagnostic));
  for (const auto& operands : {std::vector{"extra"}, std::vector{"-"}, std::vector{"--", "-v"}}) {
    diagnostic.clear();
    EXPECT_FALSE(parse(operands, &diagnostic)) << operands.front();
    EXPECT_EQ(diagnostic, "");
  }
}

// --- Server ----------------------------------------------------------------------------------------------------------

TEST(Server, ListensOnItsNameAndAcceptsOnceStarted) {
  FakeDaemon daemon;
  EXPECT_EQ(daemon.messages->serviceName, "test.service");
  EXPECT_TRUE(daemon.messages->listener->resumed);
  EXPECT_EQ(VKDServer::server(), daemon.server);
  EXPECT_EQ(daemon.connect().ask("bulk"), success());
}

TEST(Server, SaysWhyItCannotListen) {
  FakeDaemon daemon;
  LogCapture log;
  daemon.messages->listener->succeeds = false;
  EXPECT_FALSE(daemon.server->run());
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "cannot accept connections: refused by the test"));
  daemon.messages->listener = nullptr;
  EXPECT_EQ(daemon.make(), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "cannot listen on test.service: refused by the test"));
}

TEST(Server, DoesNotStartWithoutAPlaceForAnnotations) {
  LogCapture log;
  FakeDaemon daemon;
  daemon.device.users->multiUser = true;
  daemon.device.containers->container = std::nullopt;
  EXPECT_THROW(VKDServer::initForServiceDatabase(daemon.services(), "test.service", std::nullopt), StartupFailure);
}

TEST(Server, EndsWhatRunsOfUninstalledPlugIns) {
  FakeDaemon daemon;
  auto record = daemon.install("a");
  record->bundleId = "com.example.a";
  record->bundleVersionText = "7";
  struct Case {
    int result;
    LogLevel level;
    const char* line;
  };
  for (const Case& expected : {Case{0, LogLevel::Debug, "jobd reported plug-ins have been terminated"},
                               Case{3, LogLevel::Debug, "jobd reported no plug-ins on record"},
                               Case{22, LogLevel::Info, "jobd error attempting to terminate plug-ins: error=22"}}) {
    LogCapture log;
    daemon.device.serviceManager->answer = expected.result;
    daemon.device.registry->uninstall(record);
    EXPECT_TRUE(log.has(LogLevel::Debug, "ops",
                        "requesting jobd termination of plug-in: com.example.a(7) " + record->uuid->text()))
        << log.all();
    EXPECT_EQ(log.count("jobd"), 1) << "the completion runs on the service queue";
    daemon.work();
    EXPECT_TRUE(log.has(expected.level, "ops", expected.line)) << log.all();
  }
  EXPECT_EQ(daemon.device.serviceManager->removed.front(), "com.example.a 7");
}

// --- Clients ---------------------------------------------------------------------------------------------------------

TEST(Client, KnowsItsProcessAndLivesThroughItsConnection) {
  FakeDaemon daemon;
  LogCapture log;
  FakeClient client = daemon.connect();
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "new client 77 /Applications/Host.app/run"));
  EXPECT_TRUE(client.connection->resumed);
  auto object = client.object();
  EXPECT_EQ(object->bundle()->path(), "/Applications/Host.app");
  EXPECT_TRUE(object->description().ends_with(" con=<FakeConnection pid 77> pid=77 path=/Applications/Host.app/run>"));
  std::weak_ptr<VKDZypClient> weak = object;
  FakeDaemon::disconnect(*client.connection);
  daemon.connections.clear();
  client.connection = nullptr;
  EXPECT_TRUE(object->description().ends_with(" NO CONNECTION>")) << object->description();
  object = nullptr;
  EXPECT_TRUE(weak.expired());
}

TEST(Client, IsServedWithoutAnExecutable) {
  FakeDaemon daemon;
  LogCapture log;
  auto connection = std::make_shared<FakeConnection>(9);
  FakeClient client = daemon.connect(connection);
  EXPECT_EQ(client.object()->path(), "");
  EXPECT_EQ(client.object()->bundle(), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "new client 9 "));
  EXPECT_EQ(client.ask("bulk"), success());
}

TEST(Client, CountsItsRequests) {
  FakeDaemon daemon;
  FakeClient client = daemon.connect();
  LogCapture log;
  for (int i = 0; i < 999; ++i) client.ask("bulk");
  EXPECT_EQ(log.count("requests so far"), 0);
  for (int i = 0; i < 1001; ++i) client.ask("bulk");
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "client 77 used 1000 requests so far"));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "client 77 used 2000 requests so far"));
  EXPECT_EQ(log.count("requests so far"), 2);
}

TEST(Client, TakesEventsThatAreNoRequests) {
  FakeDaemon daemon;
  FakeClient client = daemon.connect();
  LogCapture log;
  client.deliver(Message::error(ConnectionError::TerminationImminent, "soon"));
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "client 77 termination imminent"));
  client.deliver(Message::error(ConnectionError::Other, "strange"));
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "unexpected error type from zyp: strange"));
  client.deliver(Message("text"));
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "unexpected message: " + Message("text").description() + " from: 77"))
      << log.all();
  EXPECT_EQ(client.ask("bulk"), success()) << "it is still served";
  client.die();
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "client 77 is dead"));
  EXPECT_FALSE(client.object()->acceptWork());
}

TEST(Client, HasAnEntitlementThatDoesNotEqualFalse) {
  FakeDaemon daemon;
  const PlistValue rights = PlistBuilder()
                                .set("true", true)
                                .set("two", 2)
                                .set("text", "NO")
                                .set("list", PlistValue::array({}))
                                .set("false", false)
                                .set("zero", 0)
                                .take();
  auto object = daemon.connect(5, rights).object();
  for (const char* held : {"true", "two", "text", "list"}) EXPECT_TRUE(object->hasEntitlement(held)) << held;
  for (const char* lacked : {"false", "zero", "absent"}) EXPECT_FALSE(object->hasEntitlement(lacked)) << lacked;
}

TEST(Client, AsksForItsEntitlementsOnceARequest) {
  FakeDaemon daemon;
  FakeClient client = daemon.connectManager(5);
  auto& process = daemon.codeSigning->processes[5];
  LogCapture log;
  EXPECT_EQ(client.ask("remove", {{"paths", paths({"/a", "/b", "/c"})}}), success());
  EXPECT_EQ(process.looks, 1);
  process.unreadable = true;
  EXPECT_EQ(client.ask("remove", {{"paths", paths({"/a"})}}),
            failure(11, "caller lacks entitlement for this operation"))
      << "what was known before does not count";
  EXPECT_EQ(process.looks, 2);
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "error retrieving entitlements for client 5"));
}

}  // namespace
}  // namespace vkd::testing
