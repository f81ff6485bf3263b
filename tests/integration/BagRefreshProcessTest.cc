// `vorlenctl bag --refresh` against the real vorlend and two reference services: after the bag URL
// preference names another service, the refresh fetches from it at once and the next search goes there;
// a refresh that fails says so and leaves the cached bag in use.
#include <gtest/gtest.h>
#include <signal.h>

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

// The issue a user meets: the bag URL changed while the daemon was stopped, and the restarted daemon
// serves its cached bag from the old service until a fetch from the new one succeeds.
TEST(BagRefreshProcessTest, RefreshFetchesFromTheNewBagURLAtOnceAndAFailedOneKeepsTheCachedBag) {
  test::TempDir dir;
  RefServer first, second;
  ASSERT_TRUE(first.start());
  ASSERT_TRUE(second.start());
  const auto env = test::privateDaemonEnvironment(dir.path());
  VorlenClientOptions options;
  options.socketPath = dir / "vorlend.sock";
  VORSessionConfiguration configuration;
  configuration.identifier = "com.example.browser";
  configuration.userAgent = "Voyant/5.0";
  auto startDaemon = [&] {
    auto daemon = std::make_unique<test::ChildProcess>(test::builtProgram("vorlend"),
                                                       std::vector<std::string>{}, env, dir.path());
    EXPECT_TRUE(daemon->waitForOutput("vorlend started", 20s)) << daemon->stderrText();
    return daemon;
  };
  auto connect = [&] {
    auto client = VorlenClient::create(options);
    EXPECT_TRUE(client->configure(configuration).ok());
    EXPECT_TRUE(test::eventually([&] {
      auto bag = client->bag();
      return bag.ok() && bag.value->bag.has_value();
    }));
    return client;
  };

  // A first run caches the first service's bag; the preference changes while no daemon runs (so no
  // write of the daemon's own can cross it).
  {
    Preferences defaults(dir / "config" / "vorlend", "com.velmo.vorlend");
    ASSERT_TRUE(defaults.set("VORBagURL", Value(first.baseURL() + "/bag")));
    auto daemon = startDaemon();
    connect();
    ASSERT_TRUE(daemon->signal(SIGTERM));
    ASSERT_EQ(daemon->wait(20s), 0);
    ASSERT_TRUE(defaults.set("VORBagURL", Value(second.baseURL() + "/bag")));
  }

  auto refresh = [&] {
    auto ctl = std::make_unique<test::ChildProcess>(
        test::builtProgram("vorlenctl"),
        std::vector<std::string>{"--json=short", "--socket", options.socketPath.string(), "bag", "--refresh"},
        env, dir.path());
    EXPECT_TRUE(ctl->wait(30s).has_value());
    return ctl;
  };

  // The new service fails: the refresh reports the fetch's error and the cached bag stays in use.
  RefServer::BagControl failing;
  failing.mode = RefServer::BagMode::Status;
  second.setBagControl(failing);
  auto daemon = startDaemon();
  auto client = connect();
  auto failed = refresh();
  EXPECT_EQ(failed->wait(0ms), 1) << failed->stderrText();
  EXPECT_NE(failed->stderrText().find("statusCode 503"), std::string::npos) << failed->stderrText();
  auto kept = client->bag();
  ASSERT_TRUE(kept.ok() && kept.value->bag);
  EXPECT_EQ(kept.value->bag->version(), "1");

  // The new service answers: the refresh prints the bag it installed, and searches go there at once.
  RefServer::BagControl answering;
  answering.version = "7";
  second.setBagControl(answering);
  auto refreshed = refresh();
  ASSERT_EQ(refreshed->wait(0ms), 0) << refreshed->stderrText();
  auto printed = nlohmann::json::parse(refreshed->stdoutText(), nullptr, false);
  ASSERT_TRUE(printed.is_object()) << refreshed->stdoutText();
  EXPECT_EQ(printed["bag"]["version"], "7");
  EXPECT_EQ(printed["bag"]["search_url"], second.baseURL() + "/search");

  VORSearchRequest search;
  search.queryId = 1;
  search.queryString = "we";
  auto answer = client->request(search);
  ASSERT_TRUE(answer.ok()) << answer.errorText();
  EXPECT_TRUE(answer.value->reply);
  EXPECT_EQ(second.requestCount("/search"), 1u);
  EXPECT_EQ(first.requestCount("/search"), 0u);
}

}  // namespace
}  // namespace vorlen
