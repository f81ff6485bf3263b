// The flusher endpoint of the daemon's object graph on a manual clock, against the reference service, with
// tools connected over the real endpoint socket: unsupported intents, the dump, the stop of scheduled
// flushing, the shared session, and a tool that never reads.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include <nlohmann/json.hpp>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "client/VorlenFlusherClient.h"
#include "daemon/Daemon.h"
#include "daemon/DaemonFixture.h"
#include "feedback/ClientSessionManager.h"
#include "ipc/IpcFraming.h"
#include "ipc/IpcTestSupport.h"
#include "model/QXFeedback.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"
#include "storage/BackgroundActivitiesManager.h"
#include "storage/BackgroundFlusher.h"
#include "storage/PersistentStorage.h"
#include "storage/UploadManager.h"
#include "support/Deflate.h"
#include "support/Eventually.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/FeedbackInbox.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using Intent = VorlenFlusherClient::Intent;

// A tool on the flusher endpoint that records what the daemon calls. The record is shared with the
// handlers, which may still run while the tool goes away.
class Tool {
 public:
  explicit Tool(const IpcEndpoint& endpoint) {
    VorlenFlusherClient::Handlers h;
    h.flushedData = [state = state_](std::vector<Value::Data> payloads) {
      std::lock_guard lock(state->mu);
      for (auto& p : payloads) state->payloads.push_back(std::move(p));
    };
    h.receivedFeedbackDescription = [state = state_](const std::string& d) {
      std::lock_guard lock(state->mu);
      state->descriptions.push_back(d);
    };
    h.workDone = [state = state_] {
      std::lock_guard lock(state->mu);
      ++state->workDone;
    };
    std::string error;
    client = VorlenFlusherClient::connect(endpoint, std::move(h), &error);
    EXPECT_TRUE(client) << error;
  }
  // The inflated session records received on the sending stream, but the daemon's own (its bag fetches).
  std::vector<nlohmann::json> records() const {
    std::lock_guard lock(state_->mu);
    std::vector<nlohmann::json> out;
    for (const auto& p : state_->payloads) {
      auto record = nlohmann::json::parse(test::inflateRaw(p).value_or("null"));
      if (!record.value("agent", "").ends_with(") Vorlend/1.0")) out.push_back(std::move(record));
    }
    return out;
  }
  std::vector<std::string> descriptions() const {
    std::lock_guard lock(state_->mu);
    return state_->descriptions;
  }
  size_t workDone() const {
    std::lock_guard lock(state_->mu);
    return state_->workDone;
  }
  bool intentAndWaitForWorkDone(uint64_t intent) {
    const size_t before = workDone();
    return client->initiateConnectionWithIntent(intent) &&
           test::eventually([&] { return workDone() > before; });
  }

 private:
  struct State {
    std::mutex mu;
    std::vector<Value::Data> payloads;
    std::vector<std::string> descriptions;
    size_t workDone = 0;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();

 public:
  std::shared_ptr<VorlenFlusherClient> client;
};

class FlusherEndpointTest : public test::DaemonFixture {
 protected:
  void startDaemon(bool sharedSession = true) { DaemonFixture::startDaemon(sharedSession); }
  IpcEndpoint flusherEndpoint(VorlenClient& client) {
    auto endpoint = client.listenToFlusher();
    EXPECT_TRUE(endpoint.ok());
    return endpoint.ok() ? *endpoint.value : IpcEndpoint{};
  }
  static void reportStart(VorlenClient& client, uint64_t id, const std::string& input) {
    QXFeedback start("QXStartSearchFeedback");
    start.set("queryId", Value(id));
    start.set("input", Value(input));
    ASSERT_TRUE(client.reportEvent("start", id, start.toRecord()).ok());
  }
  size_t dumpFlushLines() {
    size_t n = 0;
    for (const LogRecord& r : capture.sink().records())
      n += r.message.starts_with("session flushed because of dump command");
    return n;
  }
  // Whether a session file waiting in storage holds `marker` (its bytes, not decoded).
  bool storedHolding(const std::string& marker) {
    for (const auto& entry : std::filesystem::directory_iterator(platform.paths.cachesDir))
      if (entry.path().filename().string().starts_with("session.") &&
          test::readFile(entry.path()).find(marker) != std::string::npos)
        return true;
    return false;
  }
  // Ends the open session(s) of the shared manager and waits until the file holding `marker` is stored.
  void endSharedSession(const std::string& marker) {
    std::atomic<bool> done{false};
    std::dynamic_pointer_cast<ClientSessionManager>(assembly->clientSessionManager)->flushSession([&] {
      done = true;
    });
    ASSERT_TRUE(test::eventually([&] { return done.load(); }));
    ASSERT_TRUE(test::eventually([&] { return storedHolding(marker); }));
  }
  void dumpWithTwoClients(bool shared);

