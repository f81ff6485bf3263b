// The query kinds of a client state end to end inside one process: libvorlen-client on a real socket, the
// real service, bag controller, request factory, query cache and completion database, and the reference
// service on loopback answering over HTTP.
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include <httplib.h>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "cache/EngagedCompletionCache.h"
#include "cache/Lookup.h"
#include "cache/QueryCache.h"
#include "client/VorlenClient.h"
#include "network/HttpSessions.h"
#include "network/HttpTestSupport.h"
#include "network/VORNetworkRequestFactory.h"
#include "network/VorlenBagController.h"
#include "network/VorlenUserGUIDController.h"
#include "service/ClientState.h"
#include "service/ClientStateManager.h"
#include "service/ServiceTestSupport.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using test::eventually;

VORQueryItem queryItem(std::string name, std::string value) {
  VORQueryItem item;
  item.name = std::move(name);
  item.value = std::move(value);
  return item;
}

constexpr const char* kBrowser = "com.example.browser";
constexpr const char* kBrowserAgent = "Voyant/5.0";

class ClientStateQueryTest : public test::ServiceFixture {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    server.setBagControl(firstBag());
    start();
  }

  virtual RefServer::BagControl firstBag() { return {}; }
  virtual bool waitForBag() { return true; }

  void prepareAssembly() override {
    assembly->userDefaults->set("VORBagURL", Value(server.baseURL() + "/bag"));
    assembly->httpSessions =
        std::make_shared<HttpSessions>(assembly->userDefaults, clock, platform.paths.tempDir);
    assembly->engagedCompletionCache =
        EngagedCompletionCache::create(platform.paths.cachesDir, clock, assembly->userDefaults);
    assembly->guidController = VorlenUserGUIDController::create(*assembly);
    assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
    bags = VorlenBagController::create(assembly);
    assembly->bagController = bags;
    if (waitForBag()) {
      bags->currentBag();
      ASSERT_TRUE(eventually([&] { return bags->cachedBagState().has_value(); }));
    }
  }

  // Serves another bag (the next version, with `extra` laid over the reference bag) and waits for it.
  void switchBag(const std::string& extra) {
    RefServer::BagControl c;
    c.version = std::to_string(++bagVersion);
    c.extra = extra;
    server.setBagControl(c);
    // A fetch still in flight (the first one clears its gate only after installing) drops the request, so
    // it is repeated until the new bag is in.
    ASSERT_TRUE(eventually([&] {
      bags->forceFetchBag(Value::Dict{{"bag", Value(static_cast<int64_t>(bagVersion))}});
      auto b = bags->cachedBagState();
      return b && b->version() == c.version;
    }));
  }

  std::shared_ptr<VorlenClient> configured(const std::string& identifier = kBrowser,
                                           const std::string& agent = kBrowserAgent) {
    VorlenClientOptions options;
    options.socketPath = platform.paths.serviceSocket;
    options.runtime = runtime;
    auto c = VorlenClient::create(options);
    VORSessionConfiguration configuration;
    configuration.identifier = identifier;
    configuration.userAgent = agent;
    auto configured = c->configure(configuration);
    EXPECT_TRUE(configured.ok()) << configured.errorText();
    // The bag's completion settings reach the completion database just after the configure reply.
    if (bags->cachedBagState()) {
      EXPECT_TRUE(eventually([&] { return assembly->engagedCompletionCache->enabled(); }));
    }
    return c;
  }

  // A request of kind R numbered `queryId` with the given items.
  template <typename R>
  static R request(uint64_t queryId, std::vector<VORQueryItem> items = {}) {
    R r;
    r.queryId = queryId;
    r.queryItems = std::move(items);
    return r;
  }

  static VORSearchRequest search(uint64_t queryId, std::string text, uint64_t triggerEvent = 0) {
    VORSearchRequest r;
    r.queryId = queryId;
    r.queryString = std::move(text);
    r.triggerEvent = triggerEvent;
    return r;
  }

  // The answer to `request`; a failure of the call itself fails the test.
  static RequestReply ask(const std::shared_ptr<VorlenClient>& client, const VORRequest& request) {
    auto r = client->request(request);
    EXPECT_TRUE(r.ok()) << r.errorText();
    return r.ok() ? *r.value : RequestReply{};
  }

  // The JSON body of a reply.
  static nlohmann::json body(const RequestReply& reply) {
    if (!reply.reply) return nullptr;
    return nlohmann::json::parse(reply.reply->data.begin(), reply.reply->data.end(), nullptr, false);
  }

  std::vector<std::string> eventClasses() const {
    std::vector<std::string> out;
    for (const auto& f : sessions->feedbacks()) out.push_back(f.feedback.className());
    return out;
  }

  size_t countOf(const std::string& cls) const {
    auto all = eventClasses();
    return static_cast<size_t>(std::count(all.begin(), all.end(), cls));
  }

  // Items of the last request the service received on `path`.
  std::map<std::string, std::string> lastItems(const std::string& path) const {
    std::map<std::string, std::string> out;
    for (const auto& r : server.requests()) {
      if (r.path != path) continue;
      out.clear();
      for (const auto& [k, v] : r.queryItems) out[k] = v;
    }
    return out;
  }

  RefServer server;
  std::shared_ptr<VorlenBagController> bags;
  int bagVersion = 1;
};

