#include <gtest/gtest.h>
#include <signal.h>

#include "base/Counters.h"
#include "support/DaemonProcess.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

std::map<std::string, std::string> privateEnvironment(const test::TempDir& dir) {
  return {{"XDG_RUNTIME_DIR", (dir / "run").string()},     {"XDG_CONFIG_HOME", (dir / "config").string()},
          {"XDG_CACHE_HOME", (dir / "cache").string()},    {"TMPDIR", dir.path().string()},
          {"VORLEND_LOG_LEVEL", "debug"},                  {"HOME", dir.path().string()}};
}

TEST(DaemonProcessTest, TerminationSignalsExitZeroWithTheirDebugLine) {
  for (int sig : {SIGTERM, SIGINT}) {
    test::TempDir dir;
    test::ChildProcess daemon(test::builtProgram("vorlend"), {}, privateEnvironment(dir), dir.path());
    ASSERT_TRUE(daemon.waitForOutput("vorlend started", std::chrono::seconds(20))) << daemon.stderrText();
    ASSERT_TRUE(daemon.signal(sig));
    auto status = daemon.wait(std::chrono::seconds(20));
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0);
    std::string err = daemon.stderrText();
    EXPECT_NE(err.find(sig == SIGTERM ? "<debug> SIGTERM\n" : "<debug> SIGINT\n"), std::string::npos) << err;
    EXPECT_NE(err.find("VORTraceEnabled flag set to 0"), std::string::npos);
    // Folders are private, and the launch was counted and handed over on the way out.
    EXPECT_EQ(test::fileMode(dir / "run" / "vorlend"), 0700u);
    auto counters = dir / "cache" / "com.velmo.vorlend" / "counters.plist";
    EXPECT_EQ(test::fileMode(counters), 0600u);
    EXPECT_EQ(Counters::readFile(counters).at("com.velmo.vorlend.launch"), 1);
  }
}

TEST(DaemonProcessTest, RejectsUnknownArguments) {
  test::TempDir dir;
  test::ChildProcess daemon(test::builtProgram("vorlend"), {"--bogus"}, privateEnvironment(dir), dir.path());
  EXPECT_EQ(daemon.wait(std::chrono::seconds(20)), 2);
  EXPECT_NE(daemon.stderrText().find("unknown argument '--bogus'"), std::string::npos);
}

}  // namespace
}  // namespace vorlen
