#include "service/ClientConnection.h"

#include <fstream>
#include <future>
#include <thread>

#include <nlohmann/json.hpp>

#include "base/Counters.h"
#include "cache/CachedResultSet.h"
#include "cache/QueryCache.h"
#include "model/Constants.h"
#include "model/QXResultSection.h"
#include "model/QXSearchResult.h"
#include "model/VORRequest.h"
#include "network/BagController.h"
#include "service/ClientState.h"
#include "service/ServiceTestSupport.h"

namespace vorlen {
namespace {

using test::ServiceFixture;

class ClientConnectionTest : public ServiceFixture {};

Value searchRequest(uint64_t queryId, std::string text) {
  VORSearchRequest r;
  r.queryId = queryId;
  r.queryString = std::move(text);
  return r.toRecord();
}

TEST_F(ClientConnectionTest, ConfigureSendsTheBagOutcomeThenRepliesWithTheEndpoint) {
  // Calls and replies are served on the client's queue in the order they arrived: `arrivals` is the
  // order on the wire.
  auto calls = std::make_shared<test::Inbox<IpcMessage>>();
  auto arrivals = std::make_shared<test::Inbox<std::string>>();
  auto c = connect();
  c->setCallHandler([calls, arrivals](const IpcMessage& m, IpcReplier) {
    arrivals->put(m.op());
    calls->put(m);
  });
  auto replies = std::make_shared<test::Inbox<Value::Array>>();
  ASSERT_TRUE(c->call("configure:reply:", {configuration("com.example.browser", "Browser/3.1")},
                      [replies, arrivals](const IpcMessage& m) {
                        arrivals->put("reply");
                        replies->put(m.args());
                      }));
  ASSERT_TRUE(replies->waitFor(1));
  auto endpoint = IpcEndpoint::fromValue(replies->items()[0].at(0));
  ASSERT_TRUE(endpoint);
  EXPECT_EQ(endpoint, assembly->clientStateManager->endpoint());

  // No bag can be had in this object graph: the client heard the time-out error, before the reply.
  ASSERT_TRUE(arrivals->waitFor(2));
  EXPECT_EQ(arrivals->items(), (std::vector<std::string>{"bagDidLoad:error:", "reply"}));
  IpcMessage bagCall = calls->items()[0];
  EXPECT_EQ(bagCall.op(), "bagDidLoad:error:");
  EXPECT_TRUE(bagCall.arg(0).isNull());
  EXPECT_EQ(errorOf(bagCall.arg(1))->code, 1);

  // The client's agent gains the daemon's name and the device; an agent that has them stays as it is.
  auto sessions = call(c, "listSessions:", {});
  ASSERT_TRUE(sessions);
  const auto& list = *sessions->at(0).getArray();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(*list[0].find("identifier")->getString(), "com.example.browser");
  std::string agent = *list[0].find("agent")->getString();
  EXPECT_TRUE(agent.starts_with("Vorlend/1.0 (")) << agent;
  EXPECT_TRUE(agent.ends_with(") Browser/3.1")) << agent;

  auto again = connect();
  ASSERT_TRUE(call(again, "configure:reply:", {configuration("com.example.other", agent)}));
  auto both = call(again, "listSessions:", {});
  ASSERT_TRUE(both);
  EXPECT_EQ(*both->at(0).getArray()->at(1).find("agent")->getString(), agent);

  // Bag changes announced one after another reach the client in that order.
  for (int version = 2; version <= 6; ++version) {
    Notification n;
    n.name = kVORBagChangeNotification;
    n.userInfo = Value::dict(
        {{kVORBagKey, VORBag(Value::Dict{{"version", Value(std::to_string(version))}}, "").toRecord()}});
    assembly->notificationCenter->post(n);
  }
  ASSERT_TRUE(calls->waitFor(6));
  auto items = calls->items();
  for (int version = 2; version <= 6; ++version) {
    auto bag = VORBag::fromRecord(items[static_cast<size_t>(version - 1)].arg(0));
    ASSERT_TRUE(bag);
    EXPECT_EQ(bag->version(), std::to_string(version));
  }
}

// No bag is installed when a client configures, and the background fetch that this starts completes on
// its own thread while the client is still being answered.
class FetchWhileAnsweringBagController final : public BagController {
 public:
  explicit FetchWhileAnsweringBagController(std::shared_ptr<NotificationCenter> center)
      : center_(std::move(center)) {}
  ~FetchWhileAnsweringBagController() override { finish(); }
  void finish() {
    if (fetcher_.joinable()) fetcher_.join();
  }
  std::optional<VORBag> cachedBagState() override {
    std::lock_guard lock(mu_);
    return bag_;
  }
  std::optional<VORBag> currentBag() override {
    {
      std::lock_guard lock(mu_);
      if (bag_ || fetcher_.joinable()) return bag_;
    }
    // The fetch gets a moment to install and announce its bag before the caller learns there is none.
    auto announced = std::make_shared<std::promise<void>>();
    auto seen = announced->get_future();
    fetcher_ = std::thread([this, announced] {
      VORBag bag(Value::Dict{{"version", Value("7")}}, "");
      {
        std::lock_guard lock(mu_);
        bag_ = bag;
      }
      Notification n;
      n.name = kVORBagChangeNotification;
      n.userInfo = Value::dict({{kVORBagKey, bag.toRecord()}});
      center_->post(n);
      announced->set_value();
    });
    seen.wait_for(std::chrono::milliseconds(200));
    return std::nullopt;
  }
  std::optional<std::string> warmURL() override { return std::nullopt; }
  void forceFetchBag(const Value::Dict&) override {}
  std::string bagFetchURLWithCountry(const std::optional<std::string>&) const override { return ""; }

