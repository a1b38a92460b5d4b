// vkctl diagnose: what would keep bundles from being served.

#include <memory>

#include "tools/PlugInNames.h"
#include "tools/verbs/AllVerbs.h"
#include "tools/verbs/Diagnosis.h"

namespace vkctl {
namespace {

PlistValue texts(const std::vector<std::string>& list) {
  return PlistValue::array(std::vector<PlistValue>(list.begin(), list.end()));
}

PlistValue jsonOf(const Diagnosis& diagnosis) {
  return PlistBuilder()
      .set("path", diagnosis.path)
      .set("problems", texts(diagnosis.problems))
      .set("notes", texts(diagnosis.notes))
      .take();
}

std::string textOf(const Diagnosis& diagnosis) {
  std::string path = escaped(diagnosis.path) + ": ";
  std::string text;
  for (const std::string& problem : diagnosis.problems) text += path + "problem: " + escaped(problem) + '\n';
  for (const std::string& note : diagnosis.notes) text += path + "note: " + escaped(note) + '\n';
  if (diagnosis.problems.empty()) text += path + "nothing keeps it from being served\n";
  return text;
}

int diagnose(Session& session, const std::vector<std::string>& bundles) {
  ExitStatus found = ExitStatus::Done;
  std::vector<PlistValue> reports;
  ExitStatus status = session.forEach(bundles, [&](const std::string& bundle) {
    Diagnosis diagnosis = diagnoseBundle(session.services(), devicePathOfArgument(bundle));
    if (session.json()) {
      reports.push_back(jsonOf(diagnosis));
    } else {
      session.print(textOf(diagnosis));
    }
    if (!diagnosis.problems.empty()) found = ExitStatus::No;
  });
  if (session.json()) session.printJson(PlistBuilder().set("bundles", PlistValue::array(std::move(reports))).take());
  return asInt(worst(status, found));
}

}  // namespace

void addDiagnose(Verbs& verbs) {
  auto bundles = std::make_shared<std::vector<std::string>>();
  CLI::App& verb = verbs.add(
      "diagnose", "Tells what would keep plug-in bundles from being served",
      {"vkctl diagnose /Applications/Notes.app/Contents/PlugIns/Broken.appex", "vkctl diagnose Share.appex --json"},
      [bundles](Session& session) { return diagnose(session, *bundles); });
  verb.add_option("bundle", *bundles, "Paths of plug-in bundles; status 3 when one has a problem")
      ->required()
      ->type_name("");
  verbs.addJson(verb);
}

}  // namespace vkctl
