// `vorlenctl feedback watch` and `vorlenctl feedback flush` against the real vorlend and the reference
// service: events shown as a client reports them in a real terminal (a pseudo-terminal here), ended by
// Ctrl-C; a flush that uploads the open session at once and says what it sent.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "ipc/IpcTestSupport.h"
#include "model/QXFeedback.h"
#include "model/VORSessionConfiguration.h"
#include "support/DaemonProcess.h"
#include "support/Eventually.h"
#include "support/TempDir.h"
#include "support/TerminalProcess.h"
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
    ASSERT_TRUE(test::eventually([&] {
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
  test::TerminalProcess watch({test::builtProgram("vorlenctl").string(), "--socket",
                               (dir / "vorlend.sock").string(), "feedback", "watch"},
                              {"HOME=" + dir.path().string(), "TERM=dumb"});
  ASSERT_TRUE(watch.started());
  ASSERT_TRUE(watch.waitFor("Ctrl-C ends")) << watch.transcript();
  ASSERT_TRUE(daemon->waitForOutput("new listener for client feedbacks", 20s)) << daemon->stderrText();
  reportStart(7, "weather in oslo");
  ASSERT_TRUE(watch.waitFor("input=weather in oslo")) << watch.transcript();
  const std::string& shown = watch.transcript();
  const size_t line = shown.find("search_start");
  ASSERT_NE(line, std::string::npos) << shown;
  EXPECT_NE(shown.find("Voyant/5.0", line), std::string::npos) << shown;
  EXPECT_NE(shown.find("q=7", line), std::string::npos) << shown;
  reportStart(8, "weather in bergen");
  ASSERT_TRUE(watch.waitFor("input=weather in bergen")) << watch.transcript();

  ASSERT_TRUE(watch.type("\x03"));  // Ctrl-C: SIGINT to the terminal's foreground process
  std::optional<int> status = watch.waitForExit();
  ASSERT_TRUE(status) << "vorlenctl did not end on Ctrl-C: " << watch.transcript();
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << watch.transcript();
  EXPECT_TRUE(daemon->waitForOutput("Removed receiving stream listener", 20s)) << daemon->stderrText();
}

TEST_F(FeedbackToolProcessTest, FlushUploadsTheOpenSessionAtOnceAndSaysWhatItSent) {
  reportStart(1, "flush me");
  ASSERT_TRUE(test::eventually([&] {
    auto current = browser->feedback();
    return current.ok() && !current.value->events.empty();
  }));
  test::ChildProcess flush(test::builtProgram("vorlenctl"), ctl({"feedback", "flush"}), {}, dir.path());
  ASSERT_EQ(flush.wait(60s), 0) << flush.stdoutText() << flush.stderrText();
  const std::string out = flush.stdoutText();
  EXPECT_NE(out.find("Voyant/5.0"), std::string::npos) << out;
  EXPECT_NE(out.find("/feedback"), std::string::npos) << out;
  EXPECT_NE(out.find("sent "), std::string::npos) << out;
  ASSERT_TRUE(test::eventually([&] {
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