 private:
  std::shared_ptr<NotificationCenter> center_;
  std::mutex mu_;
  std::optional<VORBag> bag_;
  std::thread fetcher_;
};

class ClientConnectionBagRaceTest : public ServiceFixture {
 protected:
  void prepareAssembly() override {
    bags = std::make_shared<FetchWhileAnsweringBagController>(assembly->notificationCenter);
    assembly->bagController = bags;
  }
  void TearDown() override {
    ServiceFixture::TearDown();
    bags->finish();
  }
  std::shared_ptr<FetchWhileAnsweringBagController> bags;
};

// A bag installed between the state's "no bag yet" and the end of the configuration still reaches the
// client, after the time-out it was told first.
TEST_F(ClientConnectionBagRaceTest, ABagInstalledWhileTheClientIsAnsweredReachesIt) {
  auto calls = std::make_shared<test::Inbox<IpcMessage>>();
  auto c = connect(calls);
  ASSERT_TRUE(call(c, "configure:reply:", {configuration("com.example.browser", "Browser/3.1")}));
  ASSERT_TRUE(calls->waitFor(2));
  auto items = calls->items();
  EXPECT_EQ(errorOf(items[0].arg(1))->reason(), "timeout");
  ASSERT_EQ(items[1].op(), "bagDidLoad:error:");
  auto bag = VORBag::fromRecord(items[1].arg(0));
  ASSERT_TRUE(bag);
  EXPECT_EQ(bag->version(), "7");
  EXPECT_TRUE(items[1].arg(1).isNull());
}

TEST_F(ClientConnectionTest, AConfigurationThatLeavesNoStateClosesTheConnection) {
  for (auto [identifier, agent] : {std::pair{"com.example.app", ""}, std::pair{"", "App/1.0"}}) {
    ScopedLogCapture capture;
    auto c = connect();
    auto closed = std::make_shared<std::atomic<bool>>(false);
    c->setInvalidationHandler([closed] { *closed = true; });
    auto replies = std::make_shared<test::Inbox<Value::Array>>();
    c->call("configure:reply:", {configuration(identifier, agent)},
            [replies](const IpcMessage& m) { replies->put(m.args()); });
    EXPECT_TRUE(test::eventually([&] { return closed->load(); }));
    EXPECT_EQ(replies->size(), 0u);
    EXPECT_EQ(
        test::countLogLines(capture.sink(), LogLevel::Fault, "invalid configuration, closing connection"),
        1u);
    // An empty identifier is refused by the state manager, in its own words.
    const bool noIdentifier = std::string(identifier).empty();
    EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Fault,
                                  "client session identifier cannot be nil or empty"),
              noIdentifier ? 1u : 0u);
    EXPECT_EQ(
        test::countLogLines(capture.sink(), LogLevel::Fault, "configuration requires identifier and agent"),
        noIdentifier ? 0u : 1u);
  }
  // Each refusal left an error event with code 500 and its reason in the daemon's own name.
  auto events = sessions->feedbacks();
  ASSERT_EQ(events.size(), 2u);
  for (const auto& e : events) {
    EXPECT_EQ(e.feedback.className(), "QXErrorFeedback");
    auto error = e.feedback.record<VORError>("error");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 500);
    EXPECT_EQ(error->reason(), "invalid configuration");
    EXPECT_TRUE(e.userAgent.starts_with("Vorlend/1.0 (")) << e.userAgent;
  }
}

