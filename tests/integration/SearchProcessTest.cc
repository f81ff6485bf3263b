// The real vorlend against the reference search service on loopback, driven through libvorlen-client as an
// application would: the bag arrives, typing is answered from the network and then from the query cache
// (with the user's own engaged completion once the history holds one), and a newer search overtakes an
// older one in flight.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include <nlohmann/json.hpp>

#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "ipc/IpcTestSupport.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"
#include "support/DaemonProcess.h"
#include "support/TempDir.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using namespace std::chrono_literals;

VORQueryItem queryItem(std::string name, std::string value) {
  VORQueryItem item;
  item.name = std::move(name);
  item.value = std::move(value);
  return item;
}

class SearchProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    // The daemon reads its bag URL from its preferences domain.
    Preferences defaults(dir / "config" / "vorlend", "com.velmo.vorlend");
    ASSERT_TRUE(defaults.set("VORBagURL", Value(server.baseURL() + "/bag")));
  }

  // Logs at debug level; `extraEnv` adds to the environment.
  std::unique_ptr<test::ChildProcess> startDaemon(const std::map<std::string, std::string>& extraEnv = {}) {
    std::map<std::string, std::string> env = test::privateDaemonEnvironment(dir.path());
    env["VORLEND_LOG_LEVEL"] = "debug";
    env.insert(extraEnv.begin(), extraEnv.end());
    auto daemon = std::make_unique<test::ChildProcess>(test::builtProgram("vorlend"),
                                                       std::vector<std::string>{}, env, dir.path());
    EXPECT_TRUE(daemon->waitForOutput("vorlend started", 20s)) << daemon->stderrText();
    return daemon;
  }

  // A configured browser client; waits until the daemon has sent it a bag.
  std::shared_ptr<VorlenClient> browser() {
    VorlenClientOptions options;
    options.socketPath = dir / "vorlend.sock";
    auto client = VorlenClient::create(options);
    VORSessionConfiguration configuration;
    configuration.identifier = "com.example.browser";
    configuration.userAgent = "Voyant/5.0";
    EXPECT_TRUE(client->configure(configuration).ok());
    // The daemon fetches its bag at start-up; until it has one, the bag call answers the time-out error.
    EXPECT_TRUE(test::eventually([&] {
      auto bag = client->bag();
      return bag.ok() && bag.value->bag.has_value();
    }));
    return client;
  }

  static VORSearchRequest search(uint64_t id, std::string text) {
    VORSearchRequest r;
    r.queryId = id;
    r.queryString = std::move(text);
    return r;
  }

  static nlohmann::json body(const RequestReply& r) {
    if (!r.reply) return nullptr;
    return nlohmann::json::parse(r.reply->data.begin(), r.reply->data.end(), nullptr, false);
  }

  test::TempDir dir;
  RefServer server;
};

// Typing itself (too short, network, query cache) is driven below through vorlenctl and a terminal; here
// the library asks for the other kinds.
TEST_F(SearchProcessTest, ZeroKeywordAndAMissingMoreResultsPageThroughTheLibrary) {
  auto daemon = startDaemon();
  auto client = browser();

  VORZeroKeywordRequest zkw;
  zkw.queryId = 4;
  auto trending = client->request(zkw);
  ASSERT_TRUE(trending.ok()) << trending.errorText();
  EXPECT_EQ(body(*trending.value)["suggestions"].size(), 5u);

  VORMoreResultsRequest more;
  more.queryId = 5;
  more.queryItems = {queryItem("q", "news"), queryItem("ref_status", "404")};
  auto missing = client->request(more);
  ASSERT_TRUE(missing.ok()) << missing.errorText();
  // A page the service does not have is a failed search for the session and an empty answer here.
  EXPECT_FALSE(missing.value->error);
  EXPECT_FALSE(missing.value->reply);
  EXPECT_TRUE(daemon->waitForOutput("More results fetch failed with HTTP status code 404", 10s));
}

