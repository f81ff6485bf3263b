// The real vorlend, driven over its socket: bad input hurts only the connection that sent it, and known
// clients survive a restart when persistence is on.
#include <gtest/gtest.h>
#include <signal.h>

#include "base/Archive.h"
#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "ipc/IpcTestSupport.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"
#include "support/DaemonProcess.h"

namespace vorlen {
namespace {

using namespace std::chrono_literals;

class ServiceProcessTest : public ::testing::Test {
 protected:
  std::map<std::string, std::string> environment() const {
    auto env = test::privateDaemonEnvironment(dir.path());
    env["VORLEND_LOG_LEVEL"] = "debug";
    return env;
  }
  std::filesystem::path socket() const { return dir / "vorlend.sock"; }

  std::unique_ptr<test::ChildProcess> startDaemon() {
    auto daemon = std::make_unique<test::ChildProcess>(test::builtProgram("vorlend"),
                                                       std::vector<std::string>{}, environment(), dir.path());
    EXPECT_TRUE(daemon->waitForOutput("vorlend started", 20s)) << daemon->stderrText();
    return daemon;
  }

  std::shared_ptr<IpcConnection> connect() {
    std::string error;
    auto c = IpcConnection::connect(socket(), {}, &error);
    EXPECT_TRUE(c) << error;
    if (c) c->resume();
    return c;
  }

  static std::optional<Value::Array> call(const std::shared_ptr<IpcConnection>& c, std::string op,
                                          Value::Array args, std::chrono::milliseconds wait = 20s) {
    return test::callAndWait(c, std::move(op), std::move(args), wait);
  }

  static Value configuration(std::string identifier, std::string agent) {
    VORSessionConfiguration c;
    c.identifier = std::move(identifier);
    c.userAgent = std::move(agent);
    return c.toRecord();
  }