TEST_F(ClientConnectionTest, OnlyTheNewestSearchIsAnswered) {
  auto c = connect();
  ASSERT_TRUE(call(c, "configure:reply:", {configuration("com.example.browser", "Browser/3.1")}));

  auto five = call(c, "request:reply:", {searchRequest(5, "hel")});
  ASSERT_TRUE(five);
  EXPECT_EQ(five->at(0).getUInt(), 5u);
  EXPECT_EQ(errorOf(five->at(2))->reason(), "timeout");  // accepted, and answered by the state

  // Not newer than 5: answered at once, with neither reply nor error.
  for (uint64_t id : {4u, 5u}) {
    auto stale = call(c, "request:reply:", {searchRequest(id, "he")});
    ASSERT_TRUE(stale);
    EXPECT_EQ(stale->at(0).getUInt(), id);
    EXPECT_TRUE(stale->at(1).isNull());
    EXPECT_TRUE(stale->at(2).isNull());
  }
  // Other kinds have no ordering: an old query id still reaches the state.
  VORCardRequest card;
  card.queryId = 1;
  auto answered = call(c, "request:reply:", {card.toRecord()});
  ASSERT_TRUE(answered);
  EXPECT_TRUE(errorOf(answered->at(2)));

  // Every accepted search left its skip event, with the query ids the connection was given (the card,
  // unsendable without a bag, left a failed search of its own).
  std::vector<VorlenFeedback> skips;
  for (const auto& e : sessions->feedbacks()) {
    if (e.feedback.className() == "VORSkipSearchFeedback") skips.push_back(e);
  }
  ASSERT_EQ(skips.size(), 1u);
  EXPECT_EQ(skips[0].queryId, 5);
}

TEST_F(ClientConnectionTest, RequestsTheDaemonDoesNotServeAreNeverAnswered) {
  ScopedLogCapture capture;
  auto c = connect();
  const std::pair<std::string, Value::Array> barrier{"listSessions:", {}};
  // Before configuration nothing that needs a state is answered.
  EXPECT_EQ(test::answeredBefore(c, {{"request:reply:", {searchRequest(1, "a")}}}, barrier), 0u);
  ASSERT_TRUE(call(c, "configure:reply:", {configuration("com.example.browser", "Browser/3.1")}));

  Value bogus = Value::record("VORTeleportRequest");
  bogus.set("queryId", Value(uint64_t{2}));
  Value badField = searchRequest(3, "abc");
  badField.set("scale", Value("big"));
  EXPECT_EQ(test::answeredBefore(c,
                                 {{"request:reply:", {bogus}},
                                  {"request:reply:", {badField}},
                                  {"request:reply:", {Value("not a record")}}},
                                 barrier),
            0u);
  EXPECT_GE(test::countLogLines(capture.sink(), LogLevel::Error, "VORTeleportRequest"), 1u);
  EXPECT_TRUE(c->isValid());
}

TEST_F(ClientConnectionTest, SecondAndLaterConnectionsOfAProcessAreLoggedAndKept) {
  ScopedLogCapture capture;
  std::vector<std::shared_ptr<IpcConnection>> three = {connect(), connect(), connect()};
  for (auto& c : three) ASSERT_TRUE(call(c, "listSessions:", {}));
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "too many connections 2 from pid"), 1u);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "too many connections 3 from pid"), 1u);
  EXPECT_EQ(service->getClientConnections().size(), 3u);
}

TEST_F(ClientConnectionTest, IdleConnectionsAreClosedAndEveryMessageRestartsTheTimeout) {
  auto c = connect();
  auto closed = std::make_shared<std::atomic<bool>>(false);
  c->setInvalidationHandler([closed] { *closed = true; });
  ASSERT_TRUE(call(c, "configure:reply:", {configuration("com.example.browser", "Browser/3.1")}));

  clock->advance(seconds(59));
  ASSERT_TRUE(call(c, "listSessions:", {}));  // restarts the 60 s
  clock->advance(seconds(59));
  EXPECT_FALSE(closed->load());
  ASSERT_TRUE(c->isValid());
  clock->advance(seconds(2));
  EXPECT_TRUE(test::eventually([&] { return closed->load(); }));

  // The client's session heard of it with the client's agent, and the connection left the list.
  ASSERT_TRUE(sessions->invalidatedAgents.waitFor(1));
  EXPECT_TRUE(sessions->invalidatedAgents.items()[0].ends_with("Browser/3.1"));
  EXPECT_TRUE(test::eventually([&] { return service->getClientConnections().empty(); }));
}

