// vorlenctl as a program: exit codes, output, and the defaults round trip, on private folders. The
// daemon-facing commands run against ScriptedDaemon on a private socket.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "base/Archive.h"
#include "base/Preferences.h"
#include "client/ScriptedDaemon.h"
#include "model/QXFeedback.h"
#include "model/VORRequest.h"
#include "support/DaemonProcess.h"

namespace vorlen::test {
namespace {

class VorlenctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(std::filesystem::exists(builtProgram("vorlenctl")))
        << "build the vorlenctl target first: " << builtProgram("vorlenctl");
  }

  struct Run {
    int status;
    std::string out, err;
  };
  Run run(std::vector<std::string> args) {
    ChildProcess p(builtProgram("vorlenctl"), std::move(args),
                   {{"XDG_RUNTIME_DIR", (dir / "run").string()},
                    {"XDG_CONFIG_HOME", (dir / "config").string()},
                    {"XDG_CACHE_HOME", (dir / "cache").string()},
                    {"VORLEND_SOCKET", socket.string()}},
                   dir.path());
    std::optional<int> status = p.wait(std::chrono::seconds(30));
    EXPECT_TRUE(status) << "vorlenctl did not finish";
    return {status.value_or(-1), p.stdoutText(), p.stderrText()};
  }

  TempDir dir;
  std::filesystem::path socket = dir / "vorlend.sock";
};