TEST_F(ClientStateQueryTest, ShortQueriesAndADisabledBagNeverReachTheService) {
  auto c = configured();
  // The reference bag's minimum length is 2: one character is answered empty with a skip event.
  auto shortOne = ask(c, search(1, "n"));
  EXPECT_TRUE(!shortOne.reply);
  EXPECT_TRUE(!shortOne.error);
  // Skip events follow the reply.
  ASSERT_TRUE(eventually([&] { return sessions->feedbacks().size() == 1; }));
  auto events = sessions->feedbacks();
  EXPECT_EQ(events[0].feedback.className(), "VORSkipSearchFeedback");
  EXPECT_EQ(events[0].feedback.uint("triggerEvent"), 1u);

  switchBag(R"({"enabled": false})");
  auto disabled = ask(c, search(2, "news"));
  EXPECT_TRUE(!disabled.reply);
  EXPECT_TRUE(!disabled.error);
  ASSERT_TRUE(eventually([&] { return sessions->feedbacks().size() == 2; }));
  events = sessions->feedbacks();
  EXPECT_EQ(events.back().feedback.uint("triggerEvent"), 2u);
  EXPECT_EQ(countOf("QXStartLocalSearchFeedback"), 0u);  // no local completion either
  EXPECT_EQ(server.requestCount("/search"), 0u);
}

TEST_F(ClientStateQueryTest, ContinuedTypingAlongACompletionIsAnsweredFromTheQueryCache) {
  auto c = configured();
  auto first = ask(c, search(1, "ne"));
  ASSERT_FALSE(first.error) << first.error->describe();
  EXPECT_EQ(body(first)["query"], "news");
  EXPECT_EQ(lastItems("/search")["q"], "ne");

  // "new" is a prefix of the cached completion "news": no second request.
  auto second = ask(c, search(2, "new"));
  EXPECT_EQ(body(second)["query"], "news");
  EXPECT_EQ(server.requestCount("/search"), 1u);
  // The hit is counted and recorded just after the reply.
  EXPECT_TRUE(eventually([&] { return countOf("VORCacheHitFeedback") == 1; }));
  EXPECT_EQ(platform.counters->value("com.velmo.vorlend.voyant.ondevicecachehits"), 1);
  EXPECT_EQ(countOf("QXStartNetworkSearchFeedback"), 1u);
  EXPECT_EQ(countOf("QXEndNetworkSearchFeedback") + countOf("VOREndNetworkSearchFeedback"), 1u);

  // Text the cached completion does not extend goes to the network again.
  ask(c, search(3, "wea"));
  EXPECT_EQ(server.requestCount("/search"), 2u);
  // A rotated user identifier empties the cache.
  assembly->guidController->reset();
  assembly->guidController->currentUserGUID();
  auto state = assembly->clientStateManager->stateForClientIdentifier(kBrowser);
  ASSERT_TRUE(eventually([&] { return state->queryCache()->count() == 0; }));
  ask(c, search(4, "news"));
  EXPECT_EQ(server.requestCount("/search"), 3u);

  // Many other clients later, this one is the least recently used: its cache is gone, and comes back.
  for (size_t i = 0; i < ClientStateManager::kWarmStates; ++i) {
    ASSERT_TRUE(
        assembly->clientStateManager->stateForClientIdentifier("com.example.other" + std::to_string(i)));
  }
  EXPECT_FALSE(state->queryCache());
  EXPECT_FALSE(assembly->clientStateManager->stateForClientIdentifier("com.example.other0")->queryCache());
  ask(c, search(5, "news"));
  EXPECT_EQ(server.requestCount("/search"), 4u);
  ASSERT_TRUE(state->queryCache());
  ask(c, search(6, "news"));
  EXPECT_EQ(server.requestCount("/search"), 4u);
}