TEST_F(SearchProcessTest, VorlenctlTypesLetterByLetterAndTellsNetworkFromCache) {
  auto daemon = startDaemon({{"VORLEND_LOG_PRIVATE", "1"}});  // the log is read below
  ASSERT_TRUE(browser());
  test::ChildProcess ctl(test::builtProgram("vorlenctl"),
                         {"--json", "--socket", (dir / "vorlend.sock").string(), "--id", "com.example.typist",
                          "--agent", "Voyant/5.0", "type", "new", "--refserver", server.baseURL()},
                         {{"HOME", dir.path().string()}}, dir.path());
  ASSERT_EQ(ctl.wait(30s), 0) << ctl.stderrText();
  auto keystrokes = nlohmann::json::parse(ctl.stdoutText(), nullptr, false);
  ASSERT_TRUE(keystrokes.is_array()) << ctl.stdoutText();
  ASSERT_EQ(keystrokes.size(), 3u);
  EXPECT_EQ(keystrokes[0]["source"], "none");  // below the bag's minimum length
  EXPECT_EQ(keystrokes[1]["source"], "network");
  EXPECT_EQ(keystrokes[1]["completion"], "news");
  EXPECT_EQ(keystrokes[2]["source"], "cache");
  EXPECT_EQ(keystrokes[2]["completion"], "news");
  EXPECT_FALSE(keystrokes[1].contains("localCompletion"));

  // An engagement in the browser's history, written while the daemon runs, goes with the next searches of
  // another browser client, and the service completes to it.
  const std::map<std::string, std::string> env = {{"HOME", dir.path().string()},
                                                  {"XDG_CACHE_HOME", (dir / "cache").string()},
                                                  {"XDG_CONFIG_HOME", (dir / "config").string()}};
  test::ChildProcess add(
      test::builtProgram("vorlenctl"),
      {"completions", "add", "new york marathon", "--input", "new y", "--client", "browser"}, env,
      dir.path());
  ASSERT_EQ(add.wait(30s), 0) << add.stderrText();
  test::ChildProcess again(
      test::builtProgram("vorlenctl"),
      {"--json", "--socket", (dir / "vorlend.sock").string(), "--id", "com.example.typist.2", "--agent",
       "Voyant/5.0", "type", "new", "--refserver", server.baseURL()},
      env, dir.path());
  ASSERT_EQ(again.wait(30s), 0) << again.stderrText();
  auto personal = nlohmann::json::parse(again.stdoutText(), nullptr, false);
  ASSERT_TRUE(personal.is_array() && personal.size() == 3u) << again.stdoutText();
  EXPECT_EQ(personal[1]["source"], "local");
  EXPECT_EQ(personal[1]["localCompletion"], "new york marathon");
  EXPECT_EQ(personal[1]["completion"], "new york marathon");
  EXPECT_EQ(personal[2]["source"], "cache");
  EXPECT_EQ(personal[2]["completion"], "new york marathon");
  EXPECT_TRUE(daemon->waitForOutput("Local completion found: input ne, completion new york marathon", 10s));
}

// What the user types never reaches the daemon's log, at any level, unless private logging was asked for:
// not in the request URL, not in the query cache, not in the local completion look-up.
TEST_F(SearchProcessTest, TypedTextStaysOutOfTheLogUnlessPrivateLoggingIsOn) {
  const std::string typed = "qzvxjk marathon";
  auto typeOnce = [&](uint64_t id) {
    auto client = browser();
    auto answer = client->request(search(id, typed));
    ASSERT_TRUE(answer.ok()) << answer.errorText();
    ASSERT_TRUE(client->request(search(id + 1, typed)).ok());  // from the query cache
  };
  {
    auto daemon = startDaemon();
    typeOnce(1);
    ASSERT_TRUE(daemon->signal(SIGTERM));
    ASSERT_EQ(daemon->wait(20s), 0);
    const std::string log = daemon->stderrText();
    EXPECT_NE(log.find("<private>"), std::string::npos);
    EXPECT_EQ(log.find("qzvxjk"), std::string::npos) << log;
  }
  Preferences defaults(dir / "config" / "vorlend", "com.velmo.vorlend");
  ASSERT_TRUE(defaults.set("VORLogPrivateData", Value(true)));
  auto daemon = startDaemon();
  typeOnce(3);
  EXPECT_TRUE(daemon->waitForOutput("qzvxjk", 10s));
}

