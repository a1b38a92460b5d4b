#include "tools/Verbs.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "Vornik/VKProtocol.h"
#include "tools/text/Text.h"

namespace vkctl {
namespace {

// What stands behind "--", for the verbs that take something there; empty for all others.
std::string_view commandOf(std::string_view verb) {
  return verb == "hold" ? "COMMAND..." : verb == "launch" ? "ARGUMENT..." : "";
}

// Two examples first, then the options: who asks for help mostly wants a line to change.
class HelpText : public CLI::Formatter {
 public:
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
    if (mode == CLI::AppFormatMode::Sub) return Formatter::make_help(app, name, mode);
    return app->get_footer() + Formatter::make_help(app, name, mode);
  }
  std::string make_usage(const CLI::App* app, std::string name) const override {
    std::string usage = Formatter::make_usage(app, std::move(name));
    const std::string_view command = commandOf(app->get_name());
    if (!command.empty()) usage.insert(usage.find_last_not_of('\n') + 1, " [-- " + std::string(command) + "]");
    return usage;
  }
  // Both stand in what comes first.
  std::string make_footer(const CLI::App* /*app*/) const override { return ""; }
  std::string make_description(const CLI::App* /*app*/) const override { return "\n"; }
};

// Some thirty years: more is a mistake, and would not fit a clock.
constexpr double kLongestTimeout = 1e9;

bool takesValue(const std::string& word) {
  return word == "-S" || word == "--service" || word == "--timeout" || word == "--color";
}

// The first word that is no option: where the verb should stand. The end when there is none.
std::vector<std::string>::const_iterator verbIn(const std::vector<std::string>& words) {
  auto word = words.begin();
  while (word != words.end() && word->starts_with('-')) {
    bool value = takesValue(*word);
    ++word;
    if (value && word != words.end()) ++word;
  }
  return word;
}

std::string proposal(const std::string& word, const std::vector<std::string>& candidates) {
  std::string near = nearest(word, candidates);
  return near.empty() ? "" : "; did you mean " + near + "?";
}

int usageError(const std::string& line) {
  std::string text = "vkctl: " + line + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
  return asInt(ExitStatus::Usage);
}

}  // namespace

Verbs::Verbs(CLI::App& app) : app_(app) {
  app_.formatter(std::make_shared<HelpText>());
  app_.get_formatter()->column_width(26);
  app_.get_formatter()->label("SUBCOMMAND", "VERB");
  app_.get_formatter()->label("Positionals", "Arguments");
  app_.set_help_flag();
  app_.footer(
      "Talks to the plug-in registry daemon vkd.\n\nExamples:\n  vkctl match\n  vkctl hold /Applications/Photos.app "
      "-- install-photos\n");
  app_.set_version_flag("--version",
                        "vkctl " VORNIK_VERSION ", protocol " + std::to_string(Vornik::kVKProtocolVersion));
  app_.get_option("--version")->description("Tell the versions of program and protocol");
  addCommonOptions(app_);
  app_.require_subcommand(0, 1);
}

void Verbs::addCommonOptions(CLI::App& app) {
  constexpr const char* kGroup = "Options of every verb";
  auto seconds = [](std::string& text) {
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    bool valid = value > 0 && value <= kLongestTimeout && *end == '\0';
    return valid ? std::string() : "\"" + text + "\" is no number of seconds";
  };
  app.add_option("-S,--service", global_.service, "The daemon's service name")->type_name("SERVICE")->group(kGroup);
  app.add_option("--timeout", global_.timeoutSeconds, "Give up on an answer after so long, with status 8")
      ->type_name("SECONDS")
      ->group(kGroup)
      ->check(CLI::Validator(seconds, ""));
  app.add_option("--color", global_.color, "auto, always or never")
      ->type_name("WHEN")
      ->group(kGroup)
      ->check(CLI::IsMember({"auto", "always", "never"}).description(""));
  app.set_help_flag("-h,--help", "Tell this and exit")->group(kGroup);
}

CLI::App& Verbs::add(const std::string& name, const std::string& summary, const Examples& examples, Run run) {
  CLI::App& verb = *app_.add_subcommand(name, summary);
  verb.group("Verbs");
  verb.set_help_flag();
  verb.footer(summary + ".\n\nExamples:\n  " + examples[0] + "\n  " + examples[1] + "\n");
  verbs_.emplace_back(&verb, std::move(run));
  return verb;
}

void Verbs::addJson(CLI::App& verb) { verb.add_flag("--json", global_.json, "Print one JSON object"); }

int Verbs::complainAboutVerb(const std::string& word) const {
  std::vector<std::string> names;
  for (const auto& [verb, run] : verbs_) names.push_back(verb->get_name());
  return usageError(escaped(word) + ": no such verb" + proposal(word, names) + " (vkctl --help lists them)");
}

int Verbs::complainAboutOptions(CLI::App* verb, const CLI::ParseError& error) const {
  CLI::App& where = verb != nullptr ? *verb : app_;
  std::string prefix = verb != nullptr ? verb->get_name() + ": " : "";
  std::string help = "vkctl --help";
  if (verb != nullptr) help = "vkctl " + verb->get_name() + " --help";
  std::vector<std::string> options;
  for (const CLI::Option* option : where.get_options()) {
    for (const std::string& name : option->get_lnames()) options.push_back("--" + name);
  }
  for (const std::string& word : app_.remaining(true)) {
    if (!word.starts_with('-')) continue;
    std::string bare = word.substr(0, word.find('='));
    std::string wrong = prefix + escaped(bare);
    wrong.append(": no such option").append(proposal(bare, options)).append(" (").append(help).append(")");
    return usageError(wrong);
  }
  return usageError(prefix + escaped(error.what()) + " (" + help + ")");
}

int Verbs::run(std::vector<std::string> arguments) {
  auto word = verbIn(arguments);
  std::string name = word != arguments.end() ? *word : "";
  auto chosen = std::ranges::find_if(verbs_, [&](const auto& verb) { return verb.first->get_name() == name; });
  if (!name.empty() && chosen == verbs_.end()) return complainAboutVerb(name);
  // The words of a command are not options of ours.
  if (auto dashes = std::ranges::find(arguments, "--"); !commandOf(name).empty() && dashes != arguments.end()) {
    command_.assign(dashes + 1, arguments.end());
    arguments.erase(dashes, arguments.end());
    if (command_.empty()) return usageError(name + ": nothing behind -- (vkctl " + name + " --help)");
  }
  CLI::App* verb = chosen != verbs_.end() ? chosen->first : nullptr;
  if (verb != nullptr) addCommonOptions(*verb);
  try {
    std::ranges::reverse(arguments);
    app_.parse(arguments);
  } catch (const CLI::Success& asked) {
    return app_.exit(asked);
  } catch (const CLI::ParseError& error) {
    return complainAboutOptions(verb, error);
  }
  if (verb == nullptr) return usageError("a verb is missing (vkctl --help lists them)");
  Session session(name, global_);
  try {
    return chosen->second(session);
  } catch (const Failure& failure) {
    return asInt(session.complain(failure));
  } catch (const Interrupted& interrupted) {
    return kInterruptedStatus + interrupted.signal;
  }
}

}  // namespace vkctl