TEST_F(ClientStateQueryTest, ALocalCompletionTravelsWithTheRequest) {
  auto c = configured();
  assembly->engagedCompletionCache->addCompletion("news today", "ne", 1, 1);
  auto answer = ask(c, search(1, "ne"));
  auto items = lastItems("/search");
  EXPECT_EQ(items["lc"], "news today");
  EXPECT_EQ(items["lco"], "se");
  ASSERT_FALSE(items["lcs"].empty());
  EXPECT_GT(std::stod(items["lcs"]), 0.0);
  EXPECT_EQ(countOf("QXStartLocalSearchFeedback"), 1u);
  EXPECT_EQ(countOf("QXEndLocalSearchFeedback"), 1u);

  // System search asks its own history, and only while typing in its completion field (event 21).
  auto system = configured("com.example.search", "Norvanta/2.0");
  assembly->engagedCompletionCache->addCompletion("weather tomorrow", "we", 1, 2);
  ask(system, search(1, "we"));
  EXPECT_EQ(lastItems("/search").count("lc"), 0u);
  EXPECT_EQ(countOf("QXStartLocalSearchFeedback"), 1u);
  ask(system, search(2, "wea", 21));
  EXPECT_EQ(lastItems("/search")["lc"], "weather tomorrow");
  EXPECT_EQ(countOf("QXStartLocalSearchFeedback"), 2u);
}

TEST_F(ClientStateQueryTest, VerboseRepliesCarryTheExchangeAndForceFetchRefreshesTheBag) {
  auto c = configured();
  VORSearchRequest r;
  r.queryId = 1;
  r.queryString = "we";
  r.verboseReply = true;
  auto answer = ask(c, r);
  const auto& reply = answer.reply;
  ASSERT_TRUE(reply);
  EXPECT_NE(reply->httpRequest.at("url").getString()->find("/search?"), std::string::npos);
  EXPECT_EQ(reply->httpResponse.at("status").getInt(), 200);
  EXPECT_EQ(reply->scale, 2.0);  // the device's scale, filled in by the connection

  // An answer saying a newer bag exists makes the controller fetch it.
  RefServer::BagControl next;
  next.version = "10";
  server.setBagControl(next);
  RefServer::SearchControl forced;
  forced.forceFetch = R"({"bag": 10})";
  forced.serverTiming = true;
  server.setSearchControl(forced);
  // A fetch still in flight drops the request, so searches (each its own, never from the cache) go on until
  // one answer's header has been acted on.
  uint64_t id = 2;
  ASSERT_TRUE(eventually([&] {
    VORSearchRequest more = search(id, "nba");
    more.queryItems.push_back(queryItem("n", std::to_string(id++)));
    ask(c, more);
    return bags->cachedBagState()->version() == "10";
  }));
  EXPECT_GE(countOf("VOREndNetworkSearchFeedback"), 1u);  // the server's timing record was read
}