  ScopedLogCapture capture;
};

TEST_F(FlusherEndpointTest, AnUnsupportedIntentIsLoggedAndChangesNothing) {
  startDaemon();
  auto browser = connectClient("com.example.browser", "Voyant/5.0");
  Tool tool(flusherEndpoint(*browser));
  ASSERT_TRUE(tool.client->initiateConnectionWithIntent(7));
  ASSERT_TRUE(test::eventually([&] { return capture.sink().contains("Unsupported command yet: 7"); }));
  EXPECT_FALSE(assembly->backgroundFlusher->stopFlushing());
  // Not a listener of either stream: a stored session drained now reaches the server, not the tool.
  reportStart(*browser, 1, "seven");
  endSharedSession("seven");
  std::atomic<bool> drained{false};
  assembly->backgroundFlusher->insertFlushActivity([&] { drained = true; });
  ASSERT_TRUE(test::eventually([&] { return drained.load(); }));
  ASSERT_TRUE(test::eventually([&] { return !server.feedbackInbox().received().empty(); }));
  EXPECT_TRUE(tool.records().empty());
  EXPECT_TRUE(tool.descriptions().empty());
  EXPECT_EQ(tool.workDone(), 0u);
}

TEST_F(FlusherEndpointTest, TheReceivingListenerGetsEachEventAsTheClientReportedIt) {
  startDaemon();
  auto browser = connectClient("com.example.browser", "Voyant/5.0");
  Tool first(flusherEndpoint(*browser));
  Tool second(flusherEndpoint(*browser));
  ASSERT_TRUE(first.client->initiateConnectionWithIntent(Intent::kReceivingStream));
  ASSERT_TRUE(test::eventually([&] {
    return test::countLogLines(capture.sink(), LogLevel::Default, "new listener for client feedbacks") == 1;
  }));
  reportStart(*browser, 3, "first");
  ASSERT_TRUE(test::eventually([&] { return first.descriptions().size() == 1; }));
  auto event = nlohmann::json::parse(first.descriptions()[0]);
  EXPECT_EQ(event["type"], "search_start");
  EXPECT_EQ(event["input"], "first");
  EXPECT_EQ(event["query_id"], 3);
  EXPECT_TRUE(event["agent"].get<std::string>().ends_with(") Voyant/5.0")) << event.dump();
  // A later tool replaces the earlier one.
  ASSERT_TRUE(second.client->initiateConnectionWithIntent(Intent::kReceivingStream));
  ASSERT_TRUE(test::eventually([&] {
    return test::countLogLines(capture.sink(), LogLevel::Default, "new listener for client feedbacks") == 2;
  }));
  reportStart(*browser, 4, "second");
  ASSERT_TRUE(test::eventually([&] { return second.descriptions().size() == 1; }));
  EXPECT_EQ(first.descriptions().size(), 1u);
}

TEST_F(FlusherEndpointTest, ADumpBeforeAnyListenerMakesTheDumpingToolTheSendingListenerAndDrainsStorage) {
  startDaemon();
  auto browser = connectClient("com.example.browser", "Voyant/5.0");
  reportStart(*browser, 1, "dump me");
  ASSERT_TRUE(test::eventually([&] {
    return !assembly->clientSessionManager->currentSessionFeedbacksWithRelativeTimestamp().empty();
  }));
  Tool tool(flusherEndpoint(*browser));
  ASSERT_TRUE(tool.intentAndWaitForWorkDone(Intent::kDump));
  EXPECT_TRUE(capture.sink().contains("no listener for sending stream setting this client as remote"));
  EXPECT_EQ(dumpFlushLines(), 1u);
  EXPECT_FALSE(storedHolding("dump me"));
  // The payload the tool got is the record the server received.
  std::vector<nlohmann::json> records = tool.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_NE(records[0].dump().find("dump me"), std::string::npos);
  EXPECT_EQ(records[0]["fb"].back().value("type", ""), "session_end");
  ASSERT_TRUE(assembly->uploadManager->waitForUploadsToEnd(std::chrono::seconds(30)));
  auto received = server.feedbackInbox().received();
  std::erase_if(received, [](const FeedbackInbox::Received& r) {
    return r.record.value("agent", "").ends_with(") Vorlend/1.0");
  });
  ASSERT_EQ(received.size(), 1u);
  EXPECT_TRUE(received[0].valid) << received[0].reason;
  EXPECT_EQ(nlohmann::json::parse(received[0].record.dump()), records[0]);
}

TEST_F(FlusherEndpointTest, AfterAStopScheduledRunsDoNothingUntilADumpCompletes) {
  startDaemon();
  auto browser = connectClient("com.example.browser", "Voyant/5.0");
  Tool tool(flusherEndpoint(*browser));
  ASSERT_TRUE(tool.intentAndWaitForWorkDone(Intent::kStopFlushing));
  EXPECT_TRUE(assembly->backgroundFlusher->stopFlushing());
  reportStart(*browser, 1, "held back");
  endSharedSession("held back");
  advanceTo(300);
  advanceTo(900);
  EXPECT_EQ(capture.sink().count("flushing has been stopped, will start again with dump command"), 2u);
  EXPECT_TRUE(storedHolding("held back"));
  for (const auto& r : server.feedbackInbox().received())
    EXPECT_EQ(r.record.dump().find("held back"), std::string::npos);
  // A tool that goes away does not lift the stop.
  tool.client->close();
  ASSERT_TRUE(test::eventually([&] { return capture.sink().contains("Removed remote listener"); }));
  EXPECT_TRUE(assembly->backgroundFlusher->stopFlushing());

  Tool dumper(flusherEndpoint(*browser));
  ASSERT_TRUE(dumper.intentAndWaitForWorkDone(Intent::kDump));
  EXPECT_FALSE(assembly->backgroundFlusher->stopFlushing());
  EXPECT_FALSE(storedHolding("held back"));
  // The 900 s also closed the browser's idle connection, which the shared session recorded.
  std::string dumped;
  for (const auto& r : dumper.records()) dumped += r.dump();
  EXPECT_NE(dumped.find("held back"), std::string::npos);
  // Scheduled runs drain again.
  reportStart(*browser, 2, "after the dump");
  endSharedSession("after the dump");
  advanceTo(1500);
  advanceTo(2100);
  EXPECT_TRUE(test::eventually([&] { return !storedHolding("after the dump"); }));
}

// Two clients with one event each; a dump; what the dump flushed.
void FlusherEndpointTest::dumpWithTwoClients(bool shared) {
  startDaemon(shared);
  auto browser = connectClient("com.example.browser", "Voyant/5.0");
  auto news = connectClient("com.example.news", "Vesper/2.0");
  reportStart(*browser, 1, "browser");
  reportStart(*news, 1, "news");
  // Sent is not arrived: each client's open session must hold its event before the dump.
  for (auto* client : {browser.get(), news.get()}) {
    ASSERT_TRUE(test::eventually([&] {
      auto current = client->feedback();
      return current.ok() && !current.value->events.empty();
    }));
  }
  Tool tool(flusherEndpoint(*browser));
  // One workDone per flushed connection.
  ASSERT_TRUE(tool.intentAndWaitForWorkDone(Intent::kDump));
  if (!shared) {
    ASSERT_TRUE(test::eventually([&] { return tool.workDone() == 2; }));
  }
  EXPECT_EQ(dumpFlushLines(), shared ? 1u : 2u);
  // Either way every event is in what the tool received: the shared session holds both clients'.
  std::string all;
  ASSERT_TRUE(test::eventually([&] {
    all.clear();
    for (const auto& r : tool.records()) all += r.dump();
    return all.find("browser") != std::string::npos && all.find("news") != std::string::npos;
  }));
  // A shared session keeps one session file per agent.
  EXPECT_EQ(tool.records().size(), 2u);
}

TEST_F(FlusherEndpointTest, WithASharedSessionADumpFlushesOnlyTheFirstConnection) {
  dumpWithTwoClients(true);
}

TEST_F(FlusherEndpointTest, WithIndividualSessionsADumpFlushesEveryConnection) {
  dumpWithTwoClients(false);
}

// Percentile of search round trips, in microseconds.
double p99(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return samples[samples.size() * 99 / 100];
}

TEST_F(FlusherEndpointTest, AToolThatNeverReadsDoesNotDelaySearchesAndIsCutOff) {
  startDaemon();
  auto browser = connectClient("com.example.browser", "Voyant/5.0");
  auto reporter = connectClient("com.example.news", "Vesper/2.0");
  uint64_t queryId = 0;
  auto cacheHitSearches = [&](int n) {
    std::vector<double> micros;
    for (int i = 0; i < n; ++i) {
      VORSearchRequest search;
      search.queryId = ++queryId;
      search.queryString = "weather";
      auto t0 = std::chrono::steady_clock::now();
      EXPECT_TRUE(browser->request(search).ok());
      micros.push_back(
          std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
    }
    return micros;
  };
  cacheHitSearches(20);  // the first fills the cache
  // Another client reports large events all along, so that both rounds of searches share the same load
  // and the tool's socket fills once it stops reading.
  std::atomic<bool> stop{false};
  std::thread events([&] {
    const std::string big(16 * 1024, 'x');
    for (uint64_t i = 1; !stop.load(); ++i) {
      reportStart(*reporter, i, big);
      // A call with a reply every few events keeps the reporter's own unsent bytes bounded.
      if (i % 8 == 0) {
        ASSERT_TRUE(reporter->listSessions().ok());
      }
    }
  });
  const double without = p99(cacheHitSearches(300));

  // The tool asks for the receiving stream and never reads a byte.
  test::RawClient stalled(flusherEndpoint(*browser).path);
  ASSERT_TRUE(stalled.connected());
  ASSERT_TRUE(stalled.write(
      IpcFraming::encode(IpcMessage::call("initiateConnectionWithIntent:", {Value(1)}).toValue())));
  ASSERT_TRUE(test::eventually([&] {
    return test::countLogLines(capture.sink(), LogLevel::Default, "new listener for client feedbacks") > 0;
  }));
  const double with = p99(cacheHitSearches(300));
  ASSERT_TRUE(test::eventually([&] { return capture.sink().contains("Removed receiving stream listener"); }));
  stop = true;
  events.join();
  std::printf(
      "cache-hit search p99 under an event load: %.0f us without a tool, %.0f us with a tool that "
      "never reads\n",
      without, with);
  // Loose on purpose: the machine is shared; a search that waited for the tool would take seconds.
  EXPECT_LT(with, 3 * without + 10000);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "does not read"), 1u);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "receivedFeedbackDescription:"), 0u);
}

}  // namespace
}  // namespace vorlen
