#include "CtlHelp.h"

#include <cstring>

namespace vorlen::ctl {

namespace {

constexpr const char* kGlobalOptions =
    "Global options (before or after the command):\n"
    "  --json[=pretty|short]  JSON instead of text: pretty (default), or short: one line per record\n"
    "  --socket PATH          the daemon's socket (default: $VORLEND_SOCKET, else\n"
    "                         $XDG_RUNTIME_DIR/vorlend/com.velmo.vorlend)\n"
    "  --id ID, --agent AGENT the client identity sent with the configuration\n"
    "  --timeout SECONDS      how long to wait for each answer (default 10)\n";

// Global options that take a value in the next word.
bool takesValue(const char* arg) {
  for (const char* name : {"--socket", "--id", "--agent", "--timeout"})
    if (std::strcmp(arg, name) == 0) return true;
  return false;
}

void addFooter(CLI::App& app, const std::string& text) {
  app.footer(text);
  for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) addFooter(*sub, text);
}

}  // namespace

const char* CtlHelp::exitStatusText() {
  return "Exit status:\n"
         "  0  done (an empty answer is a normal answer)\n"
         "  1  the operation failed: vorlend answered with an error, or a local file said no\n"
         "  2  bad command line or bad input\n"
         "  3  vorlend is not running, not reachable, or did not answer in time\n";
}

void CtlHelp::describeGlobals(CLI::App& app) {
  addFooter(app, std::string("\n") + kGlobalOptions + "\n" + exitStatusText());
}

std::optional<std::string> CtlHelp::unknownCommand(CLI::App& app, int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (std::strcmp(arg, "--") == 0) return std::nullopt;
    if (arg[0] == '-') {
      if (takesValue(arg)) ++i;
      continue;
    }
    try {
      app.get_subcommand(arg);
      return std::nullopt;
    } catch (const CLI::OptionNotFound&) {
      return std::string(arg);
    }
  }
  return std::nullopt;
}

}  // namespace vorlen::ctl
