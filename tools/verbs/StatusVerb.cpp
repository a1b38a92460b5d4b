// vkctl status: whether the daemon is there, what it speaks, and how many plug-ins it has for this process.

#include <cstdlib>
#include <string>

#include "Vornik/VKKeys.h"
#include "Vornik/VKProtocol.h"
#include "platform/Terminal.h"
#include "tools/PlugInNames.h"
#include "tools/text/FormText.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {
namespace {

using namespace Vornik;

PlistValue countsOf(const std::vector<PlistValue>& forms) {
  std::int64_t system = 0, elected = 0, data = 0;
  for (const PlistValue& form : forms) {
    system += form[kVKFormSystemResident].boolValue() ? 1 : 0;
    elected += form[kVKFormAnnotations][kVKAnnotationElection].intValue() != 0 ? 1 : 0;
    data += form[kVKFormInfo][kVKExtensionProtocol].stringValue() == kVKDataProtocol ? 1 : 0;
  }
  return PlistBuilder().set("all", forms.size()).set("system", system).set("data", data).set("elected", elected).take();
}

std::string textOf(const PlistValue& state) {
  auto known = [&](std::string_view key) { return state[key] ? scalarText(state[key]) : std::string("unknown"); };
  const PlistValue counts = state["plugIns"];
  auto count = [&](std::string_view key) { return std::to_string(counts[key].intValue()); };
  Table table({"", ""});
  table.add({"service", scalarText(state["service"])});
  table.add({"daemon", "pid " + known("pid") + ", " + known("path")});
  table.add({"version", known("version")});
  table.add({"protocol", known("protocol")});
  table.add({"plug-ins", counts ? count("all") + (state["complete"].boolValue() ? "" : " that this process may use") +
                                      ": " + count("system") + " of the system, " + count("data") + " data, " +
                                      count("elected") + " elected"
                                : "unknown"});
  return table.text(false, false);
}

// The protocol that the daemon says is current: any request of a version that nobody speaks makes it tell.
std::int64_t protocolOf(Session& session) {
  Message request = session.client().request(kVKRequestBulk);
  request.set(kVKMessageVersion, std::uint64_t{0});
  Message reply = session.askRaw(
      [&](VKDaemonClient& client, VKDaemonClient::ReplyBlock block) { client.sendReply(request, std::move(block)); });
  const std::string* text = reply.getString(kVKMessageError);
  if (text == nullptr) throw Failure(*session.failureOf(reply, session.serviceName()));
  std::size_t current = text->find("(current ");
  return current == std::string::npos ? 0 : std::atoll(text->c_str() + current + 9);
}

int status(Session& session) {
  PlistBuilder state;
  state.set("service", session.serviceName());
  try {
    state.set("protocol", protocolOf(session)).set("reachable", true);
  } catch (const Failure& failure) {
    if (session.json()) session.printJson(state.set("reachable", false).take());
    throw;
  }
  std::int32_t pid = session.client().vkd()->peerPid();
  state.set("pid", pid);
  if (auto path = session.services().codeSigning->executablePath(pid)) state.set("path", *path);
  if (std::string version = markedText(pid, kVKVersionMark); !version.empty()) state.set("version", version);
  // Plug-ins that no message can hold together cannot be counted; the daemon is there all the same.
  ExitStatus result = ExitStatus::Done;
  try {
    PlugInNames names(session);
    state.set("plugIns", countsOf(names.all({})));
    state.set("complete", names.seesAll());
  } catch (const Failure& failure) {
    result = session.complain(failure);
  }
  PlistValue told = state.take();
  if (session.json()) {
    session.printJson(told);
  } else {
    session.print(textOf(told));
  }
  return asInt(result);
}

}  // namespace

void addStatus(Verbs& verbs) {
  CLI::App& verb = verbs.add("status", "Tells whether the daemon is there, what it speaks and how many plug-ins it has",
                             {"vkctl status", "vkctl -S com.example.test.vkd status --json"}, status);
  verbs.addJson(verb);
}

}  // namespace vkctl