// Two connections of one client share its state; when one of them ends, the state's query cache is
// emptied, so the other no longer hears answers cached for the connection that went away.
TEST_F(ClientConnectionTest, EndingAConnectionEmptiesItsStatesQueryCache) {
  auto first = connect();
  auto second = connect();
  for (auto& c : {first, second}) {
    ASSERT_TRUE(call(c, "configure:reply:", {configuration("com.example.browser", "Browser/3.1")}));
  }
  auto state = assembly->clientStateManager->stateForClientIdentifier("com.example.browser");
  ASSERT_TRUE(state && state->makeQueryCacheForTesting());
  state->queryCache()->set(
      std::make_shared<CachedResultSet>("wea", nullptr, nlohmann::json{{"query", "weather"}}, Uuid::random(),
                                        std::vector<uint8_t>{1}, clock->now()));
  ASSERT_TRUE(test::eventually([&] { return state->queryCache()->count() == 1u; }));

  first->invalidate();
  EXPECT_TRUE(test::eventually([&] { return service->getClientConnections().size() == 1u; }));
  EXPECT_TRUE(test::eventually([&] { return state->queryCache()->count() == 0u; }));
  EXPECT_FALSE(state->queryCache()->get("weather"));
  EXPECT_TRUE(call(second, "listSessions:", {}));  // the other connection is untouched
}

// Per-client counters carry the client the agent names, taken from the client's own part of the agent
// (the daemon's prefix names the daemon); an agent naming no known client counts nothing per client.
TEST_F(ClientConnectionTest, PerClientCountersAreNamedAfterTheClientTheAgentNames) {
  struct Case {
    std::string identifier, agent, shortName;
  };
  for (const Case& k : {Case{"com.example.messages", "Messages/2", "messages"},
                        Case{"com.example.news", "NewsReader/1 Voyant/5", "voyant"},
                        Case{"com.example.browser", "Browser/3.1", ""},
                        Case{"com.example.daemon", "Vorlend/1.0 (Dev; OS 1) Vorlend/1.0", "vorlend"}}) {
    SCOPED_TRACE(k.agent);
    auto c = connect();
    ASSERT_TRUE(call(c, "configure:reply:", {configuration(k.identifier, k.agent)}));
    auto state = assembly->clientStateManager->stateForClientIdentifier(k.identifier);
    ASSERT_TRUE(state);
    EXPECT_EQ(state->clientShortName(), k.shortName);
    ASSERT_TRUE(call(c, "request:reply:", {searchRequest(1, "hel")}));
    if (!k.shortName.empty()) {
      EXPECT_EQ(platform.counters->value("com.velmo.vorlend." + k.shortName + ".keystrokes"), 1);
    }
  }
  EXPECT_EQ(platform.counters->value("com.velmo.vorlend.unknown.keystrokes"), 0);
}

TEST_F(ClientConnectionTest, AConnectionThatNeverConfiguresIsClosedSoonAndItsFaultsAreWrittenOnce) {
  ScopedLogCapture capture;
  auto c = connect();
  auto closed = std::make_shared<std::atomic<bool>>(false);
  c->setInvalidationHandler([closed] { *closed = true; });
  for (uint64_t id = 1; id <= 50; ++id) ASSERT_TRUE(c->send("request:reply:", {searchRequest(id, "a")}));
  ASSERT_TRUE(call(c, "listSessions:", {}));  // served after all of them
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Fault, "configuration must not be nil"), 1u);

  // Messages do not keep it open: the configure time-out runs from the start, well before the idle one.
  clock->advance(seconds(9));
  ASSERT_TRUE(call(c, "listSessions:", {}));
  EXPECT_FALSE(closed->load());
  clock->advance(seconds(1));
  EXPECT_TRUE(test::eventually([&] { return closed->load(); }));
  EXPECT_TRUE(test::eventually([&] {
    return capture.sink().contains(LogLevel::Fault, "Vorlen_Session",
                                   "configuration must not be nil (repeated 51 more times)");
  }));
}