TEST_F(ClientStateQueryTest, ZeroKeywordMoreResultsAndCards) {
  auto c = configured();
  auto zkw = request<VORZeroKeywordRequest>(1);
  auto trending = ask(c, zkw);
  EXPECT_EQ(body(trending)["suggestions"].size(), 5u);
  EXPECT_EQ(lastItems("/search")["qtype"], "zkw");
  // The client's own "qtype" replaces the forced one.
  zkw.queryItems.push_back(queryItem("qtype", "zkw_news"));
  ask(c, zkw);
  EXPECT_EQ(lastItems("/search")["qtype"], "zkw_news");

  auto page = ask(c, request<VORMoreResultsRequest>(2, {queryItem("q", "news")}));
  EXPECT_EQ(body(page)["results"].size(), 5u);
  auto answered = ask(c, request<VORCardRequest>(3, {queryItem("q", "news")}));
  EXPECT_EQ(body(answered)["card"]["title"], "news");
}

// Against a service that drops every connection: more results and card carry no expiry and are sent once;
// look-up and flight search are retried until their render deadline passes (it never does on the test's
// clock), so each is sent four times and answered once, with the last attempt's error. Every request here
// is dropped, so none goes out on a reused connection that the HTTP client might quietly send again.
TEST_F(ClientStateQueryTest, EachKindIsRetriedAsItsDeadlineAllows) {
  auto c = configured();
  const VORQueryItem drop = queryItem("ref_drop", "1");
  const auto more = request<VORMoreResultsRequest>(1, {queryItem("q", "news"), drop});
  const auto card = request<VORCardRequest>(2, {queryItem("q", "news"), drop});
  auto lookup = request<VORLookupRequest>(3, {drop});
  lookup.queryString = "serendipity";
  auto flight = request<VORFlightSearchRequest>(4, {drop});
  flight.flightQuery = "VL-7";
  struct Case {
    const VORRequest* request;
    std::string path;
    size_t attempts;
  };
  for (const Case& k : {Case{&more, "/more", 1}, Case{&card, "/card", 1}, Case{&lookup, "/search", 4},
                        Case{&flight, "/flight", 4}}) {
    SCOPED_TRACE(k.path);
    const size_t before = server.requestCount(k.path);
    auto answer = ask(c, *k.request);
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->domain, kVORURLErrorDomain);
    EXPECT_EQ(server.requestCount(k.path) - before, k.attempts);
  }
}

// Requests that cannot be sent or answers the client cannot use end the way the network path ends them:
// a transport failure, or an empty answer with a failed search recorded.
TEST_F(ClientStateQueryTest, UnsendableRequestsAndHttpFailuresAnswerAsTheNetworkPathDoes) {
  auto c = configured();
  ScopedLogCapture capture;
  auto missing =
      ask(c, request<VORMoreResultsRequest>(1, {queryItem("q", "news"), queryItem("ref_status", "404")}));
  EXPECT_FALSE(missing.error);
  EXPECT_FALSE(missing.reply);
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error,
                                "More results fetch failed with HTTP status code 404"),
            1u);
  auto failed = ask(c, request<VORCardRequest>(2, {queryItem("ref_status", "500")}));
  EXPECT_FALSE(failed.error);
  EXPECT_FALSE(failed.reply);
  EXPECT_EQ(
      test::countLogLines(capture.sink(), LogLevel::Error, "Card fetch failed with HTTP status code 500"),
      1u);
  EXPECT_EQ(countOf("QXErrorFeedback"), 2u);

  // A bag without search and flight URLs: the requests have nowhere to go and fail as unsendable.
  switchBag(R"({"search_url": null, "flight_url": null})");
  auto lookup = request<VORLookupRequest>(3);
  lookup.queryString = "serendipity";
  auto flight = request<VORFlightSearchRequest>(4);
  flight.flightQuery = "VL-7";
  for (const VORRequest* r : std::initializer_list<const VORRequest*>{&lookup, &flight}) {
    auto answer = ask(c, *r);
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->domain, kVORURLErrorDomain);
    EXPECT_EQ(answer.error->code, HttpError::kUnsupportedURL);
  }
  auto typed = ask(c, search(5, "news"));
  ASSERT_TRUE(typed.error);
  EXPECT_EQ(typed.error->code, HttpError::kUnsupportedURL);
  EXPECT_EQ(countOf("QXErrorFeedback"), 5u);
}

