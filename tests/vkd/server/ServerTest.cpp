// The command line, the life of the server and of its clients.
#include <gtest/gtest.h>

#include "tests/Support/FakeDaemon.h"
#include "vkd/annotations/StartupFailure.h"
#include "vkd/server/CommandLine.h"

namespace vkd::testing {
namespace {

// --- Command line ----------------------------------------------------------------------------------------------------

TEST(CommandLineTest, ReadsOptionsGroupedAttachedAndRepeated) {
  const struct {
    std::vector<const char*> words;
    std::uint32_t cacheLimit = 1000000, verbose = 0;
    std::optional<std::string> service = {}, database = {};
  } cases[] = {
      {{}},
      {{"-vvc5", "-S", "one", "-Stwo", "-d/store", "-c", "-1", "--"}, 4294967295U, 2, "two", "/store"},
      {{"-c", "abc"}, 0},
      {{"-c", "12abc"}, 12},
      {.words = {"-S", "--"}, .service = "--"},  // an argument, whatever it looks like
  };
  for (const auto& test : cases) {
    CapturedLog log;
    std::string diagnostic;
    const auto line = CommandLine::parse(test.words, &diagnostic);
    ASSERT_TRUE(line) << diagnostic;
    EXPECT_EQ(line->cacheLimit, test.cacheLimit);
    EXPECT_EQ(line->verbose, test.verbose);
    EXPECT_EQ(line->service, test.service);
    EXPECT_EQ(line->database, test.database);
    EXPECT_EQ(log.count("verbose option -v is ineffective; use log config"), static_cast<int>(test.verbose));
  }
}

TEST(CommandLineTest, RefusesWhatItDoesNotKnow) {
  CapturedLog log;
  const std::pair<std::vector<const char*>, std::string> cases[] = {
      {{"-vx"}, "vkd: invalid option -- 'x'\n"},
      {{"-vS"}, "vkd: option requires an argument -- 'S'\n"},
      {{"-:"}, "vkd: invalid option -- ':'\n"},
      {{"extra"}, ""},
      {{"-"}, ""},
      {{"--", "-v"}, ""},
  };
  for (const auto& [words, expected] : cases) {
    std::string diagnostic;
    EXPECT_FALSE(CommandLine::parse(words, &diagnostic)) << words.front();
    EXPECT_EQ(diagnostic, expected);
  }
}

// --- Server ----------------------------------------------------------------------------------------------------------

TEST(Server, ListensOnItsNameAndElseSaysWhyNot) {
  CapturedLog log;
  FakeDaemon daemon;
  FakeMessages& messages = *daemon.device.messages;
  EXPECT_EQ(messages.serviceName, "test.service");
  EXPECT_TRUE(messages.listener->resumed);
  EXPECT_EQ(VKDServer::server(), daemon.server);
  messages.listener->succeeds = false;
  EXPECT_FALSE(daemon.server->run());
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "cannot accept connections: refused by the test"));
  messages.listener = nullptr;
  EXPECT_EQ(daemon.make(), nullptr);
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "cannot listen on test.service: refused by the test"));
  daemon.device.users->multiUser = true;
  daemon.device.containers->container = std::nullopt;
  EXPECT_THROW(daemon.make(std::nullopt), StartupFailure);
}

TEST(Server, EndsWhatRunsOfUninstalledPlugInsAndHearsOnceOfIt) {
  FakeDaemon daemon;
  auto record = daemon.install("a");
  record->bundleId = "com.example.a";
  record->bundleVersionText = "7";
  const struct {
    std::vector<int> answers;
    LogLevel level;
    const char* line;
  } cases[] = {
      {{0, 3, 22}, LogLevel::Debug, "jobd reported plug-ins have been terminated"},
      {{3}, LogLevel::Debug, "jobd reported no plug-ins on record"},
      {{22, 0}, LogLevel::Info, "jobd error attempting to terminate plug-ins: error=22"},
  };
  for (const auto& test : cases) {
    CapturedLog log;
    daemon.device.serviceManager->ends = test.answers;
    daemon.device.registry->uninstall(record);
    EXPECT_EQ(log.count("requesting jobd termination of plug-in: com.example.a(7) " + record->uuid->text()), 1) << log;
    EXPECT_EQ(log.count("jobd"), 1) << "the completion runs on the service queue";
    daemon.work();
    EXPECT_TRUE(log.has(test.level, "ops", test.line)) << log;
    EXPECT_EQ(log.count("jobd"), 2) << log;
  }
  EXPECT_EQ(daemon.device.serviceManager->removed.front(), "com.example.a 7");
}

