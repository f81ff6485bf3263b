// The feedback path of the real vorlend: a browser types and engages a result; `vorlenctl feedback
// current` shows the open session growing with the right event types and relative times, and the engaged
// completion reaches the user's local history through this path.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "ipc/IpcTestSupport.h"
#include "model/QXFeedback.h"
#include "model/QXSearchResult.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"
#include "support/DaemonProcess.h"
#include "support/TempDir.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using namespace std::chrono_literals;

class FeedbackProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    Preferences defaults(dir / "config" / "vorlend", "com.velmo.vorlend");
    ASSERT_TRUE(defaults.set("VORBagURL", Value(server.baseURL() + "/bag")));
    env = test::privateDaemonEnvironment(dir.path());
  }

  // Runs vorlenctl with `args` and returns its JSON document.
  nlohmann::json ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {"--json", "--socket", (dir / "vorlend.sock").string()});
    test::ChildProcess tool(test::builtProgram("vorlenctl"), args, env, dir.path());
    EXPECT_EQ(tool.wait(30s), 0) << tool.stderrText();
    return nlohmann::json::parse(tool.stdoutText(), nullptr, false);
  }

  nlohmann::json currentSession() {
    nlohmann::json doc =
        ctl({"--id", "com.example.watcher", "--agent", "Watcher/1.0", "feedback", "current"});
    EXPECT_TRUE(doc.is_object() && doc["events"].is_array()) << doc.dump();
    return doc.is_object() ? doc["events"] : nlohmann::json::array();
  }

  static std::vector<std::string> typesOf(const nlohmann::json& events) {
    std::vector<std::string> out;
    for (const auto& e : events) out.push_back(e.value("type", ""));
    return out;
  }

  test::TempDir dir;
  RefServer server;
  std::map<std::string, std::string> env;
};

TEST_F(FeedbackProcessTest, TypingAndAnEngagementBuildTheOpenSessionAndTheLocalHistory) {
  auto daemonEnv = env;
  daemonEnv["VORLEND_LOG_LEVEL"] = "debug";
  test::ChildProcess daemon(test::builtProgram("vorlend"), {}, daemonEnv, dir.path());
  ASSERT_TRUE(daemon.waitForOutput("vorlend started", 20s)) << daemon.stderrText();

  VorlenClientOptions options;
  options.socketPath = dir / "vorlend.sock";
  auto browser = VorlenClient::create(options);
  VORSessionConfiguration configuration;
  configuration.identifier = "com.example.browser";
  configuration.userAgent = "Voyant/5.0";
  ASSERT_TRUE(browser->configure(configuration).ok());
  ASSERT_TRUE(test::eventually([&] {
    auto bag = browser->bag();
    return bag.ok() && bag.value->bag.has_value();
  }));

  // The user types "new": the client reports the start of its search, the daemon records its own
  // network events for each query it sends.
  QXFeedback start("QXStartSearchFeedback");
  start.set("queryId", Value(uint64_t{2}));
  start.set("input", Value("new"));
  ASSERT_TRUE(browser->reportEvent("start", 2, start.toRecord()).ok());
  for (uint64_t id : {1u, 2u}) {
    VORSearchRequest search;
    search.queryId = id;
    search.queryString = id == 1 ? "ne" : "new";
    auto answer = browser->request(search);
    ASSERT_TRUE(answer.ok()) << answer.errorText();
  }
  nlohmann::json typed = currentSession();
  std::vector<std::string> types = typesOf(typed);
  EXPECT_NE(std::find(types.begin(), types.end(), "search_start"), types.end()) << typed.dump();
  EXPECT_NE(std::find(types.begin(), types.end(), "network_search_start"), types.end()) << typed.dump();
  EXPECT_NE(std::find(types.begin(), types.end(), "network_search_end"), types.end()) << typed.dump();

  // Then engages the completion the service offered.
  QXSearchResult result;
  result.identifier = "r1";
  result.type = 1;
  result.title = "new york marathon";
  result.queryId = 2;
  result.userInput = "new y";
  result.completedQuery = "new york marathon";
  result.sectionBundleIdentifier = "com.velmo.vorlen.suggestions";
  QXFeedback engagement("QXResultEngagementFeedback");
  engagement.set("result", result.toRecord());
  ASSERT_TRUE(browser->reportEvent("engage", 2, engagement.toRecord()).ok());

  // The session grew by the engagement, the browser's last event so far. The shared session lists the
  // browser's events first (its agent opened it), then those of each watcher's agent (one
  // "connection_invalidated" per finished vorlenctl run). Times are relative to each agent's first event:
  // the browser's start at 0 and never go back.
  nlohmann::json engaged;
  auto browserEvents = [](const nlohmann::json& events) {
    nlohmann::json out = nlohmann::json::array();
    for (const auto& e : events) {
      if (e.value("type", "") == "connection_invalidated") break;
      out.push_back(e);
    }
    return out;
  };
  ASSERT_TRUE(test::eventually([&] {
    engaged = browserEvents(currentSession());
    return !engaged.empty() && engaged.back().value("type", "") == "result_engagement";
  })) << engaged.dump();
  EXPECT_EQ(engaged.size(), browserEvents(typed).size() + 1);
  EXPECT_EQ(engaged.back()["query_id"], 2);
  EXPECT_EQ(engaged[0]["timestamp"], 0);
  int64_t previous = 0;
  for (const auto& e : engaged) {
    ASSERT_TRUE(e["timestamp"].is_number_integer()) << e.dump();
    EXPECT_GE(e["timestamp"].get<int64_t>(), previous) << engaged.dump();
    previous = e["timestamp"].get<int64_t>();
  }

  // The engaged completion is in the browser's local history now.
  nlohmann::json found;
  ASSERT_TRUE(test::eventually([&] {
    found = ctl({"completions", "lookup", "new y", "--client", "browser"});
    return found.is_object() && found["completion"] == "new york marathon";
  })) << found.dump();
}

}  // namespace
}  // namespace vorlen
