// TypingSession: a person typing into a search field, played against vorlend over one configured client
// connection. Each keystroke is a search of the text so far with a growing query id (the daemon keeps
// only the newest search of a connection, as a real search field needs), and each answer is shown with
// the completed query, the suggestions, the round-trip time and, when a reference service is named, where
// the answer came from (network or query cache) and the local completion the daemon sent along.
//
// Threading: main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CtlOutput.h"
#include "ExitCode.h"
#include "ServiceProbe.h"
#include "client/VorlenClient.h"

namespace vorlen::ctl {

class TypingSession {
 public:
  struct Keystroke {
    std::string text;
    uint64_t queryId = 0;
    double milliseconds = 0;
    // A stable token: "network", "local" (the network answer to a search that carried the user's own
    // completion from the local history, in localCompletion), "cache" (the daemon's query cache), "none"
    // (no answer: too short, or the bag disabled searching), "error", or "unknown" when no reference
    // service is there to tell network from cache.
    std::string source;
    std::optional<std::string> completion;
    std::vector<std::string> suggestions;
    std::optional<std::string> localCompletion;
    std::optional<std::string> error;
  };

  TypingSession(const CtlOutput& out, std::shared_ptr<VorlenClient> client,
                std::optional<ServiceProbe> probe);

  // Searches `text` as the next keystroke.
  Keystroke type(const std::string& text);
  // Types `text` one character (UTF-8 sequence) at a time, `delayMs` apart, printing each answer.
  ExitCode typeLetters(const std::string& text, int delayMs);
  // Live: reads keys from a terminal (Backspace edits, Enter or Esc ends) and redraws the answer line
  // after each. When stdin is not a terminal, each line read is typed letter by letter instead.
  ExitCode interactive();

  static std::string describe(const Keystroke& k);

 private:
  const CtlOutput& out_;
  std::shared_ptr<VorlenClient> client_;
  std::optional<ServiceProbe> probe_;
  uint64_t nextQueryId_;
};

}  // namespace vorlen::ctl
