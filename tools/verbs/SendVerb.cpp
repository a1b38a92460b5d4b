// vkctl send: any message from a shell, one JSON line a request, one a reply.

#include <iostream>
#include <memory>

#include "tools/text/JsonMessage.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {
namespace {

using namespace Vornik;

class Conversation {
 public:
  Conversation(Session& session, bool quiet) : session_(session), quiet_(quiet) {}

  // Until standard input ends, or the connection does.
  int run() {
    std::string line;
    while (connected_ && std::getline(std::cin, line)) {
      ++lines_;
      if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
      try {
        sendLine(line);
      } catch (const Failure& failure) {
        status_ = worst(status_, session_.complain(failure));
        if (failure.status() == ExitStatus::TimedOut) break;
      }
    }
    return asInt(status_);
  }

 private:
  void sendLine(const std::string& line) {
    std::string reason;
    std::optional<Message> request = messageFromJson(line, &reason);
    if (!request) throw Failure(ExitStatus::Usage, "line " + std::to_string(lines_), reason);
    if (!request->isDictionary()) {
      // Nobody answers it, and waiting for nobody would be for ever.
      session_.client().vkd()->send(*request);
      session_.warn("line " + std::to_string(lines_), "no object: sent, but the daemon answers only objects");
      return;
    }
    Message reply = session_.askRaw([&](VKDaemonClient& client, VKDaemonClient::ReplyBlock block) {
      client.sendReply(*request, std::move(block));
    });
    if (!quiet_ || reply.isError()) session_.printJson(reply);
    if (!reply.isError()) {
      answered_ = true;
      return;
    }
    connected_ = false;
    Failure failure = *session_.failureOf(reply, "");
    // Who has answered was reached: the connection broke, even if that shows only when no new one can be made.
    throw answered_ ? Failure(ExitStatus::Failed, failure.object(), failure.what()) : failure;
  }

  Session& session_;
  bool quiet_;
  bool connected_ = true;
  bool answered_ = false;
  std::size_t lines_ = 0;
  ExitStatus status_ = ExitStatus::Done;
};

}  // namespace

void addSend(Verbs& verbs) {
  auto quiet = std::make_shared<bool>(false);
  CLI::App& verb =
      verbs.add("send", "Sends each line of standard input, JSON, as a message and prints the reply",
                {R"(echo '{"request": "match", "version": {"$uint": 3}}' | vkctl send)",
                 R"(echo '{"request": "lock", "version": {"$uint": 3}, "uuids": [{"$uuid": "…"}]}' | vkctl send -n)"},
                [quiet](Session& session) { return Conversation(session, *quiet).run(); });
  verb.add_flag("-n,--quiet", *quiet, "Print nothing for replies");
}

}  // namespace vkctl
