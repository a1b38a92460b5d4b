// vkctl match: the plug-ins that this process may use.

#include <memory>

#include "Vornik/VKKeys.h"
#include "Vornik/VKProtocol.h"
#include "tools/PropertyFile.h"
#include "tools/text/FormText.h"
#include "tools/text/JsonMessage.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {
namespace {

using namespace Vornik;

struct MatchOptions {
  std::vector<std::string> rules;
  std::string rulesFile;
  bool allVersions = false, duplicates = false, systemOnly = false, all = false;
  bool exists = false, whole = false;

  std::uint64_t flags() const {
    return (allVersions ? VKDiscoverAllVersions : 0) | (duplicates ? VKDiscoverDuplicates : 0) |
           (systemOnly ? VKDiscoverSystemOnly : 0) | (all ? VKDiscoverAll : 0);
  }
};

// KEY=PATTERN; a pattern that is JSON stands for what it says, any other for its own text.
void addRule(PlistBuilder& rules, const std::string& rule) {
  std::size_t equals = rule.find('=');
  if (equals == std::string::npos || equals == 0) throw Failure(ExitStatus::Usage, rule, "a rule is KEY=PATTERN");
  std::string pattern = rule.substr(equals + 1);
  PlistValue value = plistFromJson(pattern);
  rules.set(rule.substr(0, equals), value ? value : PlistValue(pattern));
}

// Nothing when no rule was given: then every plug-in matches.
PlistValue rulesOf(const MatchOptions& options) {
  if (options.rulesFile.empty() && options.rules.empty()) return {};
  PlistBuilder rules(options.rulesFile.empty() ? PlistValue() : readDictionaryFile(options.rulesFile));
  for (const std::string& rule : options.rules) addRule(rules, rule);
  return rules.take();
}

void printTable(Session& session, const std::vector<PlistValue>& forms) {
  Table table({"IDENTIFIER", "VERSION", "ELECTION", "UUID", "PATH"});
  for (const PlistValue& form : forms) {
    table.add({scalarText(form[kVKFormIdentifier]), scalarText(form[kVKFormVersion]),
               std::to_string(form[kVKFormAnnotations][kVKAnnotationElection].intValue()),
               scalarText(form[kVKFormUUID]), scalarText(form[kVKFormPath])});
  }
  session.print(table);
}

int match(Session& session, const MatchOptions& options) {
  PlistValue rules = rulesOf(options);
  Message reply = session.ask(session.serviceName(), [&](VKDaemonClient& client, VKDaemonClient::ReplyBlock block) {
    client.matchPlugInsFlagsReply(rules, options.flags(), std::move(block));
  });
  PlistValue matches = session.client().plugInsInReply(reply);
  if (options.exists) return asInt(matches.empty() ? ExitStatus::No : ExitStatus::Done);
  if (session.json()) {
    session.printJson(PlistBuilder().set(kVKMessageMatches, matches ? matches : PlistValue::array({})).take());
    return asInt(ExitStatus::Done);
  }
  std::vector<PlistValue> forms;
  for (const PlistValue& form : matches.elements()) forms.push_back(form);
  // The daemon's order means nothing; a person compares two outputs.
  std::ranges::sort(forms, {}, [](const PlistValue& form) {
    return std::pair(form[kVKFormIdentifier].stringValue(), form[kVKFormPath].stringValue());
  });
  if (!options.whole) {
    printTable(session, forms);
    return asInt(ExitStatus::Done);
  }
  std::string text;
  for (const PlistValue& form : forms) text += (text.empty() ? "" : "\n") + indentedText(form);
  session.print(text);
  return asInt(ExitStatus::Done);
}

}  // namespace

void addMatch(Verbs& verbs) {
  auto options = std::make_shared<MatchOptions>();
  CLI::App& verb = verbs.add("match", "Finds the plug-ins that this process may use",
                             {"vkctl match --rule ZoExtensionPointIdentifier=com.vantrel.share-services",
                              "vkctl match --rule 'ZoExtensionVersion=>=2.1' --rule ZoUserElection==1 --json"},
                             [options](Session& session) { return match(session, *options); });
  verb.add_option("--rule", options->rules,
                  "What a plug-in must satisfy; a pattern that is JSON is taken as such, KEY==TEXT is always text")
      ->type_name("KEY=PATTERN")
      ->allow_extra_args(false);
  verb.add_option("--rules", options->rulesFile, "Rules from a file, JSON or property list; - is standard input")
      ->type_name("FILE");
  verb.add_flag("--all-versions", options->allVersions, "Not only the highest version of each identifier");
  verb.add_flag("--duplicates", options->duplicates, "With --all-versions: copies of one version, too");
  verb.add_flag("--system-only", options->systemOnly, "Only plug-ins on the system volume");
  verb.add_flag("--all", options->all, "Whatever may be used or not; takes the manager entitlement");
  verb.add_flag("--exists", options->exists, "Print nothing: status 0 when there is one, 3 when there is none");
  verb.add_flag("--long", options->whole, "Print the whole form of each");
  verbs.addJson(verb);
}

}  // namespace vkctl
