// FlusherCommands: vorlenctl's commands on the daemon's flusher endpoint (the endpoint listenToFlusher:
// hands out):
//   watch   receiving stream: one line per event as clients report it (type, agent, query id, summary),
//           or the event's JSON object per line with --json; ends cleanly on SIGINT or SIGTERM;
//   flush   dump: every client's session is ended and storage is drained now; prints what was sent
//           (sessions, events, compressed bytes, destination); fails when nothing was sent;
//   pause   stops scheduled uploads until the next flush.
//
// Threading: main thread; the endpoint's calls arrive on the flusher client's queue.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "CtlOutput.h"
#include "DaemonCommands.h"
#include "ExitCode.h"

namespace vorlen::ctl {

class FlusherCommands {
 public:
  FlusherCommands(const CtlOutput& out, DaemonCommands& daemon) : out_(out), daemon_(daemon) {}

  ExitCode watch();
  ExitCode flush();
  ExitCode pause();

  // One watch line for an event's JSON text: "<type> <agent> q=<query id> <summary>"; the text itself
  // when it is not a JSON object.
  static std::string watchLine(const std::string& description);

 private:
  // Configures, asks for the endpoint; the failure's exit status, or nothing with *endpoint set.
  std::optional<ExitCode> endpoint(IpcEndpoint* endpoint);

  const CtlOutput& out_;
  DaemonCommands& daemon_;
};

}  // namespace vorlen::ctl