// A search service that answers what the reference one never does: bodies that are not JSON objects, and
// header values that cannot be read. Cards and more results ("/card", "/more") get "not json" and "[1, 2]";
// a search gets a JSON object, with the query text choosing a flaw: "timing" an unreadable server-timing
// header, "force" a force-fetch header that is not a dictionary, "down" status 503 with an error body.
class FlawedSearchService {
 public:
  FlawedSearchService() {
    server_.Get(".*", [this](const httplib::Request& req, httplib::Response& res) {
      const std::string q = req.get_param_value("q");
      {
        std::lock_guard lock(mu_);
        ++hits_[req.path + "?" + q];
      }
      std::string body = R"({"query": "news", "suggestions": []})";
      if (req.path == "/card") body = "not json";
      if (req.path == "/more") body = "[1, 2]";
      if (q == "timing") res.set_header("X-Velmo-Server-Timing", "{oops");
      if (q == "force") res.set_header("X-Velmo-ForceFetch", "[1]");
      if (q == "down") {
        res.status = 503;
        body = R"({"status": "ERROR"})";
      }
      res.set_content(body, "application/json");
    });
    // One request per connection: an idle kept-alive one would hold stop() for the keep-alive time-out.
    server_.set_keep_alive_max_count(1);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // A stop() before the accept loop runs would never end it.
    EXPECT_TRUE(eventually([this] { return server_.is_running(); }));
  }
  ~FlawedSearchService() {
    server_.stop();
    thread_.join();
  }
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  // Requests that reached `path` with query text `q`.
  int hits(const std::string& path, const std::string& q) {
    std::lock_guard lock(mu_);
    return hits_[path + "?" + q];
  }

 private:
  httplib::Server server_;
  std::mutex mu_;
  std::map<std::string, int> hits_;
  int port_ = 0;
  std::thread thread_;
};

// Answers the state cannot use fail their query as a failed search (end event, then an error event), except
// for a search, whose body goes to the client uncached; headers that cannot be read are logged and ignored.
TEST_F(ClientStateQueryTest, FlawedAnswersFailOrPassThroughAndUnreadableHeadersAreIgnored) {
  FlawedSearchService flawed;
  switchBag(R"({"card_url": ")" + flawed.url("/card") + R"(", "more_results_url": ")" + flawed.url("/more") +
            R"(", "search_url": ")" + flawed.url("/search") + R"("})");
  auto c = configured();
  ScopedLogCapture capture;
  const auto card = request<VORCardRequest>(1);
  const auto more = request<VORMoreResultsRequest>(2, {queryItem("q", "news")});
  for (auto [request, why] : {std::pair<const VORRequest*, const char*>{&card, "not JSON"},
                              std::pair<const VORRequest*, const char*>{&more, "not a JSON object"}}) {
    SCOPED_TRACE(why);
    auto answer = ask(c, *request);
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->code, 500);
    EXPECT_EQ(answer.error->reason(), "invalid response body");
    EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, std::string("Error: ") + why), 1u);
  }
  EXPECT_EQ(countOf("QXErrorFeedback"), 2u);
  EXPECT_EQ(countOf("QXEndNetworkSearchFeedback"), 2u);

  // A 503 with an error body reaches the client as it came and is never served from the query cache.
  for (uint64_t id : {3u, 4u}) {
    auto down = ask(c, search(id, "down"));
    EXPECT_FALSE(down.error);
    EXPECT_EQ(body(down)["status"], "ERROR");
  }
  EXPECT_EQ(flawed.hits("/search", "down"), 2);

  auto timed = ask(c, search(5, "timing"));
  EXPECT_EQ(body(timed)["query"], "news");
  EXPECT_EQ(test::countLogLines(capture.sink(), LogLevel::Error, "unreadable server timing record: {oops"),
            1u);
  EXPECT_EQ(countOf("VOREndNetworkSearchFeedback"), 0u);

  // The force-fetch header is read after the client has its answer.
  auto forced = ask(c, search(6, "force"));
  EXPECT_EQ(body(forced)["query"], "news");
  EXPECT_TRUE(eventually([&] {
    return test::countLogLines(
               capture.sink(), LogLevel::Error,
               "Failed to deserialize X-Velmo-ForceFetch header data into a dictionary: [1]") == 1;
  }));
  EXPECT_EQ(countOf("QXErrorFeedback"), 2u);  // none of the searches failed
}

