// CompletionsCommand: `vorlenctl completions add|lookup|clear` works on the local completion history, the
// database of engaged completions below the daemon's caches folder, through the same EngagedCompletionCache
// the daemon uses; no daemon is needed, and a running daemon sees the change on its next lookup.
//
//   add COMPLETION [--input TEXT] [--client browser|search|unspecified] [--origin N]
//       records an engagement now, as the daemon does when a client reports one;
//   lookup INPUT [--client ...]
//       the local completion the daemon would send with a search for INPUT (default weights, threshold 0);
//   clear
//       forgets every engagement.
//
// "VORDisableLocalCompletions" in the daemon's preferences switches the history off for this tool too: add
// and lookup then fail (exit 1) and say why.
//
// Threading: main thread only.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "CtlOutput.h"
#include "ExitCode.h"

namespace vorlen {
class EngagedCompletionCache;
class Preferences;
}  // namespace vorlen

namespace vorlen::ctl {

class CompletionsCommand {
 public:
  CompletionsCommand(const CtlOutput& out, const std::filesystem::path& cachesDir,
                     const std::filesystem::path& configDir);
  ~CompletionsCommand();

  // Client names as the daemon numbers them: "unspecified" 0, "browser" 1, "search" 2.
  static std::optional<int64_t> clientNumber(const std::string& name);

  ExitCode add(const std::string& completion, const std::string& input, int64_t client, int64_t origin);
  ExitCode lookup(const std::string& input, int64_t client);
  ExitCode clear();

 private:
  // False (after printing why) when the history cannot be used now.
  bool usable(ExitCode* code);

  const CtlOutput& out_;
  std::shared_ptr<Preferences> defaults_;
  std::shared_ptr<EngagedCompletionCache> cache_;
};

}  // namespace vorlen::ctl