// The command-line conventions, without a daemon: exit status, and a fragment of stdout and of stderr
// ("" where that stream must stay empty).
TEST_F(VorlenctlTest, ConventionsWithoutADaemon) {
  struct Row {
    std::vector<std::string> args;
    int status;
    std::string out, err;
  };
  const std::string unreachable = "vorlend is not reachable: cannot connect to " + socket.string();
  const std::vector<Row> rows = {
      // The state is printed also when the daemon is down, as text and as JSON.
      {{"status"}, 3, "vorlend is not running\nsocket: " + socket.string(), unreachable},
      {{"--json=short", "status"}, 3, R"({"running":false,"state":"stopped","socket")", unreachable},
      {{"bag"}, 3, "", unreachable},
      {{"sessions"}, 3, "", unreachable},
      // Version and help on stdout; every subcommand's help shows the global options and exit statuses.
      {{"--version"}, 0, "vorlenctl 0.", ""},
      {{"--help"}, 0, "3  vorlend is not running", ""},
      {{"search", "--help"}, 0, "--json[=pretty|short]", ""},
      {{"defaults", "write", "--help"}, 0, "--socket PATH", ""},
      {{"stats", "--help"}, 0, "--id ID", ""},
      // Empty results are results.
      {{"stats"}, 0, "no counters saved yet", ""},
      {{"--json", "stats"}, 0, "[]", ""},
      {{"defaults", "read", "no.such.domain"}, 1, "", "the domain no.such.domain does not exist"},
      {{"defaults", "write", "com.velmo.vorlend", "VORBagURL", "http://127.0.0.1:9/bag"},
       0,
       "fetches the bag from the new URL when it next checks its bag",
       ""},
      // Bad usage: 2, and the unknown word named.
      {{"frobnicate"}, 2, "", "unknown command: frobnicate"},
      {{"--socket", "/x", "frobnicate", "status"}, 2, "", "unknown command: frobnicate"},
      {{"--json=long", "status"}, 2, "", "--json"},
      {{}, 2, "", "A subcommand is required"},
      {{"search"}, 2, "", "search needs TEXT"},
      {{"defaults", "write", "dom", "key"}, 2, "", "VALUE"},
      {{"defaults", "write", "dom", "key", "abc", "--type", "int"}, 2, "", "is not a signed 64-bit integer"},
      {{"defaults", "write", "dom", "key", "1", "--type", "colour"}, 2, "", "colour"},
      {{"defaults", "read", "../escape", "key"}, 2, "", "invalid domain"},
      {{"report", "not json"}, 2, "", "must be a JSON object"},
      {{"report", R"({"$class": "QXStartSearchFeedback", "noSuchField": 1})"}, 2, "", "bad event"},
      {{"report", R"({"$class": "VORError", "domain": "d", "code": 1})"}, 2, "", "bad event"},
      {{"--timeout", "-1", "status"}, 2, "", "--timeout"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    Run r = run(row.args);
    EXPECT_EQ(r.status, row.status) << r.err;
    if (row.out.empty())
      EXPECT_EQ(r.out, "");
    else
      EXPECT_NE(r.out.find(row.out), std::string::npos) << r.out;
    if (row.err.empty())
      EXPECT_EQ(r.err, "");
    else
      EXPECT_NE(r.err.find(row.err), std::string::npos) << r.err;
  }
}

TEST_F(VorlenctlTest, DefaultsWriteReadDeleteRoundTrip) {
  const std::string domain = "com.velmo.vorlend";
  EXPECT_EQ(run({"defaults", "write", domain, "VORPersistSessions", "yes", "--type", "bool"}).status, 0);
  EXPECT_EQ(run({"defaults", "write", domain, "VORScreenScale", "2.5", "--type", "real"}).status, 0);
  EXPECT_EQ(run({"defaults", "write", domain, "VORCountryCode", "FR"}).status, 0);
  EXPECT_EQ(run({"defaults", "write", domain, "VORBig", "18446744073709551615", "--type", "uint"}).status, 0);

  // What the daemon's own Preferences reads from the file.
  std::filesystem::path config = dir / "config" / "vorlend";
  Preferences prefs(config, domain);
  EXPECT_TRUE(prefs.boolForKey("VORPersistSessions"));
  EXPECT_EQ(prefs.object("VORScreenScale"), Value(2.5));
  EXPECT_EQ(prefs.stringForKey("VORCountryCode"), "FR");
  EXPECT_EQ(prefs.unsignedForKey("VORBig"), UINT64_MAX);
  EXPECT_EQ(fileMode(config / (domain + ".plist")), 0600u);

  Run read = run({"defaults", "read", domain, "VORCountryCode"});
  EXPECT_EQ(read.status, 0);
  EXPECT_EQ(read.out, "FR\n");
  Run json = run({"--json", "defaults", "read", domain, "VORScreenScale"});
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(json.out, "2.5\n");

  EXPECT_EQ(run({"defaults", "delete", domain, "VORCountryCode"}).status, 0);
  Run gone = run({"defaults", "read", domain, "VORCountryCode"});
  EXPECT_EQ(gone.status, 1);
  EXPECT_NE(gone.err.find("no key \"VORCountryCode\""), std::string::npos) << gone.err;
  EXPECT_EQ(run({"defaults", "delete", domain, "VORCountryCode"}).status, 1);
  EXPECT_TRUE(Preferences(config, domain).boolForKey("VORPersistSessions"));  // the rest is kept
}

TEST_F(VorlenctlTest, StatsReadsTheSavedCounters) {
  std::filesystem::create_directories(dir / "cache" / "com.velmo.vorlend");
  auto bytes = Archive::encodeBinary(Value::dict({{"com.velmo.vorlend.clientconnection", 3}}));
  writeFile(dir / "cache" / "com.velmo.vorlend" / "counters.plist", std::string(bytes.begin(), bytes.end()));
  Run r = run({"stats"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "com.velmo.vorlend.clientconnection 3\n");
  EXPECT_EQ(run({"--json=short", "stats"}).out,
            R"({"counter":"com.velmo.vorlend.clientconnection","value":3})"
            "\n");
}

TEST_F(VorlenctlTest, CompletionsAddLookUpAndClearTheLocalHistory) {
  Run none = run({"completions", "lookup", "new"});
  EXPECT_EQ(none.status, 0) << none.err;
  EXPECT_EQ(none.out, "no local completion for \"new\" (client 1)\n");

  Run added = run({"completions", "add", "new york marathon", "--input", "new y"});
  EXPECT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.out, "recorded \"new york marathon\" for input \"new y\" (client 1, origin 1)\n");
  EXPECT_EQ(fileMode(dir / "cache" / "com.velmo.vorlend" / "EngagedCompletions" / "Cache.db"), 0600u);

  // Matched on the stored input as well as the completion, ignoring ASCII case; histories are per client.
  Run found = run({"--json", "completions", "lookup", "NEW Y"});
  EXPECT_EQ(found.status, 0) << found.err;
  auto doc = nlohmann::json::parse(found.out);
  EXPECT_EQ(doc["completion"], "new york marathon");
  EXPECT_EQ(doc["type"], 1);
  EXPECT_GT(doc["score"].get<double>(), 10.0);  // an engagement within the hour, plus the recency term
  EXPECT_EQ(run({"completions", "lookup", "new", "--client", "search"}).out,
            "no local completion for \"new\" (client 2)\n");

  EXPECT_EQ(run({"completions", "clear"}).status, 0);
  EXPECT_EQ(run({"completions", "lookup", "new"}).out, "no local completion for \"new\" (client 1)\n");

  // Switched off by the daemon's preference: refused, and said why.
  Preferences(dir / "config" / "vorlend", "com.velmo.vorlend").set("VORDisableLocalCompletions", Value(true));
  Run off = run({"completions", "add", "x"});
  EXPECT_EQ(off.status, 1);
  EXPECT_NE(off.err.find("local completions are switched off"), std::string::npos) << off.err;
  EXPECT_EQ(run({"completions", "add", "x", "--client", "tablet"}).status, 2);
}

class VorlenctlWithPeerTest : public VorlenctlTest {
 protected:
  std::shared_ptr<IpcRuntime> runtime = IpcRuntime::create();
  ScriptedDaemon daemon{socket, dir.path(), runtime};
};

TEST_F(VorlenctlWithPeerTest, DaemonCommandsPrintAnswersAndMapErrors) {
  Run status = run({"status"});
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_NE(status.out.find("socket: " + socket.string()), std::string::npos) << status.out;

  Run bag = run({"bag"});
  EXPECT_EQ(bag.status, 0) << bag.err;
  EXPECT_EQ(bag.out, "version: 42\n2 keys\n");

  daemon.script("request:reply:", {Value(5), Value(), VORError::make(500, "service failure").toRecord()});
  Run failed = run({"search", "weather"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_NE(failed.err.find("error 500 (VORErrorDomain): service failure"), std::string::npos) << failed.err;

  // No reply and no error (a query below the minimum length): an empty answer.
  daemon.script("request:reply:", {Value(6), Value(), Value()});
  Run empty = run({"search", "w"});
  EXPECT_EQ(empty.status, 0) << empty.err;
  EXPECT_EQ(empty.out, "query 6: no results\n");

  daemon.script("listSessions:", {Value("not an array")});
  EXPECT_EQ(run({"sessions"}).status, 1);

  daemon.neverAnswer("bag:");
  Run slow = run({"--timeout", "0.2", "bag"});
  EXPECT_EQ(slow.status, 3);
  EXPECT_NE(slow.err.find("timed out after 0.2 s"), std::string::npos) << slow.err;

  // Every run configured its connection first, with the tool's identity.
  for (const ScriptedDaemon::Call& c : daemon.calls()) {
    if (c.op != "configure:reply:") continue;
    EXPECT_EQ(*c.args[0].find("identifier"), Value("com.velmo.vorlenctl"));
    EXPECT_EQ(*c.args[0].find("userAgent"), Value("vorlenctl/1.0"));
  }
  EXPECT_EQ(daemon.opsOn(0), (std::vector<std::string>{"configure:reply:"}));
  EXPECT_EQ(daemon.opsOn(1), (std::vector<std::string>{"configure:reply:", "bag:"}));
}

TEST_F(VorlenctlWithPeerTest, ResourcesListAndGetStreamTheDescriptorTheDaemonPasses) {
  writeFile(dir / "held", std::string("allow-list\0bytes", 16));
  daemon.serveResource(dir / "held");
  Preferences(dir / "config" / "vorlend", "com.velmo.vorlend")
      .set("download_resources",
           Value(Value::Dict{
               {"installed_app_whitelist", Value::dict({{"url", "https://r.example/a?version=7"}})}}));

  Run get = run({"resources", "get", "installed_app_whitelist"});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(get.out, std::string("allow-list\0bytes", 16));

  Run list = run({"--json", "resources"});
  ASSERT_EQ(list.status, 0) << list.err;
  nlohmann::json listed = nlohmann::json::parse(list.out);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0]["identifier"], "installed_app_whitelist");
  EXPECT_EQ(listed[0]["version"], "7");
  EXPECT_EQ(listed[0]["url"], "https://r.example/a?version=7");
  EXPECT_EQ(listed[0]["stored"], true);

  daemon.serveResource({});
  Run missing = run({"resources", "get", "installed_app_whitelist"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "");
  EXPECT_NE(missing.err.find("no resource installed_app_whitelist"), std::string::npos) << missing.err;
}

TEST_F(VorlenctlWithPeerTest, SearchAndReportSendWellFormedRecords) {
  Run search = run({"--json", "search", "weather"});
  EXPECT_EQ(search.status, 0) << search.err;
  EXPECT_NE(search.out.find("\"body\": \"ok\""), std::string::npos) << search.out;

  Run report =
      run({"report", "--query-id", "7",
           R"({"$class": "QXStartSearchFeedback", "input": "wea", "queryId": 7, "triggerEvent": 2})"});
  EXPECT_EQ(report.status, 0) << report.err;
  std::optional<ScriptedDaemon::Call> event;
  std::shared_ptr<VORRequest> request;
  for (const ScriptedDaemon::Call& c : daemon.calls()) {
    if (c.op == "reportEvent:queryId:feedback:") event = c;
    if (c.op == "request:reply:") request = VORRequest::fromRecord(c.args[0]);
  }
  ASSERT_TRUE(request);
  EXPECT_EQ(request->className(), std::string("VORSearchRequest"));
  EXPECT_EQ(request->queryString, "weather");
  EXPECT_GT(request->queryId, 0u);
  ASSERT_TRUE(event);
  EXPECT_EQ(event->args[1], Value(7));
  std::optional<QXFeedback> feedback = QXFeedback::fromRecord(event->args[2]);
  ASSERT_TRUE(feedback);
  EXPECT_EQ(feedback->className(), "QXStartSearchFeedback");
  EXPECT_EQ(feedback->string("input"), "wea");
  EXPECT_GT(feedback->timestamp(), 0u);
}

}  // namespace
}  // namespace vorlen::test