// The deadline is the bag's and runs on the wall clock of the HTTP engine: the answer that must arrive gets
// a deadline no loaded machine misses, and the one that must not is held back until the test ends.
TEST_F(ClientStateQueryTest, LookUpsEndAtTheBagsRenderDeadline) {
  switchBag(R"({"search_render_timeout": 60})");
  auto c = configured();
  auto lookup = request<VORLookupRequest>(1);
  lookup.queryString = "serendipity";
  lookup.lookupSelectionType = 1;
  auto answer = ask(c, lookup);
  EXPECT_EQ(body(answer)[0]["query"], "serendipity");
  EXPECT_EQ(countOf("VORLookupStartNetworkSearchFeedback"), 1u);

  switchBag(R"({"search_render_timeout": 0.3})");
  lookup.queryId = 2;
  lookup.queryItems.push_back(queryItem("ref_hold", "1"));
  auto late = ask(c, lookup);
  ASSERT_TRUE(late.error);
  EXPECT_EQ(late.error->code, HttpError::kTimedOut);
}

TEST_F(ClientStateQueryTest, LookUpAnswersAreFilteredByTheirInstructions) {
  assembly->lookup = Lookup::create(*assembly);
  auto c = configured();
  auto lookup = request<VORLookupRequest>(1);
  lookup.queryString = "serendipity";
  lookup.lookupContext = "A moment of pure SERENDIPITY in the old bookshop";
  auto inContext = body(ask(c, lookup));
  ASSERT_TRUE(inContext.is_array()) << inContext.dump();
  EXPECT_EQ(inContext[0]["results"].size(), 2u) << "the context contains the completion";

  lookup.queryId = 2;
  lookup.lookupContext = "an unrelated sentence";
  auto elsewhere = body(ask(c, lookup));
  ASSERT_EQ(elsewhere[0]["results"].size(), 1u);
  EXPECT_EQ(elsewhere[0]["results"][0]["title"], "serendipity");
  EXPECT_EQ(elsewhere[0]["query"], "serendipity") << "the rest of the answer is untouched";
}