TEST_F(ClientConnectionTest,
       ReportedFeedbackIsWrappedWithTheClientQueryIdAndCountedAndServiceEventsAreRefused) {
  auto c = connect();
  auto send = [&](const QXFeedback& f, uint64_t queryId) {
    c->send("reportEvent:queryId:feedback:", {Value("ignored name"), Value(queryId), f.toRecord()});
  };
  // Without a state the event goes nowhere.
  send(QXFeedback("QXClearInputFeedback"), 1);
  ASSERT_TRUE(call(c, "configure:reply:", {configuration("com.example.voyant", "voyant/10")}));
  // Only the service makes session ends, cache hits and the like: a client's are refused at the door.
  ScopedLogCapture capture;
  send(QXFeedback("VorlenSessionEndFeedback"), 1);
  send(QXFeedback("VORCacheHitFeedback"), 1);

  QXSearchResult result;
  result.queryId = 42;
  result.type = 1;
  result.topHit = 1;
  result.title = "weather";
  result.userInput = "wea";
  result.completedQuery = "weather";
  result.sectionBundleIdentifier = "com.velmo.vorlen.web";
  QXFeedback engagement("QXResultEngagementFeedback");
  ASSERT_TRUE(engagement.set("result", result.toRecord()));
  send(engagement, 7);
  ASSERT_TRUE(call(c, "listSessions:", {}));  // everything before it has been served

  auto events = sessions->feedbacks();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].feedback.className(), "QXResultEngagementFeedback");
  EXPECT_EQ(events[0].queryId, 7);
  EXPECT_EQ(events[0].clientQueryId, 42u);
  EXPECT_FALSE(events[0].userGuid);  // stamped by the session manager, not here
  EXPECT_TRUE(events[0].userAgent.ends_with("voyant/10"));
  EXPECT_TRUE(
      capture.sink().contains(LogLevel::Error, "Vorlen_Feedback",
                              "refusing VorlenSessionEndFeedback from a client: only the service makes it"));

  EXPECT_EQ(platform.counters->value("com.velmo.vorlend.voyant.tophit.engagements"), 1);
  EXPECT_EQ(platform.counters->value("com.velmo.vorlend.voyant.vorlen.engagements"), 1);

  // The engagement was donated as an interaction, in a private file.
  auto file = platform.paths.cachesDir / "interactions.jsonl";
  EXPECT_EQ(test::fileMode(file), 0600u);
  std::ifstream in(file);
  std::string line;
  ASSERT_TRUE(std::getline(in, line));
  EXPECT_NE(
      line.find(R"("domain":"Voyant","verb":"Engagement","parameters":{"input":"wea","query":"weather"})"),
      std::string::npos)
      << line;

  // The events of the open session come back through feedback:reply:.
  auto current = call(c, "feedback:reply:", {Value("")});
  ASSERT_TRUE(current);
  EXPECT_EQ(current->at(0).getArray()->size(), 1u);
}

TEST(ClientQueryIdForFeedbackTest, ComesFromTheFieldEachClassCarries) {
  auto resultWith = [](uint64_t id) {
    QXSearchResult r;
    r.queryId = id;
    return r.toRecord();
  };
  auto sectionWith = [&](std::vector<uint64_t> ids) {
    QXResultSection s;
    for (auto id : ids) s.results.push_back(QXSearchResult::fromValidatedRecord(resultWith(id)));
    return s.toRecord();
  };

  struct Case {
    const char* className;
    const char* field;  // empty: none is set
    Value value;
    uint64_t queryId;
  };
  const Case cases[] = {
      {"QXStartSearchFeedback", "queryId", Value(uint64_t{3}), 3},
      {"QXVisibleResultsFeedback", "results", Value(Value::Array{resultWith(7), resultWith(8)}), 7},
      {"QXRankingFeedback", "sections", Value(Value::Array{sectionWith({11, 12}), sectionWith({13})}), 11},
      {"QXVisibleSectionHeaderFeedback", "section", sectionWith({9}), 9},
      {"QXSectionEngagementFeedback", "section", sectionWith({}), 0},  // an empty section
      {"QXClearInputFeedback", "", Value(), 0},                        // a class without a query field
  };
  for (const Case& c : cases) {
    QXFeedback f(c.className);
    if (*c.field) f.set(c.field, c.value);
    EXPECT_EQ(ClientConnection::clientQueryIdForFeedback(f), c.queryId) << c.className;
  }
}

}  // namespace
}  // namespace vorlen