  test::TempDir dir;
};

TEST_F(ServiceProcessTest, BadInputClosesOnlyItsOwnConnection) {
  auto daemon = startDaemon();
  auto good = connect();
  ASSERT_TRUE(call(good, "configure:reply:", {configuration("com.example.browser", "Browser/1")}));

  // One bad frame end to end (the transport's table of them is in the IPC tests).
  test::RawClient bad(socket());
  ASSERT_TRUE(bad.connected());
  ASSERT_TRUE(bad.write(test::frameHeader(0xFFFFFFF0u)));
  EXPECT_TRUE(bad.waitForClose());

  // Ill-typed calls are ignored and leave the connection open.
  auto sloppy = connect();
  ASSERT_TRUE(call(sloppy, "configure:reply:", {configuration("com.example.sloppy", "Sloppy/1")}));
  EXPECT_EQ(test::answeredBefore(sloppy,
                                 {{"listSessions:", {Value("extra")}},
                                  {"addCompletion:forInput:", {Value(1), Value(2)}},
                                  {"request:reply:", {Value::record("VORTeleportRequest")}},
                                  {"noSuchOperation:", {}}},
                                 {"listSessions:", {}}),
            0u);
  EXPECT_TRUE(call(good, "listSessions:", {}));

  ASSERT_TRUE(daemon->signal(SIGTERM));
  EXPECT_EQ(daemon->wait(20s), 0);
  std::string log = daemon->stderrText();
  for (const char* text : {"frame length 4294967280 exceeds", "VORTeleportRequest", "noSuchOperation:"}) {
    EXPECT_NE(log.find(text), std::string::npos) << text << "\n" << log;
  }
}

// With persistence on, a client is on disk before its configuration is answered: a daemon killed right
// after the answers loses none of them. Configuring a known client again does not rewrite the file.
TEST_F(ServiceProcessTest, KnownClientsAreOnDiskBeforeTheirConfigurationIsAnswered) {
  const auto config = dir / "config" / "vorlend";
  std::filesystem::create_directories(config);
  Preferences(config, "com.velmo.vorlend").set("VORPersistSessions", Value(true));
  constexpr int kClients = 20;

  auto daemon = startDaemon();
  for (int i = 0; i < kClients; ++i) {
    auto c = connect();
    ASSERT_TRUE(call(c, "configure:reply:", {configuration("com.example.app" + std::to_string(i), "App/1")}));
  }
  ASSERT_TRUE(daemon->signal(SIGKILL));
  ASSERT_TRUE(daemon->wait(20s));

  daemon = startDaemon();
  auto c = connect();
  // No configuration on this connection: the states listed were loaded at start-up.
  auto sessions = call(c, "listSessions:", {});
  ASSERT_TRUE(sessions);
  ASSERT_EQ(sessions->at(0).getArray()->size(), size_t{kClients});
  const Value& entry = sessions->at(0).getArray()->at(0);
  EXPECT_TRUE(entry.find("identifier")->getString()->starts_with("com.example.app"));
  EXPECT_TRUE(entry.find("agent")->getString()->ends_with(") App/1"));
  const auto file = config / "com.velmo.vorlend.plist";
  EXPECT_EQ(test::fileMode(file), 0600u);

  const auto written = std::filesystem::last_write_time(file);
  const auto inode = test::fileInode(file);
  ASSERT_TRUE(call(c, "configure:reply:", {configuration("com.example.app0", "App/1")}));
  ASSERT_TRUE(daemon->signal(SIGTERM));
  ASSERT_EQ(daemon->wait(20s), 0);
  EXPECT_EQ(std::filesystem::last_write_time(file), written);
  EXPECT_EQ(test::fileInode(file), inode);
}

TEST_F(ServiceProcessTest, ClientLibraryConfiguresAsksAndReconnectsAfterARestart) {
  auto daemon = startDaemon();
  VorlenClientOptions options;
  options.socketPath = socket();
  auto client = VorlenClient::create(options);
  auto bagOutcomes = std::make_shared<test::Inbox<std::optional<VORError>>>();
  client->onBagDidLoad(
      [bagOutcomes](std::optional<VORBag>, std::optional<VORError> e) { bagOutcomes->put(e); });

  VORSessionConfiguration configuration;
  configuration.identifier = "com.example.browser";
  configuration.userAgent = "Browser/2";
  auto endpoint = client->configure(configuration);
  ASSERT_TRUE(endpoint.ok()) << endpoint.errorText();
  ASSERT_TRUE(bagOutcomes->waitFor(1));
  EXPECT_EQ(bagOutcomes->items()[0]->reason(), "timeout");  // no bag can be had in this daemon yet

  VORSearchRequest search;
  search.queryId = 3;
  search.queryString = "weather";
  auto answer = client->request(search);
  ASSERT_TRUE(answer.ok()) << answer.errorText();
  EXPECT_EQ(answer.value->queryId, 3u);
  ASSERT_TRUE(answer.value->error);
  EXPECT_EQ(answer.value->error->code, 1);

  VORCardRequest card;
  card.queryId = 4;
  auto viaEndpoint = client->requestViaEndpoint(*endpoint.value, card, configuration);
  ASSERT_TRUE(viaEndpoint.ok()) << viaEndpoint.errorText();
  EXPECT_EQ(viaEndpoint.value->queryId, 4u);

  // The daemon goes away and comes back: the next call reconnects and configures again first.
  ASSERT_TRUE(daemon->signal(SIGTERM));
  ASSERT_EQ(daemon->wait(20s), 0);
  daemon = startDaemon();
  auto sessions = client->listSessions();
  ASSERT_TRUE(sessions.ok()) << sessions.errorText();
  ASSERT_EQ(sessions.value->size(), 1u);
  EXPECT_EQ(sessions.value->at(0).identifier, "com.example.browser");

  // A configuration the daemon could not use is refused by the library before it is sent; sent anyway,
  // the daemon closes the connection without an answer.
  auto other = VorlenClient::create(options);
  configuration.userAgent = "";
  auto refused = other->configure(configuration);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error->kind, ClientError::Kind::InvalidArgument);
  auto raw = connect();
  auto closed = std::make_shared<std::atomic<bool>>(false);
  raw->setInvalidationHandler([closed] { *closed = true; });
  auto replies = std::make_shared<test::Inbox<Value::Array>>();
  raw->call("configure:reply:", {configuration.toRecord()},
            [replies](const IpcMessage& m) { replies->put(m.args()); });
  EXPECT_TRUE(test::eventually([&] { return closed->load(); }));
  EXPECT_EQ(replies->size(), 0u);
  EXPECT_TRUE(daemon->waitForOutput("invalid configuration, closing connection", 20s));
}

}  // namespace
}  // namespace vorlen
