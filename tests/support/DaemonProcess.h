// DaemonProcess: runs a real program of this build (vorlend, vorlen-refserver, vorlenctl) as a child
// process with a private environment, collecting its stdout and stderr in files, for integration tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vorlen::test {

// Absolute path of a program built by this build tree (e.g. "vorlend").
std::filesystem::path builtProgram(const std::string& name);

// The environment of a daemon (or a tool talking to it) whose folders all lie below `root`: runtime
// folder root/run and temporary folder root/tmp (both created), config root/config, caches root/cache,
// HOME root, and the service socket root/vorlend.sock.
std::map<std::string, std::string> privateDaemonEnvironment(const std::filesystem::path& root);

class ChildProcess {
 public:
  // Starts `program` with `args`; `env` entries are added to (and override) the current environment.
  ChildProcess(const std::filesystem::path& program, std::vector<std::string> args,
               std::map<std::string, std::string> env, const std::filesystem::path& outputDir);
  ~ChildProcess();  // kills (SIGKILL) and reaps a child still running

  pid_t pid() const { return pid_; }
  bool signal(int sig);
  // Waits until the process ends; its exit status, or -(signal) when killed; nullopt on time-out.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  // Waits until `text` appears in stderr (or stdout when `fromStdout`); false on time-out or exit.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout, bool fromStdout = false);
  std::string stdoutText() const;
  std::string stderrText() const;

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::filesystem::path out_, err_;
};

}  // namespace vorlen::test
