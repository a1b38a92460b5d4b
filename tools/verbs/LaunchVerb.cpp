// vkctl launch: what a host does with a plug-in that it found.

#include <memory>
#include <span>

#include "Vornik/VKBundle.h"
#include "Vornik/VKKeys.h"
#include "platform/Interrupts.h"
#include "platform/ServiceLauncher.h"
#include "platform/Terminal.h"
#include "tools/PlugInNames.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {
namespace {

using namespace Vornik;

int launch(Session& session, const std::string& name, const std::vector<std::string>& arguments) {
  PlistValue form = PlugInNames(session).form(name);
  UUID uuid = UUID::parse(form[kVKFormUUID].stringValue()).value_or(UUID{});
  session.ask(name, [&](VKDaemonClient& client, VKDaemonClient::ReplyBlock reply) {
    client.readyPlugInsFlagsReply(std::span(&uuid, 1), 0, std::move(reply));
  });
  auto bundle = VKBundle::initWithPath(*session.services().serviceBundles, form[kVKFormPath].stringValue());
  std::string executable = bundle->executablePath().value_or("");
  InterruptScope scope;
  LaunchResult result = launchExternalService(executable, arguments);
  if (result.errorNumber == 0) return result.exitStatus;
  throw Failure(ExitStatus::Failed, name, "cannot start " + executable + ": " + systemErrorText(result.errorNumber));
}

}  // namespace

void addLaunch(Verbs& verbs) {
  auto name = std::make_shared<std::string>();
  CLI::App& verb =
      verbs.add("launch", "Makes a plug-in ready for this process, starts it and passes its exit status on",
                {"vkctl launch com.example.photos.share", "vkctl launch com.example.photos.share -- --verbose"},
                [name, &verbs](Session& session) { return launch(session, *name, verbs.command()); });
  verb.add_option("plug-in", *name, "Its UUID, identifier or path; what stands behind -- are its arguments")
      ->required()
      ->type_name("");
}

}  // namespace vkctl
