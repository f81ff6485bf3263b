// TerminalProcess: a program run in a pseudo-terminal, as a user runs it in a real terminal: what it
// shows is collected into a transcript, keys are typed into it (Ctrl-C included, which the terminal turns
// into SIGINT for the program).
//
// Threading: one test thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vorlen::test {

class TerminalProcess {
 public:
  // argv[0] is the program's path; the environment is exactly `env` ("NAME=value" entries).
  TerminalProcess(std::vector<std::string> argv, std::vector<std::string> env);
  ~TerminalProcess();  // kills (SIGKILL) and reaps a program still running
  TerminalProcess(const TerminalProcess&) = delete;
  TerminalProcess& operator=(const TerminalProcess&) = delete;

  bool started() const { return pid_ > 0; }
  // Reads until the transcript holds `text`; false when it did not within `timeout`.
  bool waitFor(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  bool type(const std::string& keys);
  // The program's wait status once it ended; nothing when it did not within `timeout` (it is then killed).
  std::optional<int> waitForExit(std::chrono::milliseconds timeout = std::chrono::seconds(20));
  const std::string& transcript() const { return transcript_; }

 private:
  // Reads what the terminal shows within `wait`; false once the program's side is closed.
  bool readSome(std::chrono::milliseconds wait);

  pid_t pid_ = -1;
  int terminal_ = -1;
  std::string transcript_;
};

}  // namespace vorlen::test