TEST_F(ClientStateQueryTest, FlightsCanBeServedFromDebugData) {
  const auto file = dir / "flights.json";
  std::ofstream(file) << R"([{"carrier_code": "VL", "flight_number": "12", "flightId": "F1"},
                             {"carrier_code": "VL", "flight_number": "13", "flightId": "F2"}])";
  assembly->userDefaults->set("VORFlightUseDebugData", Value(true));
  assembly->userDefaults->set("VORFlightDebugDataLocation", Value("file://" + file.string()));
  auto c = configured();
  auto flight = request<VORFlightSearchRequest>(1);
  flight.flightQuery = "VL-13";
  auto found = ask(c, flight);
  ASSERT_EQ(body(found).size(), 1u);
  EXPECT_EQ(body(found)[0]["flightId"], "F2");
  flight.flightQuery = "VL13";  // not two parts: nothing matches
  EXPECT_TRUE(body(ask(c, flight)).empty());
  auto byId = request<VORFlightLookupRequest>(2);
  byId.flightId = "F1";
  auto looked = ask(c, byId);
  EXPECT_EQ(body(looked)[0]["flight_number"], "12");
  EXPECT_EQ(server.requestCount("/flight"), 0u);

  // A file that another user could have planted or changed is not believed: nothing matches.
  {
    ScopedLogCapture capture;
    std::filesystem::permissions(file,
                                 std::filesystem::perms::group_write | std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::add);
    EXPECT_TRUE(body(ask(c, byId)).empty());
    EXPECT_EQ(
        test::countLogLines(capture.sink(), LogLevel::Error, "Failed to load flight test data. Error: "), 1u);
    std::filesystem::permissions(file,
                                 std::filesystem::perms::group_write | std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::remove);
    const auto link = dir / "flights-link.json";
    std::filesystem::create_symlink(file, link);
    assembly->userDefaults->set("VORFlightDebugDataLocation", Value("file://" + link.string()));
    EXPECT_TRUE(body(ask(c, byId)).empty());
    assembly->userDefaults->set("VORFlightDebugDataLocation", Value("file://" + file.string()));
  }

  // Without the switch the debug file is never read: a look-up finds nothing and a flight search goes to
  // the service.
  assembly->userDefaults->set("VORFlightUseDebugData", Value(false));
  EXPECT_TRUE(body(ask(c, byId)).empty());
  flight.flightQuery = "VL-7";
  auto live = ask(c, flight);
  EXPECT_EQ(body(live)["flights"][0]["flight_number"], "7");
  EXPECT_EQ(server.requests().back().header("Accept"), "application/x-protobuf");
}

TEST_F(ClientStateQueryTest, WarmingTwiceWithinThirtySecondsSendsOneRequest) {
  configured();
  auto state = assembly->clientStateManager->stateForClientIdentifier(kBrowser);
  state->warm();
  ASSERT_TRUE(eventually([&] { return server.requestCount("/warm") == 1; }));
  clock->advance(std::chrono::seconds(29));
  state->warm();
  clock->advance(std::chrono::seconds(2));  // 31 s after the first
  state->warm();
  ASSERT_TRUE(eventually([&] { return server.requestCount("/warm") == 2; }));
  EXPECT_EQ(server.requestCount("/warm"), 2u);
}

class ClientStateWithoutBagTest : public ClientStateQueryTest {
 protected:
  RefServer::BagControl firstBag() override {
    RefServer::BagControl c;
    c.mode = RefServer::BagMode::Status;
    c.status = 503;
    return c;
  }
  bool waitForBag() override { return false; }
};

TEST_F(ClientStateWithoutBagTest, QueriesAnswerTheTimeOutErrorWhileNoBagCanBeHad) {
  auto c = configured();
  auto answer = ask(c, search(1, "news"));
  ASSERT_TRUE(answer.error);
  EXPECT_EQ(answer.error->code, 1);
  EXPECT_EQ(answer.error->reason(), "timeout");
  ASSERT_TRUE(eventually([&] { return !sessions->feedbacks().empty(); }));
  EXPECT_EQ(sessions->feedbacks().back().feedback.uint("triggerEvent"), 3u);
  EXPECT_EQ(server.requestCount("/search"), 0u);

  // More results and card have no bag check: without a bag they have no URL and cannot be sent.
  const auto more = request<VORMoreResultsRequest>(2);
  const auto card = request<VORCardRequest>(3);
  for (const VORRequest* r : std::initializer_list<const VORRequest*>{&more, &card}) {
    auto unsent = ask(c, *r);
    ASSERT_TRUE(unsent.error);
    EXPECT_EQ(unsent.error->domain, kVORURLErrorDomain);
    EXPECT_EQ(unsent.error->code, HttpError::kUnsupportedURL);
  }

  // Once the service gives a bag, the next query goes through.
  server.setBagControl({});
  ASSERT_TRUE(eventually([&] { return bags->currentBag().has_value(); }));
  auto later = ask(c, search(4, "news"));
  EXPECT_EQ(body(later)["query"], "news");
}

}  // namespace
}  // namespace vorlen
