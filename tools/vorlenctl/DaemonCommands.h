// DaemonCommands: vorlenctl's subcommands that talk to vorlend through libvorlen-client: status,
// configure, search, bag, sessions, report, feedback current. Each configures the connection with the tool's
// identity first (the daemon answers nothing else before), runs its operation with the blocking client forms
// and returns the exit status.
//
// Threading: main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "CtlOutput.h"
#include "ExitCode.h"
#include "client/VorlenClient.h"

namespace vorlen::ctl {

struct Identity {
  std::string identifier = "com.velmo.vorlenctl";
  std::string agent = "vorlenctl/1.0";
};

class DaemonCommands {
 public:
  DaemonCommands(const CtlOutput& out, VorlenClientOptions options, Identity identity);

  // Whether the daemon answers configure:reply:, and where.
  ExitCode status();
  ExitCode configure();
  ExitCode search(const std::string& text);
  // Types `text` letter by letter (see TypingSession); `refserver` is the reference service's base URL,
  // which tells network answers from cached ones.
  ExitCode type(const std::string& text, const std::optional<std::string>& refserver, int delayMs);
  // Live type-ahead in the terminal.
  ExitCode interactive(const std::optional<std::string>& refserver);
  // Version-like keys and the key count; the whole bag with --json. `refresh`: the daemon fetches the bag
  // first (from the URL its preferences name now) and this is the bag that fetch installed.
  ExitCode bag(bool refresh = false);
  ExitCode sessions();
  // `eventJson`: {"$class": <QXFeedback class>, fields...}.
  ExitCode report(const std::string& eventJson, uint64_t queryId);
  // The open feedback session's events with their relative times (feedback:reply:).
  ExitCode feedbackCurrent();

  // Configures the client; the exit status of the failure, or nothing on success. For commands that
  // live in files of their own.
  std::optional<ExitCode> connect(IpcEndpoint* endpoint = nullptr);
  const std::shared_ptr<VorlenClient>& client() const { return client_; }

 private:
  const CtlOutput& out_;
  Identity identity_;
  std::shared_ptr<VorlenClient> client_;
};

}  // namespace vorlen::ctl
