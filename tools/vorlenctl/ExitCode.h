// ExitCode: vorlenctl's exit statuses, a contract with the scripts that run it.
#pragma once

namespace vorlen::ctl {

enum class ExitCode : int {
  Ok = 0,
  Failed = 1,       // the operation failed: the daemon answered with an error, or a local file said no
  Usage = 2,        // bad command line or bad input
  Unreachable = 3,  // the daemon could not be reached, or did not answer in time
};

}  // namespace vorlen::ctl
