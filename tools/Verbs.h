// The command line of vkctl: one verb, its options, its arguments. Each verb registers itself in a file of its own.
#pragma once

#include <CLI/CLI.hpp>
#include <array>
#include <functional>
#include <string>
#include <vector>

#include "tools/ExitStatus.h"
#include "tools/Session.h"

namespace vkctl {

class Verbs {
 public:
  // Does the work: an ExitStatus, or the status of a command that was run.
  using Run = std::function<int(Session&)>;
  using Examples = std::array<const char*, 2>;

  explicit Verbs(CLI::App& app);

  // A verb with its two examples; its options and arguments are added to what is answered, before parsing. Values that
  // they are bound to live in what `run` holds.
  CLI::App& add(const std::string& name, const std::string& summary, const Examples& examples, Run run);
  // For a verb that prints something on success.
  void addJson(CLI::App& verb);
  // What stood behind "--": a command to run, taken out before the options were read.
  const std::vector<std::string>& command() const { return command_; }

  // Parses and runs; answers the exit status.
  int run(std::vector<std::string> arguments);

 private:
  void addCommonOptions(CLI::App& app);
  int complainAboutVerb(const std::string& word) const;
  int complainAboutOptions(CLI::App* verb, const CLI::ParseError& error) const;

  CLI::App& app_;
  GlobalOptions global_;
  std::vector<std::string> command_;
  std::vector<std::pair<CLI::App*, Run>> verbs_;
};

inline int asInt(ExitStatus status) { return static_cast<int>(status); }

}  // namespace vkctl
