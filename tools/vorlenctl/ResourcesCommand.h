// ResourcesCommand: `vorlenctl resources` lists the resource files vorlend holds (identifier, version,
// size, address, last download), and `vorlenctl resources get ID` writes one of them to stdout. The
// identifiers come from the daemon's record in its preferences ("download_resources"); the files and
// their attributes come from the daemon, as descriptors passed over the socket
// (fileHandleAndAttributesForResource:completion:), so the tool never opens the daemon's files itself.
//
// Threading: main thread only.
#pragma once

#include <filesystem>
#include <string>

#include "CtlOutput.h"
#include "DaemonCommands.h"
#include "ExitCode.h"

namespace vorlen::ctl {

class ResourcesCommand {
 public:
  ResourcesCommand(const CtlOutput& out, DaemonCommands& daemon, std::filesystem::path configDir);

  ExitCode list();
  // Streams the file to stdout; "no resource ID" (status 1) when the daemon holds none.
  ExitCode get(const std::string& identifier);

 private:
  const CtlOutput& out_;
  DaemonCommands& daemon_;
  const std::filesystem::path configDir_;
};

}  // namespace vorlen::ctl
