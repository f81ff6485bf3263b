// vorlenctl: the command line of vorlend. Human output by default, --json (pretty) or --json=short (one
// line per record) for scripts; exit status 0 ok, 1 the operation failed, 2 bad usage, 3 the daemon is not
// reachable or did not answer in time (CtlHelp::exitStatusText).
#include <csignal>
#include <optional>
#include <string>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "CompletionsCommand.h"
#include "CtlHelp.h"
#include "CtlOutput.h"
#include "DaemonCommands.h"
#include "DefaultsCommand.h"
#include "ExitCode.h"
#include "FlusherCommands.h"
#include "ResourcesCommand.h"
#include "StatsCommand.h"
#include "StoredFeedbackCommand.h"
#include "base/Log.h"
#include "base/Paths.h"

using namespace vorlen;
using namespace vorlen::ctl;

namespace {

int run(int argc, char** argv) {
  CLI::App app{"vorlenctl: talk to vorlend, edit its preferences, read its counters", "vorlenctl"};
  app.require_subcommand(1);
  app.fallthrough();
  app.set_version_flag("--version", std::string("vorlenctl ") + VORLEN_VERSION);

  std::string json;
  std::string socket;
  double timeout = 10.0;
  Identity identity;
  app.add_flag("--json{pretty}", json, "JSON instead of text: pretty, or short (one line per record)")
      ->check(CLI::IsMember({"pretty", "short"}));
  app.add_option("--socket", socket, "the daemon's socket (default: as the daemon chooses it)");
  app.add_option("--timeout", timeout, "seconds to wait for each answer")->check(CLI::PositiveNumber);
  app.add_option("--id", identity.identifier, "client identifier sent with the configuration");
  app.add_option("--agent", identity.agent, "user agent sent with the configuration");

  auto* status = app.add_subcommand("status", "whether vorlend answers, and its socket");
  auto* configure = app.add_subcommand("configure", "configure a connection (--id, --agent)");
  auto* search = app.add_subcommand("search", "send a search and print its results");
  std::string searchText;
  bool interactive = false;
  std::optional<std::string> refserver;
  search->add_option("TEXT", searchText, "the query");
  search->add_flag("--interactive,-i", interactive, "type in the terminal and see suggestions live");
  search->add_option("--refserver", refserver, "base URL of vorlen-refserver, to tell network from cache");
  auto* typeCmd =
      app.add_subcommand("type", "type TEXT letter by letter and show where each answer came from");
  std::string typeText;
  int delayMs = 0;
  typeCmd->add_option("TEXT", typeText, "the text to type")->required();
  typeCmd->add_option("--refserver", refserver, "base URL of vorlen-refserver, to tell network from cache");
  typeCmd->add_option("--delay-ms", delayMs, "pause between keystrokes")->check(CLI::Range(0, 10000));
  auto* bag = app.add_subcommand("bag", "version keys and size of the bag (--json: all of it)");
  bool refreshBag = false;
  bag->add_flag("--refresh", refreshBag,
                "fetch the bag now (say after changing VORBagURL) and show what the fetch installed");
  auto* sessions = app.add_subcommand("sessions", "the clients the daemon knows");
  auto* report = app.add_subcommand("report", "report a feedback event given as JSON");
  std::string eventJson;
  uint64_t queryId = 0;
  report->add_option("EVENT-JSON", eventJson, "{\"$class\": \"QX...Feedback\", fields...}")->required();
  report->add_option("--query-id", queryId, "the query id the event belongs to");

  auto* feedback = app.add_subcommand("feedback", "the feedback the daemon collects");
  feedback->require_subcommand(1);
  auto* fCurrent =
      feedback->add_subcommand("current", "the open session's events, with times relative to its first");
  auto* fStored =
      feedback->add_subcommand("stored", "the session files waiting for upload (no daemon needed)");
  auto* fShow =
      feedback->add_subcommand("show", "one session file as the JSON record it would be uploaded as");
  uint64_t sessionNumber = 0;
  fShow->add_option("N", sessionNumber, "the number of the file session.N")->required();
  auto* fWatch = feedback->add_subcommand("watch", "print each event as clients report it (Ctrl-C ends)");
  auto* fFlush = feedback->add_subcommand("flush", "end every session and upload all feedback now");
  auto* fPause = feedback->add_subcommand("pause", "stop scheduled uploads until the next flush");

  auto* defaults = app.add_subcommand("defaults", "read, write or delete a preference");
  defaults->require_subcommand(1);
  std::string domain, key, value, type = "string";
  std::optional<std::string> readKey;
  auto* dRead = defaults->add_subcommand("read", "print a key, or the whole domain");
  dRead->add_option("DOMAIN", domain)->required();
  dRead->add_option("KEY", readKey);
  auto* dWrite = defaults->add_subcommand("write", "set a key");
  dWrite->add_option("DOMAIN", domain)->required();
  dWrite->add_option("KEY", key)->required();
  dWrite->add_option("VALUE", value)->required();
  dWrite->add_option("--type", type, "bool|int|uint|real|string")
      ->check(CLI::IsMember({"bool", "int", "uint", "real", "string"}));
  auto* dDelete = defaults->add_subcommand("delete", "remove a key");
  dDelete->add_option("DOMAIN", domain)->required();
  dDelete->add_option("KEY", key)->required();

  auto* resources = app.add_subcommand("resources", "the resource files vorlend holds (--json for scripts)");
  auto* rGet = resources->add_subcommand("get", "write resource ID to stdout");
  std::string resourceId;
  rGet->add_option("ID", resourceId, "resource identifier")->required();
  auto* stats = app.add_subcommand("stats", "the daemon's saved counters");

  auto* completions = app.add_subcommand("completions", "the local completion history (no daemon needed)");
  completions->require_subcommand(1);
  std::string completionText, inputText, clientName = "browser";
  int64_t origin = 1;
  auto* cAdd = completions->add_subcommand("add", "record an engagement with COMPLETION now");
  cAdd->add_option("COMPLETION", completionText)->required();
  cAdd->add_option("--input", inputText, "what had been typed (default: nothing)");
  cAdd->add_option("--origin", origin, "1 the service's suggestion, 2 a result's title, 3 system search")
      ->check(CLI::Range(0, 1000));
  auto* cLookup =
      completions->add_subcommand("lookup", "the local completion a search for INPUT would carry");
  cLookup->add_option("INPUT", inputText)->required();
  for (auto* sub : {cAdd, cLookup}) {
    sub->add_option("--client", clientName, "whose history: browser, search or unspecified")
        ->check(CLI::IsMember({"browser", "search", "unspecified"}));
  }
  auto* cClear = completions->add_subcommand("clear", "forget every engagement");

  CtlHelp::describeGlobals(app);
  if (std::optional<std::string> unknown = CtlHelp::unknownCommand(app, argc, argv)) {
    fmt::print(stderr, "vorlenctl: unknown command: {}\nRun with --help for usage.\n", *unknown);
    return static_cast<int>(ExitCode::Usage);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    fmt::print(stderr, "vorlenctl: {}\nRun with --help for usage.\n", e.what());
    return static_cast<int>(ExitCode::Usage);
  }

  CtlOutput out(json.empty()      ? CtlOutput::Style::Text
                : json == "short" ? CtlOutput::Style::ShortJson
                                  : CtlOutput::Style::PrettyJson);
  Paths paths = Paths::fromEnvironment();
  if (*defaults) {
    DefaultsCommand command(out, paths.configDir);
    if (*dRead) return static_cast<int>(command.read(domain, readKey));
    if (*dWrite) return static_cast<int>(command.write(domain, key, value, type));
    return static_cast<int>(command.remove(domain, key));
  }
  if (*stats) return static_cast<int>(StatsCommand::run(out, paths.cachesDir));
  if (*fStored || *fShow) {
    StoredFeedbackCommand command(out, paths.cachesDir, paths.configDir);
    return static_cast<int>(*fStored ? command.stored() : command.show(sessionNumber));
  }
  if (*completions) {
    CompletionsCommand command(out, paths.cachesDir, paths.configDir);
    const int64_t client = CompletionsCommand::clientNumber(clientName).value_or(1);
    if (*cAdd) return static_cast<int>(command.add(completionText, inputText, client, origin));
    if (*cLookup) return static_cast<int>(command.lookup(inputText, client));
    if (*cClear) return static_cast<int>(command.clear());
  }

  if (identity.identifier.empty() || identity.agent.empty())
    return static_cast<int>(out.error(ExitCode::Usage, "--id and --agent must not be empty"));
  VorlenClientOptions options;
  options.socketPath = socket;
  options.callTimeout = seconds(timeout);
  DaemonCommands command(out, options, identity);
  ExitCode code = ExitCode::Usage;
  if (*status)
    code = command.status();
  else if (*configure)
    code = command.configure();
  else if (*search && interactive)
    code = command.interactive(refserver);
  else if (*search && searchText.empty())
    code = out.error(ExitCode::Usage, "search needs TEXT or --interactive");
  else if (*search)
    code = command.search(searchText);
  else if (*typeCmd)
    code = command.type(typeText, refserver, delayMs);
  else if (*bag)
    code = command.bag(refreshBag);
  else if (*sessions)
    code = command.sessions();
  else if (*report)
    code = command.report(eventJson, queryId);
  else if (*fCurrent)
    code = command.feedbackCurrent();
  else if (*fWatch || *fFlush || *fPause) {
    FlusherCommands flusher(out, command);
    code = *fWatch ? flusher.watch() : *fFlush ? flusher.flush() : flusher.pause();
  } else if (*resources) {
    ResourcesCommand resourcesCommand(out, command, paths.configDir);
    code = *rGet ? resourcesCommand.get(resourceId) : resourcesCommand.list();
  }
  return static_cast<int>(code);
}

}  // namespace

int main(int argc, char** argv) {
  // A daemon that goes away mid-write must be an error result, not a signal.
  std::signal(SIGPIPE, SIG_IGN);
  // The library's own log lines would repeat the errors this tool prints; show them only when asked.
  if (!std::getenv("VORLEND_LOG_LEVEL")) Log::setThreshold(LogLevel::Fault);
  return run(argc, argv);
}
