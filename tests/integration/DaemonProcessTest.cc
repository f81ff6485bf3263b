#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utime.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "base/Counters.h"
#include "base/UniqueFd.h"
#include "support/DaemonProcess.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

std::map<std::string, std::string> privateEnvironment(const test::TempDir& dir) {
  return {{"XDG_RUNTIME_DIR", (dir / "run").string()},
          {"XDG_CONFIG_HOME", (dir / "config").string()},
          {"XDG_CACHE_HOME", (dir / "cache").string()},
          {"TMPDIR", dir.path().string()},
          {"VORLEND_LOG_LEVEL", "debug"},
          {"HOME", dir.path().string()}};
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

TEST(DaemonProcessTest, ProgramsAnswerVersionAndHelpOnStdout) {
  test::TempDir dir;
  for (const char* program : {"vorlend", "vorlenctl", "vorlen-refserver"}) {
    for (const char* flag : {"--version", "--help"}) {
      SCOPED_TRACE(std::string(program) + " " + flag);
      test::ChildProcess p(test::builtProgram(program), {flag}, privateEnvironment(dir), dir.path());
      EXPECT_EQ(p.wait(std::chrono::seconds(20)), 0);
      const std::string expected = flag == std::string("--version") ? std::string(program) + " 0." : "--help";
      EXPECT_NE(p.stdoutText().find(expected), std::string::npos) << p.stdoutText();
      EXPECT_EQ(p.stderrText(), "");
    }
  }
}

TEST(DaemonProcessTest, StderrLinesAreTimedOneLineEachAndABadLogLevelIsReportedOnce) {
  test::TempDir dir;
  auto env = privateEnvironment(dir);
  env["VORLEND_LOG_LEVEL"] = "loud";
  test::ChildProcess daemon(test::builtProgram("vorlend"), {}, env, dir.path());
  ASSERT_TRUE(daemon.waitForOutput("vorlend started", std::chrono::seconds(20))) << daemon.stderrText();
  ASSERT_TRUE(daemon.signal(SIGTERM));
  ASSERT_EQ(daemon.wait(std::chrono::seconds(20)), 0);
  const std::string err = daemon.stderrText();
  const std::string warning = "unknown VORLEND_LOG_LEVEL \"loud\", using info";
  const size_t first = err.find(warning);
  ASSERT_NE(first, std::string::npos) << err;
  EXPECT_EQ(err.find(warning, first + 1), std::string::npos) << err;
  const std::regex line(
      R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z vorlend\[\d+\] <(info|default|error|fault)> .*)");
  std::istringstream lines(err);
  int count = 0;
  for (std::string l; std::getline(lines, l); ++count) EXPECT_TRUE(std::regex_match(l, line)) << l;
  EXPECT_GT(count, 1);
}

TEST(DaemonProcessTest, TellsTheServiceManagerItIsReadyOnceItServes) {
  test::TempDir dir;
  const auto notifyPath = dir / "notify";
  UniqueFd notify(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{AF_UNIX, {}};
  notifyPath.native().copy(addr.sun_path, sizeof(addr.sun_path) - 1);
  ASSERT_EQ(::bind(notify.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  auto env = privateEnvironment(dir);
  env["NOTIFY_SOCKET"] = notifyPath.string();
  test::ChildProcess daemon(test::builtProgram("vorlend"), {}, env, dir.path());
  pollfd p{notify.get(), POLLIN, 0};
  ASSERT_EQ(::poll(&p, 1, 20000), 1) << daemon.stderrText();
  char buf[256] = {};
  ASSERT_GT(::recv(notify.get(), buf, sizeof(buf) - 1, 0), 0);
  EXPECT_EQ(std::string(buf), "READY=1");
  // By then the service socket takes connections.
  UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un service{AF_UNIX, {}};
  (dir / "run" / "vorlend" / "com.velmo.vorlend")
      .native()
      .copy(service.sun_path, sizeof(service.sun_path) - 1);
  EXPECT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&service), sizeof(service)), 0);
}

TEST(DaemonProcessTest, ASecondDaemonForTheSameUserExitsWithOneLineBeforeTouchingTheCaches) {
  test::TempDir dir;
  test::ChildProcess first(test::builtProgram("vorlend"), {}, privateEnvironment(dir), dir.path());
  ASSERT_TRUE(first.waitForOutput("vorlend started", std::chrono::seconds(20))) << first.stderrText();
  // Even with a socket and a caches folder of its own, the second is the same user's daemon: it must not
  // start, and it stops before it makes its caches folder.
  auto env = privateEnvironment(dir);
  env["VORLEND_SOCKET"] = (dir / "second.sock").string();
  env["XDG_CACHE_HOME"] = (dir / "cache2").string();
  test::ChildProcess second(test::builtProgram("vorlend"), {}, env, dir.path());
  EXPECT_EQ(second.wait(std::chrono::seconds(20)), 1);
  const std::string err = second.stderrText();
  EXPECT_NE(
      err.find("another vorlend is already running for this user as pid " + std::to_string(first.pid())),
      std::string::npos)
      << err;
  EXPECT_EQ(err.find("vorlend started"), std::string::npos) << err;
  EXPECT_FALSE(std::filesystem::exists(dir / "second.sock"));
  EXPECT_FALSE(std::filesystem::exists(dir / "cache2"));

  // A non-socket file where the socket belongs: no daemon that serves nothing.
  ASSERT_TRUE(first.signal(SIGTERM));
  ASSERT_EQ(first.wait(std::chrono::seconds(20)), 0);
  std::ofstream(dir / "second.sock") << "not a socket";
  test::ChildProcess third(test::builtProgram("vorlend"), {}, env, dir.path());
  EXPECT_EQ(third.wait(std::chrono::seconds(20)), 1);
  EXPECT_NE(third.stderrText().find("exists and is not a socket"), std::string::npos) << third.stderrText();
  EXPECT_EQ(third.stderrText().find("vorlend started"), std::string::npos);
}

TEST(DaemonProcessTest, LeftoversOfAKilledRunAreRemovedAtStartUp) {
  test::TempDir dir;
  const auto config = dir / "config" / "vorlend";
  const auto caches = dir / "cache" / "com.velmo.vorlend";
  std::filesystem::create_directories(config);
  std::filesystem::create_directories(caches);
  std::filesystem::create_directories(dir / "run" / "vorlend");
  // A preferences write and a counters write cut short, an endpoint socket of the dead daemon, and a
  // temporary file still being written (too new to be a leftover).
  for (auto path : {config / "com.velmo.vorlend.plist.tmp.12345", caches / "counters.plist.tmp.99"}) {
    std::ofstream(path) << "partial";
    utimbuf old{0, 0};
    ASSERT_EQ(::utime(path.c_str(), &old), 0);
  }
  std::ofstream(caches / "bag.plist.tmp.7") << "in flight";
  const auto staleSocket = dir / "run" / "vorlend" / "0123456789abcdef";
  {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un addr{AF_UNIX, {}};
    staleSocket.native().copy(addr.sun_path, sizeof(addr.sun_path) - 1);
    ASSERT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  }
  test::ChildProcess daemon(test::builtProgram("vorlend"), {}, privateEnvironment(dir), dir.path());
  ASSERT_TRUE(daemon.waitForOutput("vorlend started", std::chrono::seconds(20))) << daemon.stderrText();
  EXPECT_FALSE(std::filesystem::exists(config / "com.velmo.vorlend.plist.tmp.12345"));
  EXPECT_FALSE(std::filesystem::exists(caches / "counters.plist.tmp.99"));
  EXPECT_FALSE(std::filesystem::exists(staleSocket));
  EXPECT_TRUE(std::filesystem::exists(caches / "bag.plist.tmp.7"));
  EXPECT_TRUE(std::filesystem::exists(dir / "run" / "vorlend" / "com.velmo.vorlend"));  // its own socket
}

}  // namespace
}  // namespace vorlen
