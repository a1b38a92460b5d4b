// vkctl hold, vkctl release: plug-ins are kept from hosts while somebody works on them.
//
//   asked --refused--> status            a hold lives as long as its connection: however this process ends, the
//     |                                   daemon releases it
//   granted --command ends, interrupt--> released --> status of the command, or 128 + signal
//     +-----daemon goes away-----------> gone ------> status 1

#include <atomic>
#include <memory>
#include <set>

#include "Vornik/VKKeys.h"
#include "Vornik/VKProtocol.h"
#include "platform/ChildProcess.h"
#include "platform/Interrupts.h"
#include "platform/Terminal.h"
#include "tools/PlugInNames.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {
namespace {

using namespace Vornik;

struct HoldOptions {
  std::vector<std::string> names;
  bool plugIns = false;
};

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

// Who is in the way: bundle identifiers from the reply, process ids from those who watch running instances.
std::string busyInstances(Session& session, const Message& reply) {
  std::set<std::string> identifiers;
  if (const Message* conflicts = zyp_dictionary_get_array(reply, kVKMessageConflicts)) {
    for (const Message& conflict : *conflicts->as<Message::Array>()) {
      if (const auto* identifier = conflict.getString(kJobdExtensionBundleIdentifierKey))
        identifiers.insert(*identifier);
    }
  }
  std::string text;
  for (const Message& instance : session.services().assertions->busyExtensionInstances(identifiers)) {
    const auto* identifier = instance.getString(kAssurdBundleIdentifierKey);
    const Message* pid = instance.get(kAssurdProcessIdentifierKey);
    if (identifier == nullptr || !identifiers.contains(*identifier)) continue;
    text += (text.empty() ? "" : ", ") + *identifier;
    if (pid != nullptr) text += " pid " + pid->description();
  }
  if (!text.empty()) return text;
  return joined({identifiers.begin(), identifiers.end()});
}

UUID grantedHold(Session& session, const HoldOptions& options) {
  PlugInNames names(session);
  std::vector<std::string> paths;
  for (const std::string& name : options.names) {
    paths.push_back(options.plugIns ? names.path(name) : devicePathOfArgument(name));
  }
  Message reply = session.askRaw([&](VKDaemonClient& client, VKDaemonClient::ReplyBlock block) {
    client.holdPluginsFlagsReply(paths, options.plugIns ? VKHoldPlugIns : VKHoldApplications, std::move(block));
  });
  if (auto failure = session.failureOf(reply, joined(options.names))) {
    if (failure->status() != ExitStatus::Busy) throw Failure(*failure);
    throw Failure(ExitStatus::Busy, failure->object(), failure->what() + ("; busy: " + busyInstances(session, reply)));
  }
  const Message* token = reply.get(kVKMessageUUIDs);
  const UUID* uuid = token != nullptr ? token->as<UUID>() : nullptr;
  if (uuid == nullptr)
    throw Failure(ExitStatus::Failed, joined(options.names), "the daemon granted a hold without token");
  return *uuid;
}

void release(Session& session, const UUID& token) {
  session.ask(token.text(), [&](VKDaemonClient& client, VKDaemonClient::ReplyBlock reply) {
    client.releaseHoldReply(token, std::move(reply));
  });
}

int runCommand(Session& session, const std::vector<std::string>& command) {
  int error = 0;
  auto child = ChildProcess::start(command, &error);
  if (child) return child->wait();
  session.warn(command.front(), systemErrorText(error));
  return ChildProcess::statusOfFailedStart(error);
}

int holdUntilInterrupted(Session& session, const UUID& token, Waiter& gone) {
  if (session.json()) {
    Message object = Message::dictionary();
    object.set("token", token);
    session.printJson(object);
  } else {
    session.print(token.text() + "\n");
  }
  if (gone.wait(std::nullopt) == WaitResult::Done) {
    throw Failure(ExitStatus::Failed, token.text(), "the daemon went away, and the hold with it");
  }
  return kInterruptedStatus + InterruptScope::take().number;
}

int hold(Session& session, const HoldOptions& options, const std::vector<std::string>& command) {
  std::shared_ptr<Waiter> gone = Waiter::make();
  auto commandRuns = std::make_shared<std::atomic<bool>>(false);
  session.onConnectionLost([gone, &session, commandRuns] {
    if (*commandRuns) session.warn("", "the daemon went away, and the hold with it; the command goes on");
    gone->signal();
  });
  InterruptScope scope;
  UUID token = grantedHold(session, options);
  *commandRuns = !command.empty();
  int status = command.empty() ? holdUntilInterrupted(session, token, *gone) : runCommand(session, command);
  session.onConnectionLost({});
  // What interrupted the hold is answered by now; it is not to interrupt the release.
  while (InterruptScope::take().number != 0) {
  }
  if (gone->wait(std::chrono::nanoseconds::zero()) != WaitResult::Done) release(session, token);
  return status;
}

}  // namespace

void addHold(Verbs& verbs) {
  auto options = std::make_shared<HoldOptions>();
  CLI::App& verb = verbs.add("hold", "Keeps plug-ins from hosts, until interrupted or while a command runs",
                             {"vkctl hold /Applications/Photos.app -- install-photos --update",
                              "vkctl hold --plug-in /Applications/Photos.app/Contents/PlugIns/Share.appex"},
                             [options, &verbs](Session& session) { return hold(session, *options, verbs.command()); });
  verb.add_option("path", options->names, "Applications: every plug-in within them, none may be running")
      ->required()
      ->type_name("");
  verb.add_flag("--plug-in", options->plugIns, "Single plug-ins, by path, UUID or identifier, running or not");
  verbs.addJson(verb);
}

void addRelease(Verbs& verbs) {
  auto tokens = std::make_shared<std::vector<std::string>>();
  CLI::App& verb = verbs.add("release", "Ends holds, whoever placed them",
                             {"vkctl release 8D2A6F2E-6C1B-4F0E-9B1C-2E5D7A9F4C31", "vkctl release \"$token\""},
                             [tokens](Session& session) {
                               return asInt(session.forEach(*tokens, [&](const std::string& text) {
                                 auto token = UUID::parse(text);
                                 if (!token) throw Failure(ExitStatus::Usage, text, "no token: a UUID is one");
                                 release(session, *token);
                               }));
                             });
  verb.add_option("token", *tokens, "What vkctl hold printed; one that holds nothing any more is no error")
      ->required()
      ->type_name("");
}

}  // namespace vkctl