// `vorlenctl search --interactive` in a real terminal (a pseudo-terminal here): raw keystrokes, each
// answered as it is typed, Backspace editing, Enter ending with status 0.
TEST_F(SearchProcessTest, InteractiveSearchAnswersEveryKeystrokeInARawTerminal) {
  auto daemon = startDaemon();
  ASSERT_TRUE(browser());
  const std::string program = test::builtProgram("vorlenctl").string();
  const std::string socket = (dir / "vorlend.sock").string();
  // Everything the child needs is made before the fork: only exec may follow it in a threaded process.
  const std::string refserver = server.baseURL();
  const char* argv[] = {program.c_str(),      "--socket",    socket.c_str(),    "--id",
                        "com.example.person", "--agent",     "Voyant/5.0",      "search",
                        "--interactive",      "--refserver", refserver.c_str(), nullptr};
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
  // Reads what the terminal shows within `wait`; false once the program's side is closed.
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
  auto type = [&](const std::string& keys) {
    ASSERT_EQ(::write(terminal, keys.data(), keys.size()), ssize_t(keys.size()));
  };

  ASSERT_TRUE(waitFor("type to search")) << transcript;
  type("ne");
  ASSERT_TRUE(waitFor("network")) << transcript;
  EXPECT_TRUE(waitFor("-> news")) << transcript;
  type("\x7f");  // Backspace: "n" again, below the minimum length
  ASSERT_TRUE(waitFor(" none ")) << transcript;
  type("e");
  EXPECT_TRUE(waitFor(" cache ")) << transcript;
  type("\r");
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
  ASSERT_TRUE(exited) << "vorlenctl did not end on Enter: " << transcript;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << transcript;
  EXPECT_EQ(server.requestCount("/search"), 1u);  // only "ne" reached the service
}

TEST_F(SearchProcessTest, ANewerSearchOvertakesOneStillInFlight) {
  auto daemon = startDaemon();
  auto client = browser();
  VORSearchRequest five = search(5, "football");
  five.queryItems = {queryItem("ref_hold", "1")};
  auto fiveAnswer = std::make_shared<test::Inbox<ClientResult<RequestReply>>>();
  client->request(five, [fiveAnswer](ClientResult<RequestReply> r) { fiveAnswer->put(std::move(r)); });
  ASSERT_TRUE(test::eventually([&] { return server.requestCount("/search") == 1; }));

  auto six = client->request(search(6, "fo"));
  ASSERT_TRUE(six.ok()) << six.errorText();
  EXPECT_EQ(six.value->queryId, 6u);
  EXPECT_EQ(body(*six.value)["query"], "football");
  EXPECT_EQ(fiveAnswer->size(), 0u) << daemon->stderrText();  // 6 is answered while 5 is still on its way

  server.releaseHeld();
  ASSERT_TRUE(fiveAnswer->waitFor(1));
  const auto overtaken = fiveAnswer->items()[0];
  ASSERT_TRUE(overtaken.ok()) << overtaken.errorText();
  EXPECT_EQ(overtaken.value->queryId, 5u);
  EXPECT_FALSE(overtaken.value->reply);
  EXPECT_FALSE(overtaken.value->error);
}

// SIGHUP re-reads the platform settings: an edited locale reaches the requests, and the bag, whose address
// carries the locale, is fetched again. (The periodic check would find the edit too; the signal makes it
// happen now, and must not end the daemon.)
TEST_F(SearchProcessTest, SighupAppliesAnEditedLocaleAndTheDaemonServesOn) {
  auto daemon = startDaemon();
  auto client = browser();
  // The edit may land while the first fetch is still in flight: a fetch built before it is followed by one
  // more, so the newest bag always carries the new locale.
  Preferences defaults(dir / "config" / "vorlend", "com.velmo.vorlend");
  ASSERT_TRUE(defaults.set("VORLocaleOverride", Value("de_AT")));
  ASSERT_TRUE(daemon->signal(SIGHUP));
  EXPECT_TRUE(daemon->waitForOutput("SIGHUP: re-reading platform settings", 20s));
  ASSERT_TRUE(test::eventually([&] {
    for (const auto& r : server.requests())
      if (r.path == "/bag" && r.rawQuery.find("de_AT") != std::string::npos) return true;
    return false;
  })) << daemon->stderrText();

  ASSERT_TRUE(client->request(search(1, "news")).ok());
  std::string searched;
  for (const auto& r : server.requests())
    if (r.path == "/search") searched = r.rawQuery;
  EXPECT_NE(searched.find("de_AT"), std::string::npos) << searched;
  ASSERT_TRUE(daemon->signal(SIGTERM));
  EXPECT_EQ(daemon->wait(20s), 0);
}

}  // namespace
}  // namespace vorlen
