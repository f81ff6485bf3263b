// StatsCommand: `vorlenctl stats` prints the daemon's aggregate counters as last persisted to
// <caches>/counters.plist (the daemon writes them every few seconds and when it stops). No daemon needed.
//
// Threading: main thread only.
#pragma once

#include <filesystem>

#include "CtlOutput.h"
#include "ExitCode.h"

namespace vorlen::ctl {

class StatsCommand {
 public:
  // The file the daemon's Counters persist to, below its caches folder.
  static std::filesystem::path countersFile(const std::filesystem::path& cachesDir);

  static ExitCode run(const CtlOutput& out, const std::filesystem::path& cachesDir);
};

}  // namespace vorlen::ctl
