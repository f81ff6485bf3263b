// The drain of the real vorlend, its activities shortened with VORLEND_ACTIVITY_TIMESCALE, against the
// reference service: a daemon killed with SIGKILL while an upload waits for its answer, and what the next
// run does.
#include <gtest/gtest.h>
#include <signal.h>

#include <set>

#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "ipc/IpcTestSupport.h"
#include "model/QXFeedback.h"
#include "model/VORSessionConfiguration.h"
#include "storage/ArchivedDataIterator.h"
#include "support/DaemonProcess.h"
#include "support/TempDir.h"
#include "vorlen-refserver/FeedbackInbox.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using namespace std::chrono_literals;

class DrainProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    Preferences defaults(dir / "config" / "vorlend", "com.velmo.vorlend");
    ASSERT_TRUE(defaults.set("VORBagURL", Value(server.baseURL() + "/bag")));
    env = test::privateDaemonEnvironment(dir.path());
  }

  // `timeScale` 60: the first drain 5 s after start, then every 10 s. 1: none within a test.
  void startDaemon(int timeScale) {
    daemon.reset();
    auto e = env;
    e["VORLEND_ACTIVITY_TIMESCALE"] = std::to_string(timeScale);
    daemon.emplace(test::builtProgram("vorlend"), std::vector<std::string>{}, e, dir.path());
    ASSERT_TRUE(daemon->waitForOutput("vorlend started", 20s)) << daemon->stderrText();
  }
  void kill() {
    ASSERT_TRUE(daemon->signal(SIGKILL));
    ASSERT_EQ(daemon->wait(20s), -SIGKILL);
  }

  // A browser reports `count` search starts whose input begins with `marker`; returns once they are all
  // in a session file.
  void reportSearches(const std::string& marker, int count) {
    VorlenClientOptions options;
    options.socketPath = dir / "vorlend.sock";
    auto browser = VorlenClient::create(options);
    VORSessionConfiguration configuration;
    configuration.identifier = "com.example.browser";
    configuration.userAgent = "Voyant/5.0";
    ASSERT_TRUE(browser->configure(configuration).ok());
    for (int i = 1; i <= count; ++i) {
      QXFeedback start("QXStartSearchFeedback");
      start.set("queryId", Value(i));
      start.set("input", Value(marker + " " + std::to_string(i)));
      ASSERT_TRUE(browser->reportEvent("e", static_cast<uint64_t>(i), start.toRecord()).ok());
    }
    ASSERT_TRUE(test::eventually([&] { return fileHolding(marker); }));
  }

  // Whether a session file holds an event with `marker` (its bytes, not decoded).
  bool fileHolding(const std::string& marker) const {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir / "cache" / "com.velmo.vorlend", ec))
      if (entry.path().filename().string().starts_with("session.") &&
          test::readFile(entry.path()).find(marker) != std::string::npos)
        return true;
    return false;
  }
  // Records the server received holding `marker`.
  size_t recordsHolding(const std::string& marker) {
    size_t n = 0;
    for (const auto& r : server.feedbackInbox().received())
      if (r.record.dump().find(marker) != std::string::npos) ++n;
    return n;
  }
  std::set<std::string> uploadFiles() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir / "tmp"))
      if (entry.path().filename().string().starts_with("com.velmo.vorlend.upload_"))
        names.insert(entry.path().filename().string());
    return names;
  }

  RefServer server;
  test::TempDir dir;
  std::map<std::string, std::string> env;
  std::optional<test::ChildProcess> daemon;
};

// Run 1 leaves a session ("before") on disk. Run 2 drains it into an upload whose answer the server holds
// back, while a new session ("after") is being written, and is killed. Run 3 finds "after" finished,
// sends it at its first drain, and leaves no temporary file of its own. What the kill costs: the upload
// file of run 2 stays in the temporary folder (until a start finds it 10 minutes old), and "before",
// deleted before it was sent, is never sent again: the server has it once only because its whole body had
// arrived before the kill.
TEST_F(DrainProcessTest, KilledDuringAnUploadTheNextRunDrainsWhatRemainsAndSendsNothingTwice) {
  startDaemon(1);
  reportSearches("before", 5);
  kill();

  server.feedbackInbox().setControl({.delayMs = 3000});
  startDaemon(60);
  reportSearches("after", 4);
  ASSERT_TRUE(test::eventually([&] { return recordsHolding("before") == 1; }));
  kill();
  EXPECT_FALSE(fileHolding("before"));
  const std::set<std::string> leftByTheKill = uploadFiles();
  EXPECT_GE(leftByTheKill.size(), 1u);

  server.feedbackInbox().setControl({});
  startDaemon(60);
  ASSERT_TRUE(test::eventually([&] { return recordsHolding("after") == 1; }));
  ASSERT_TRUE(test::eventually([&] { return uploadFiles() == leftByTheKill; }));
  EXPECT_FALSE(fileHolding("after"));
  EXPECT_EQ(recordsHolding("before"), 1u);
  for (const auto& r : server.feedbackInbox().received()) {
    EXPECT_TRUE(r.valid) << r.reason;
    if (r.record.dump().find("after") != std::string::npos) {
      EXPECT_EQ(r.status, 200);
    }
  }
}

}  // namespace
}  // namespace vorlen
