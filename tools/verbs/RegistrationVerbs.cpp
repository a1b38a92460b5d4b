// vkctl add, vkctl remove: plug-in bundles are registered at a path, and taken out again.

#include <memory>
#include <span>

#include "tools/PlugInNames.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {
namespace {

using Vornik::VKDaemonClient;
using Arguments = std::shared_ptr<std::vector<std::string>>;
using Operation = void (VKDaemonClient::*)(std::span<const std::string>, VKDaemonClient::ReplyBlock);

// One request a path: the daemon stops at the first that fails, a person wants each one tried.
void send(Session& session, const std::string& object, const std::string& path, Operation operation) {
  session.ask(object, [&](VKDaemonClient& client, VKDaemonClient::ReplyBlock reply) {
    (client.*operation)(std::span(&path, 1), std::move(reply));
  });
}

}  // namespace

void addAddRemove(Verbs& verbs) {
  auto paths = std::make_shared<std::vector<std::string>>();
  CLI::App& add = verbs.add(
      "add", "Registers plug-in bundles",
      {"vkctl add /System/Library/PlugIns/Crop.appex", "vkctl add /Applications/Photos.app/Contents/PlugIns/*.appex"},
      [paths](Session& session) {
        return asInt(session.forEach(*paths, [&](const std::string& path) {
          send(session, path, devicePathOfArgument(path), &VKDaemonClient::addPlugInsReply);
        }));
      });
  add.add_option("path", *paths, "Paths of plug-in bundles")->required()->type_name("");

  auto names = std::make_shared<std::vector<std::string>>();
  CLI::App& remove =
      verbs.add("remove", "Takes plug-ins out until their bundle changes or they are added again",
                {"vkctl remove com.example.photos.share", "vkctl remove /System/Library/PlugIns/Crop.appex"},
                [names](Session& session) {
                  PlugInNames resolver(session);
                  return asInt(session.forEach(*names, [&](const std::string& name) {
                    send(session, name, resolver.path(name), &VKDaemonClient::removePlugInsReply);
                  }));
                });
  remove.add_option("plug-in", *names, "UUIDs, identifiers or paths")->required()->type_name("");
}

}  // namespace vkctl
