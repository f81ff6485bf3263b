// StoredFeedbackCommand: `vorlenctl feedback stored|show N` reads the session files in the daemon's caches
// folder directly (no daemon needed), so a developer sees what would be uploaded without a server.
//
//   stored   one line per session file: number, size, agent, event count, age, and whether the file can be
//            read; the file of a session that is still open is listed too (after a crash it is finished).
//   show N   the file session.N as the JSON session record the daemon would upload.
//
// Files are read as the daemon reads them, with every check, except that each file's own version record
// is accepted: the tool shows files of any daemon version and says which version wrote them.
//
// Threading: main thread only.
#pragma once

#include <cstdint>
#include <filesystem>

#include "CtlOutput.h"
#include "ExitCode.h"

namespace vorlen::ctl {

class StoredFeedbackCommand {
 public:
  StoredFeedbackCommand(const CtlOutput& out, std::filesystem::path cachesDir,
                        std::filesystem::path configDir);

  ExitCode stored();
  ExitCode show(uint64_t number);

 private:
  const CtlOutput& out_;
  const std::filesystem::path cachesDir_;
  const std::filesystem::path configDir_;
};

}  // namespace vorlen::ctl
