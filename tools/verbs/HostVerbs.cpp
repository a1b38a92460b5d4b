// vkctl ready, vkctl access: what a host asks for before it uses plug-ins.

#include <memory>
#include <span>

#include "Vornik/VKKeys.h"
#include "Vornik/VKSandboxExtension.h"
#include "tools/PlugInNames.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {
namespace {

using namespace Vornik;

void makeReady(Session& session, const std::string& name, const UUID& uuid) {
  session.ask(name, [&](VKDaemonClient& client, VKDaemonClient::ReplyBlock reply) {
    client.readyPlugInsFlagsReply(std::span(&uuid, 1), 0, std::move(reply));
  });
}

std::string accessToken(Session& session, const std::string& name, const UUID& uuid) {
  Message reply = session.ask(name, [&](VKDaemonClient& client, VKDaemonClient::ReplyBlock block) {
    client.accessPlugInsFlagsReply(std::span(&uuid, 1), 0, std::move(block));
  });
  const Message* tokens = zyp_dictionary_get_array(reply, kVKMessageExtensions);
  const auto* list = tokens != nullptr ? tokens->as<Message::Array>() : nullptr;
  if (list == nullptr || list->empty() || !list->front().isString()) {
    throw Failure(ExitStatus::Failed, name, "the daemon answered without a token");
  }
  return *list->front().as<std::string>();
}

struct AccessOptions {
  std::vector<std::string> names;
  std::string file;
};

int access(Session& session, const AccessOptions& options) {
  PlugInNames names(session);
  Table table({"TOKEN", "PLUG-IN"});
  Message tokens = Message::array();
  ExitStatus status = session.forEach(options.names, [&](const std::string& name) {
    std::string token = accessToken(session, name, names.uuid(name));
    tokens.append(token);
    table.add({token, name});
  });
  if (session.json()) {
    Message object = Message::dictionary();
    object.set(kVKMessageExtensions, std::move(tokens));
    session.printJson(object);
  } else {
    session.print(table);
  }
  return asInt(status);
}

// What the side of the host does with a token: take it in, read below the bundle, give it back.
int readThroughToken(Session& session, const std::string& name, const std::string& file) {
  PlistValue form = PlugInNames(session).form(name);
  UUID uuid = UUID::parse(form[kVKFormUUID].stringValue()).value_or(UUID{});
  const Services& services = session.services();
  auto extension = VKSandboxExtension::initWithExtension(services.sandbox, accessToken(session, name, uuid));
  extension->consume();
  if (extension->handle() <= 0) throw Failure(ExitStatus::NotPermitted, name, "the token was refused");
  DomainError error;
  auto bytes = services.files->readFile(FileURL{std::string(form[kVKFormPath].stringValue())}.appending(file), &error);
  if (!bytes) throw Failure(ExitStatus::Failed, file, error.localizedDescription());
  session.print(*bytes);
  return asInt(ExitStatus::Done);
}

}  // namespace

void addReady(Verbs& verbs) {
  auto list = std::make_shared<std::vector<std::string>>();
  CLI::App& verb = verbs.add("ready", "Makes plug-ins launchable for this process, or tells why not",
                             {"vkctl ready com.example.photos.share", "vkctl ready com.example.photos.share || exit"},
                             [list](Session& session) {
                               PlugInNames names(session);
                               return asInt(session.forEach(*list, [&](const std::string& name) {
                                 makeReady(session, name, names.uuid(name));
                               }));
                             });
  verb.add_option("plug-in", *list, "UUIDs, identifiers or paths")->required()->type_name("");
}

void addAccess(Verbs& verbs) {
  auto options = std::make_shared<AccessOptions>();
  CLI::App& verb =
      verbs.add("access", "Prints tokens to read the bundles of plug-ins",
                {"vkctl access com.example.photos.share", "vkctl access com.example.photos.share --read Info.plist"},
                [options](Session& session) {
                  if (options->file.empty()) return access(session, *options);
                  if (options->names.size() == 1) {
                    return readThroughToken(session, options->names.front(), options->file);
                  }
                  throw Failure(ExitStatus::Usage, "--read", "takes one plug-in");
                });
  verb.add_option("plug-in", options->names, "UUIDs, identifiers or paths")->required()->type_name("");
  verb.add_option("--read", options->file, "Use the token: print this file of the bundle")->type_name("FILE");
  verbs.addJson(verb);
}

}  // namespace vkctl
