// `vorlenctl feedback watch` and `vorlenctl feedback flush` against the real vorlend and the reference
// service: events shown as a client reports them in a real terminal (a pseudo-terminal here), ended by
// Ctrl-C; a flush that uploads the open session at once and says what it sent.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "ipc/IpcTestSupport.h"
#include "model/QXFeedback.h"
#include "model/VORSessionConfiguration.h"
#include "support/DaemonProcess.h"
#include "support/TempDir.h"
#include "vorlen-refserver/FeedbackInbox.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using namespace std::chrono_literals;

class FeedbackToolProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    Preferences defaults(dir / "config" / "vorlend", "com.velmo.vorlend");
    ASSERT_TRUE(defaults.set("VORBagURL", Value(server.baseURL() + "/bag")));
    daemon = std::make_unique<test::ChildProcess>(test::builtProgram("vorlend"), std::vector<std::string>{},
                                                  test::privateDaemonEnvironment(dir.path()), dir.path());
    ASSERT_TRUE(daemon->waitForOutput("vorlend started", 20s)) << daemon->stderrText();
    VorlenClientOptions options;
    options.socketPath = dir / "vorlend.sock";
    browser = VorlenClient::create(options);
    VORSessionConfiguration configuration;
    configuration.identifier = "com.example.browser";
    configuration.userAgent = "Voyant/5.0";
    ASSERT_TRUE(browser->configure(configuration).ok());
    ASSERT_TRUE(test::waitUntil([&] {
      auto bag = browser->bag();
      return bag.ok() && bag.value->bag.has_value();
    }));
  }
  void reportStart(uint64_t id, const std::string& input) {
    QXFeedback start("QXStartSearchFeedback");
    start.set("queryId", Value(id));
    start.set("input", Value(input));
    ASSERT_TRUE(browser->reportEvent("start", id, start.toRecord()).ok());
  }
  std::vector<std::string> ctl(std::vector<std::string> args) const {
    std::vector<std::string> all = {"--socket", (dir / "vorlend.sock").string()};
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }

  RefServer server;
  test::TempDir dir;
  std::unique_ptr<test::ChildProcess> daemon;
  std::shared_ptr<VorlenClient> browser;
};

TEST_F(FeedbackToolProcessTest, WatchShowsEachEventAsItArrivesAndEndsCleanlyOnCtrlC) {
  const std::string program = test::builtProgram("vorlenctl").string();
  const std::string socket = (dir / "vorlend.sock").string();
  // Everything the child needs is made before the fork: only exec may follow it in a threaded process.
  const char* argv[] = {program.c_str(), "--socket", socket.c_str(), "feedback", "watch", nullptr};
  const std::string home = "HOME=" + dir.path().string();
  const char* envp[] = {home.c_str(), "TERM=dumb", nullptr};
  int terminal = -1;
  const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(pid, 0) << std::strerror(errno);
  if (pid == 0) {
    ::execve(program.c_str(), const_cast<char* const*>(argv), const_cast<char* const*>(envp));
    ::_exit(127);
  }
  std::string transcript;
  auto readSome = [&](std::chrono::milliseconds wait) {
    pollfd p{terminal, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(wait.count())) <= 0) return true;
    char buffer[4096];
    const ssize_t n = ::read(terminal, buffer, sizeof buffer);
    if (n <= 0) return false;
    transcript.append(buffer, static_cast<size_t>(n));
    return true;
  };
  auto waitFor = [&](const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (transcript.find(text) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
      if (!readSome(100ms)) break;
    }
    return transcript.find(text) != std::string::npos;
  };

  ASSERT_TRUE(waitFor("Ctrl-C ends")) << transcript;
  ASSERT_TRUE(daemon->waitForOutput("new listener for client feedbacks", 20s)) << daemon->stderrText();
  reportStart(7, "weather in oslo");
  ASSERT_TRUE(waitFor("input=weather in oslo")) << transcript;
  const size_t line = transcript.find("search_start");
  ASSERT_NE(line, std::string::npos) << transcript;
  EXPECT_NE(transcript.find("Voyant/5.0", line), std::string::npos) << transcript;
  EXPECT_NE(transcript.find("q=7", line), std::string::npos) << transcript;
  reportStart(8, "weather in bergen");
  ASSERT_TRUE(waitFor("input=weather in bergen")) << transcript;

  ASSERT_EQ(::write(terminal, "\x03", 1), 1);  // Ctrl-C: SIGINT to the terminal's foreground process
  int status = 0;
  bool exited = false;
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (!exited && std::chrono::steady_clock::now() < deadline) {
    exited = ::waitpid(pid, &status, WNOHANG) == pid;
    if (!exited) readSome(50ms);
  }
  if (!exited) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  }
  ::close(terminal);
  ASSERT_TRUE(exited) << "vorlenctl did not end on Ctrl-C: " << transcript;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << transcript;
  EXPECT_TRUE(daemon->waitForOutput("Removed receiving stream listener", 20s)) << daemon->stderrText();
}

TEST_F(FeedbackToolProcessTest, FlushUploadsTheOpenSessionAtOnceAndSaysWhatItSent) {
  reportStart(1, "flush me");
  ASSERT_TRUE(test::waitUntil([&] {
    auto current = browser->feedback();
    return current.ok() && !current.value->events.empty();
  }));
  test::ChildProcess flush(test::builtProgram("vorlenctl"), ctl({"feedback", "flush"}), {}, dir.path());
  ASSERT_EQ(flush.wait(60s), 0) << flush.stdoutText() << flush.stderrText();
  const std::string out = flush.stdoutText();
  EXPECT_NE(out.find("Voyant/5.0"), std::string::npos) << out;
  EXPECT_NE(out.find("/feedback"), std::string::npos) << out;
  EXPECT_NE(out.find("sent "), std::string::npos) << out;
  ASSERT_TRUE(test::waitUntil([&] {
    for (const auto& r : server.feedbackInbox().received())
      if (r.record.dump().find("flush me") != std::string::npos) return r.valid;
    return false;
  }));
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir / "cache" / "com.velmo.vorlend", ec))
    if (entry.path().filename().string().starts_with("session.")) {
      EXPECT_EQ(test::readFile(entry.path()).find("flush me"), std::string::npos) << entry.path();
    }
}

}  // namespace
}  // namespace vorlen