// --- Clients ---------------------------------------------------------------------------------------------------------

TEST(Client, KnowsItsProcessAndLivesThroughItsConnection) {
  FakeDaemon daemon;
  CapturedLog log;
  FakeClient client = daemon.connect();
  EXPECT_TRUE(log.has(LogLevel::Debug, "ops", "new client 77 /Applications/Host.app/run"));
  EXPECT_TRUE(client.connection->resumed);
  std::weak_ptr<VKDZypClient> object = client.object();
  EXPECT_TRUE(object.lock()->description().ends_with(" pid=77 path=/Applications/Host.app/run>"));
  FakeDaemon::disconnect(*client.connection);
  EXPECT_TRUE(object.expired());
}

TEST(Client, IsServedWithoutAnExecutable) {
  FakeDaemon daemon;
  FakeClient client = daemon.connect(std::make_shared<FakePeer>(9));
  EXPECT_EQ(client.object()->path(), "");
  EXPECT_EQ(client.object()->bundle(), nullptr);
  CapturedLog log;
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(client.ask("bulk"), success());
  EXPECT_EQ(log.count("client 9 used 1000 requests so far") + log.count("client 9 used 2000 requests so far"), 2);
  EXPECT_EQ(log.count("requests so far"), 2);
}

TEST(Client, TakesEventsThatAreNoRequests) {
  FakeDaemon daemon;
  FakeClient client = daemon.connect();
  CapturedLog log;
  const std::pair<Message, std::string> events[] = {
      {Message::error(ConnectionError::TerminationImminent, "soon"), "client 77 termination imminent"},
      {Message::error(ConnectionError::Other, "strange"), "unexpected error type from zyp: strange"},
      {Message("text"), "unexpected message: " + Message("text").description() + " from: 77"},
  };
  for (const auto& [event, line] : events) {
    client.deliver(event);
    EXPECT_EQ(log.count(line), 1) << log;
    EXPECT_EQ(client.ask("bulk"), success()) << "it is still served";
  }
}

TEST(Client, HasAnEntitlementThatDoesNotEqualFalseAndIsAskedOnceARequest) {
  FakeDaemon daemon;
  const std::string manager(kVKEntitlementManager);
  const Message several = listOf({"/a", "/b", "/c"}),
                refusal = failure(11, "caller lacks entitlement for this operation");
  const std::pair<PlistValue, bool> values[] = {{true, true},   {2, true},  {"NO", true}, {list({}), true},
                                                {false, false}, {0, false}, {{}, false}};
  for (const auto& [value, held] : values) {
    FakeClient client = daemon.connect(5, dictionary({{manager, value}}));
    EXPECT_EQ(client.ask("remove", {{"paths", several}}), held ? success() : refusal) << value.description();
  }
  FakeClient client = daemon.connectManager(6);
  auto& process = daemon.device.codeSigning->processes[6];
  CapturedLog log;
  EXPECT_EQ(client.ask("remove", {{"paths", several}}), success());
  EXPECT_EQ(process.looks, 1);
  process.unreadable = true;
  EXPECT_EQ(client.ask("remove", {{"paths", several}}), refusal) << "what was known before does not count";
  EXPECT_TRUE(log.has(LogLevel::Error, "ops", "error retrieving entitlements for client 6"));
}

}  // namespace
}  // namespace vkd::testing
