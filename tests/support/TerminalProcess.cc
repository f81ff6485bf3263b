#include "support/TerminalProcess.h"

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vorlen::test {

TerminalProcess::TerminalProcess(std::vector<std::string> argv, std::vector<std::string> env) {
  // Everything the child needs is made before the fork: only exec may follow it in a threaded process.
  std::vector<char*> args, envp;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_ = ::forkpty(&terminal_, nullptr, nullptr, nullptr);
  if (pid_ == 0) {
    ::execve(args[0], args.data(), envp.data());
    ::_exit(127);
  }
}

TerminalProcess::~TerminalProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  if (terminal_ >= 0) ::close(terminal_);
}

bool TerminalProcess::readSome(std::chrono::milliseconds wait) {
  pollfd p{terminal_, POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(wait.count())) <= 0) return true;
  char buffer[4096];
  const ssize_t n = ::read(terminal_, buffer, sizeof buffer);
  if (n <= 0) return false;
  transcript_.append(buffer, static_cast<size_t>(n));
  return true;
}

bool TerminalProcess::waitFor(const std::string& text, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (transcript_.find(text) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
    if (!readSome(std::chrono::milliseconds(100))) break;
  }
  return transcript_.find(text) != std::string::npos;
}

bool TerminalProcess::type(const std::string& keys) {
  return ::write(terminal_, keys.data(), keys.size()) == static_cast<ssize_t>(keys.size());
}

std::optional<int> TerminalProcess::waitForExit(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (pid_ > 0 && std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return status;
    }
    readSome(std::chrono::milliseconds(50));
  }
  return std::nullopt;
}

}  // namespace vorlen::test
