#include "CompletionsCommand.h"

#include <fmt/format.h>

#include "base/Clock.h"
#include "base/Preferences.h"
#include "cache/EngagedCompletionCache.h"

namespace vorlen::ctl {

CompletionsCommand::CompletionsCommand(const CtlOutput& out, const std::filesystem::path& cachesDir,
                                       const std::filesystem::path& configDir)
    : out_(out),
      defaults_(std::make_shared<Preferences>(configDir, "com.velmo.vorlend")),
      cache_(EngagedCompletionCache::create(cachesDir, Clock::system(), defaults_)) {
  // The daemon switches the history on from the bag; here the user asked for it.
  cache_->setEnabled(true);
}

CompletionsCommand::~CompletionsCommand() = default;

std::optional<int64_t> CompletionsCommand::clientNumber(const std::string& name) {
  if (name == "unspecified") return 0;
  if (name == "browser") return 1;
  if (name == "search") return 2;
  return std::nullopt;
}

bool CompletionsCommand::usable(ExitCode* code) {
  if (defaults_->boolForKey("VORDisableLocalCompletions")) {
    *code = out_.error(ExitCode::Failed, "local completions are switched off (VORDisableLocalCompletions)");
    return false;
  }
  if (!cache_->isOpen()) {
    *code =
        out_.error(ExitCode::Failed, "cannot open the completion history " + cache_->databasePath().string());
    return false;
  }
  return true;
}

ExitCode CompletionsCommand::add(const std::string& completion, const std::string& input, int64_t client,
                                 int64_t origin) {
  ExitCode code = ExitCode::Ok;
  if (!usable(&code)) return code;
  if (completion.empty()) return out_.error(ExitCode::Usage, "the completion must not be empty");
  if (!cache_->addCompletion(completion, input, origin, client))
    return out_.error(ExitCode::Failed,
                      "the engagement could not be stored in " + cache_->databasePath().string());
  out_.line(fmt::format("recorded \"{}\" for input \"{}\" (client {}, origin {})", completion, input, client,
                        origin));
  out_.document({{"completion", completion},
                 {"input", input},
                 {"client", client},
                 {"origin", origin},
                 {"database", cache_->databasePath().string()}});
  return ExitCode::Ok;
}

ExitCode CompletionsCommand::lookup(const std::string& input, int64_t client) {
  ExitCode code = ExitCode::Ok;
  if (!usable(&code)) return code;
  auto found = cache_->completionForInput(input, client);
  if (!found) {
    out_.line(fmt::format("no local completion for \"{}\" (client {})", input, client));
    out_.document({{"input", input}, {"client", client}, {"completion", nullptr}});
    return ExitCode::Ok;
  }
  out_.line(fmt::format("\"{}\" -> \"{}\" score {:.6f} type {}", input, found->suggestion, found->score,
                        found->type));
  out_.document({{"input", input},
                 {"client", client},
                 {"completion", found->suggestion},
                 {"score", found->score},
                 {"type", found->type}});
  return ExitCode::Ok;
}

ExitCode CompletionsCommand::clear() {
  ExitCode code = ExitCode::Ok;
  if (!usable(&code)) return code;
  cache_->clearAllCompletions();
  out_.line("cleared the local completion history");
  out_.document({{"cleared", true}});
  return ExitCode::Ok;
}

}  // namespace vorlen::ctl
