// CtlHelp: the parts of vorlenctl's command line that every subcommand shares: the global options and
// exit statuses shown in each help text, and the naming of an unknown command before the parser would
// only say that one is required.
//
// Threading: main thread only.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace vorlen::ctl {

class CtlHelp {
 public:
  // The exit statuses, as `vorlenctl --help` and the README state them.
  static const char* exitStatusText();
  // Adds the global options and exit statuses to the help of `app` and of each of its subcommands, at
  // every depth. Call after every subcommand is added.
  static void describeGlobals(CLI::App& app);
  // The first word of the command line that is not an option, a global option's value, or one of the
  // app's subcommands; nothing when the command is known (or absent).
  static std::optional<std::string> unknownCommand(CLI::App& app, int argc, const char* const* argv);
};

}  // namespace vorlen::ctl
