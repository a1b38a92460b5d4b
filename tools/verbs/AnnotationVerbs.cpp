// vkctl elect, vkctl annotate, vkctl bulk-annotate: what the user chose for a plug-in.

#include <memory>
#include <optional>
#include <span>

#include "Vornik/VKKeys.h"
#include "tools/PlugInNames.h"
#include "tools/PropertyFile.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {
namespace {

using namespace Vornik;

void annotate(Session& session, const std::string& name, const UUID& uuid, const PlistValue& annotations) {
  session.ask(name, [&](VKDaemonClient& client, VKDaemonClient::ReplyBlock reply) {
    client.setPluginAnnotationsAnnotationsReply(std::span(&uuid, 1), annotations, std::move(reply));
  });
}

PlistValue election(std::int64_t value) { return PlistBuilder().set(kVKAnnotationElection, value).take(); }

int bulkAnnotate(Session& session, const std::string& file) {
  PlistValue entries = readDictionaryFile(file);
  PlugInNames names(session);
  PlistBuilder annotations;
  for (auto [name, extension] : entries.entries()) annotations.set(names.uuid(name).text(), extension);
  session.ask(file, [&](VKDaemonClient& client, VKDaemonClient::ReplyBlock reply) {
    client.bulkSetPluginAnnotationsReply(annotations.take(), std::move(reply));
  });
  return asInt(ExitStatus::Done);
}

struct AnnotateOptions {
  std::vector<std::string> names;
  std::optional<std::int64_t> election;
  std::string extensionFile;
};

int annotateAll(Session& session, const AnnotateOptions& options) {
  if (!options.election && options.extensionFile.empty()) {
    throw Failure(ExitStatus::Usage, "", "nothing to annotate: give --election, --extension or both");
  }
  PlistBuilder annotations(options.election ? election(*options.election) : PlistValue());
  if (!options.extensionFile.empty())
    annotations.set(kVKAnnotationExtension, readDictionaryFile(options.extensionFile));
  PlistValue change = annotations.take();
  PlugInNames names(session);
  return asInt(session.forEach(options.names,
                               [&](const std::string& name) { annotate(session, name, names.uuid(name), change); }));
}

}  // namespace

void addElect(Verbs& verbs) {
  auto name = std::make_shared<std::string>();
  auto value = std::make_shared<std::int64_t>();
  CLI::App& verb = verbs.add("elect", "Records the user's choice about a plug-in",
                             {"vkctl elect com.example.photos.share 1", "vkctl elect com.example.photos.share 0"},
                             [name, value](Session& session) {
                               annotate(session, *name, PlugInNames(session).uuid(*name), election(*value));
                               return asInt(ExitStatus::Done);
                             });
  verb.add_option("plug-in", *name, "Its UUID, identifier or path")->required()->type_name("");
  verb.add_option("value", *value, "0: no choice, 1: elected, others as their owners define them")
      ->required()
      ->type_name("");
}

void addAnnotate(Verbs& verbs) {
  auto options = std::make_shared<AnnotateOptions>();
  CLI::App& verb = verbs.add("annotate", "Changes the annotations of plug-ins",
                             {"vkctl annotate com.example.photos.share --election 1 --extension settings.json",
                              "echo '{\"quality\": 2}' | vkctl annotate com.example.photos.share --extension -"},
                             [options](Session& session) { return annotateAll(session, *options); });
  verb.add_option("plug-in", options->names, "UUIDs, identifiers or paths")->required()->type_name("");
  verb.add_option("--election", options->election, "The user's choice")->type_name("VALUE");
  verb.add_option("--extension", options->extensionFile,
                  "Settings that replace the earlier ones: JSON or property list; - is standard input")
      ->type_name("FILE");
}

void addBulkAnnotate(Verbs& verbs) {
  auto file = std::make_shared<std::string>();
  CLI::App& verb = verbs.add("bulk-annotate", "Replaces the settings of many plug-ins in one request",
                             {"vkctl bulk-annotate settings.plist",
                              "echo '{\"com.example.photos.share\": {\"quality\": 2}}' | vkctl bulk-annotate -"},
                             [file](Session& session) { return bulkAnnotate(session, *file); });
  verb.add_option("file", *file, "A dictionary, JSON or property list: plug-in to settings; - is standard input")
      ->required()
      ->type_name("");
}

}  // namespace vkctl
