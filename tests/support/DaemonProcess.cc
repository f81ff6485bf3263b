#include "support/DaemonProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "support/TempDir.h"

extern char** environ;

namespace vorlen::test {

std::filesystem::path builtProgram(const std::string& name) {
  const char* dir = std::getenv("VORLEN_BINARY_DIR");
  return std::filesystem::path(dir && *dir ? dir : VORLEN_BINARY_DIR) / name;
}

std::map<std::string, std::string> privateDaemonEnvironment(const std::filesystem::path& root) {
  std::filesystem::create_directories(root / "run");
  std::filesystem::create_directories(root / "tmp");
  return {{"XDG_RUNTIME_DIR", (root / "run").string()},
          {"XDG_CONFIG_HOME", (root / "config").string()},
          {"XDG_CACHE_HOME", (root / "cache").string()},
          {"TMPDIR", (root / "tmp").string()},
          {"HOME", root.string()},
          {"VORLEND_SOCKET", (root / "vorlend.sock").string()}};
}

ChildProcess::ChildProcess(const std::filesystem::path& program, std::vector<std::string> args,
                           std::map<std::string, std::string> env, const std::filesystem::path& outputDir) {
  static int serial = 0;
  std::string tag = program.filename().string() + "." + std::to_string(++serial);
  out_ = outputDir / (tag + ".out");
  err_ = outputDir / (tag + ".err");

  std::map<std::string, std::string> merged;
  for (char** e = environ; *e; ++e) {
    std::string kv = *e;
    auto eq = kv.find('=');
    if (eq != std::string::npos) merged[kv.substr(0, eq)] = kv.substr(eq + 1);
  }
  for (auto& [k, v] : env) merged[k] = v;
  std::vector<std::string> envStrings;
  for (auto& [k, v] : merged) envStrings.push_back(k + "=" + v);
  std::vector<char*> envp, argv;
  for (auto& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::string prog = program.string();
  argv.push_back(prog.data());
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  pid_ = ::fork();
  if (pid_ == 0) {
    int o = ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int e = ::open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(o, 1);
    ::dup2(e, 2);
    int devnull = ::open("/dev/null", O_RDONLY);
    ::dup2(devnull, 0);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    ::execve(prog.c_str(), argv.data(), envp.data());
    ::_exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !status_) {
    ::kill(pid_, SIGKILL);
    int st;
    ::waitpid(pid_, &st, 0);
  }
}

bool ChildProcess::signal(int sig) {
  return pid_ > 0 && !status_ && ::kill(pid_, sig) == 0;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (status_) return status_;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int st = 0;
    pid_t r = ::waitpid(pid_, &st, WNOHANG);
    if (r == pid_) {
      status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -WTERMSIG(st);
      return status_;
    }
    if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool ChildProcess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout,
                                 bool fromStdout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if ((fromStdout ? stdoutText() : stderrText()).find(text) != std::string::npos) return true;
    if (status_ || std::chrono::steady_clock::now() > deadline) return false;
    int st = 0;
    if (::waitpid(pid_, &st, WNOHANG) == pid_) status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -WTERMSIG(st);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string ChildProcess::stdoutText() const {
  return readFile(out_);
}
std::string ChildProcess::stderrText() const {
  return readFile(err_);
}

}  // namespace vorlen::test
