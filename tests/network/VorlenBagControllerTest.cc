#include "network/VorlenBagController.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>

#include "base/Archive.h"
#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "feedback/ClientSessionProtocol.h"
#include "model/Constants.h"
#include "network/HttpSessions.h"
#include "network/HttpTestSupport.h"
#include "network/VORNetworkRequestFactory.h"
#include "network/VorlenUserGUIDController.h"
#include "platform/Assembly.h"
#include "platform/SystemNotifier.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"
#include "support/WaitCounter.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using test::eventually;

constexpr const char* kFetches = "com.velmo.vorlend.bag.fetches";
constexpr const char* kFetchesFailed = "com.velmo.vorlend.bag.fetchesfailed";

// A feedback session that writes down what it receives.
struct RecordedSession {
  std::vector<VorlenFeedback> events;
  bool complete = false;
};

class RecordingSession final : public ClientSessionProtocol {
 public:
  RecordingSession(std::shared_ptr<std::mutex> mu, std::shared_ptr<RecordedSession> record)
      : mu_(std::move(mu)), record_(std::move(record)) {}
  void addFeedback(VorlenFeedback feedback) override {
    std::lock_guard lock(*mu_);
    EXPECT_FALSE(record_->complete) << "event added after sessionComplete";
    record_->events.push_back(std::move(feedback));
  }
  void sessionComplete() override {
    std::lock_guard lock(*mu_);
    record_->complete = true;
  }

 private:
  std::shared_ptr<std::mutex> mu_;
  std::shared_ptr<RecordedSession> record_;
};

class BagControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    Counters::install(counters);
  }
  void TearDown() override { Counters::install(nullptr); }

  // An object graph on the test's folder whose bag URL points at the reference server.
  std::shared_ptr<Assembly> makeAssembly(const std::string& bagURL = "") {
    auto a = std::make_shared<Assembly>(test::platformForTesting(dir.path(), clock));
    a->userDefaults = std::make_shared<Preferences>(a->platform.paths.configDir, kServiceName);
    a->userDefaults->set(VorlenBagController::kBagURLPreference,
                         bagURL.empty() ? server.baseURL() + "/bag" : bagURL);
    a->notificationCenter = a->platform.notificationCenter;
    a->httpSessions = std::make_shared<HttpSessions>(a->userDefaults, clock, a->platform.paths.tempDir);
    a->guidController = VorlenUserGUIDController::create(*a);
    a->requestFactory = VORNetworkRequestFactory::create(*a);
    a->makeClientSession = [this](const Assembly&,
                                  VorlenFeedback first) -> std::shared_ptr<ClientSessionProtocol> {
      auto record = std::make_shared<RecordedSession>();
      record->events.push_back(std::move(first));
      std::lock_guard lock(*sessionMu);
      sessions.push_back(record);
      return std::make_shared<RecordingSession>(sessionMu, record);
    };
    systemTokens.push_back(a->platform.systemNotifier->addObserver("", [this](const std::string& name) {
      std::lock_guard lock(*sessionMu);
      systemNotifications.push_back(name);
    }));
    bagTokens.push_back(
        a->notificationCenter->addObserver(kVORBagChangeNotification, nullptr, [this](const Notification& n) {
          const Value* record = n.userInfo.find(kVORBagKey);
          if (record && VORBag::fromRecord(*record)) bagChanges.add();
        }));
    return a;
  }

  // Waits until `n` fetches have ended (either way) and the gate has reopened.
  void waitForFetches(const std::shared_ptr<VorlenBagController>& c, int64_t n) {
    ASSERT_TRUE(eventually([&] {
      return counters->value(kFetches) + counters->value(kFetchesFailed) >= n && !c->isFetchInProgress();
    }));
    EXPECT_EQ(counters->value(kFetches) + counters->value(kFetchesFailed), n);
  }

  // Runs one fetch through the gate and returns what its completion saw.
  std::pair<std::optional<VORBag>, std::optional<VORError>> fetch(
      const std::shared_ptr<VorlenBagController>& c, const std::optional<std::string>& version = {}) {
    std::mutex mu;
    std::optional<std::pair<std::optional<VORBag>, std::optional<VORError>>> result;
    EXPECT_TRUE(c->fetchBagStateForTesting(version, [&](const auto& bag, const auto& error) {
      std::lock_guard lock(mu);
      result.emplace(bag, error);
    }));
    EXPECT_TRUE(eventually([&] {
      std::lock_guard lock(mu);
      return result.has_value() && !c->isFetchInProgress();
    }));
    std::lock_guard lock(mu);
    return result.value_or(std::pair<std::optional<VORBag>, std::optional<VORError>>{});
  }

  void setBag(RefServer::BagMode mode, std::string version = "1", int delayMs = 0) {
    RefServer::BagControl control;
    control.mode = mode;
    control.version = std::move(version);
    control.delayMs = delayMs;
    server.setBagControl(control);
  }

  std::string currentCacheURL(const Assembly& a, const VorlenBagController& c) {
    return a.requestFactory->bagCacheRequest(c, c.userAgent(), std::nullopt).value().url;
  }

  // Writes bag.plist by hand into the caches folder.
  void writeDiskBag(const Value::Dict& dict) {
    auto bytes = Archive::encodeBinary(Value(dict));
    std::filesystem::create_directories(dir / "caches");
    test::writeFile(dir / "caches/bag.plist", std::string(bytes.begin(), bytes.end()));
  }

  Value::Dict readDiskBag() {
    std::string bytes = test::readFile(dir / "caches/bag.plist");
    auto v = Archive::decode(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    return v && v->getDict() ? *v->getDict() : Value::Dict{};
  }

  std::vector<std::shared_ptr<RecordedSession>> recordedSessions() {
    std::lock_guard lock(*sessionMu);
    return sessions;
  }
  std::vector<std::string> postedSystemNotifications() {
    std::lock_guard lock(*sessionMu);
    return systemNotifications;
  }

  test::TempDir dir;
  RefServer server;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<Counters> counters = std::make_shared<Counters>(std::filesystem::path(), clock);
  std::shared_ptr<std::mutex> sessionMu = std::make_shared<std::mutex>();
  std::vector<std::shared_ptr<RecordedSession>> sessions;
  std::vector<std::string> systemNotifications;
  std::vector<std::unique_ptr<SystemNotifier::Token>> systemTokens;
  std::vector<std::unique_ptr<NotificationCenter::Token>> bagTokens;
  test::WaitCounter bagChanges;
};

TEST_F(BagControllerTest, FirstStartFetchesOnceCachesToDiskAndASecondStartServesTheDiskBag) {
  auto assembly = makeAssembly();
  auto c = VorlenBagController::create(assembly);
  EXPECT_FALSE(c->currentBag().has_value());  // never waits for the network
  waitForFetches(c, 1);
  EXPECT_EQ(counters->value(kFetches), 1);
  EXPECT_EQ(server.requestCount("/bag"), 1u);
  ASSERT_TRUE(bagChanges.waitFor(1));

  auto bag = c->currentBag();
  ASSERT_TRUE(bag);
  EXPECT_EQ(bag->version(), "1");
  EXPECT_EQ(bag->userAgent(), c->userAgent().value());
  EXPECT_EQ(bag->searchURL(), server.baseURL() + "/search");

  // The request carried the daemon's own agent.
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].header("User-Agent"), *c->userAgent());
  EXPECT_EQ(*c->userAgent(), "Vorlend/1.0 (TestDevice1,1; TestOS 1A100) Vorlend/1.0");

  // The disk cache: a private binary property list with the two private keys.
  auto path = dir / "caches/bag.plist";
  EXPECT_EQ(c->pathToCachedBagForTesting(), path);
  EXPECT_EQ(test::fileMode(path), 0600u);
  EXPECT_EQ(test::readFile(path).rfind("bplist00", 0), 0u);
  Value::Dict disk = readDiskBag();
  EXPECT_EQ(disk, bag->rawBag());
  ASSERT_TRUE(disk.count("__expiration"));
  EXPECT_DOUBLE_EQ(*disk["__expiration"].getDouble(), toUnixSeconds(clock->now()) + 14400);
  ASSERT_TRUE(disk.count("__bagurl"));
  EXPECT_EQ(*disk["__bagurl"].getString(), currentCacheURL(*assembly, *c));

  // The fetch is described as a feedback session: start, end, complete.
  auto recorded = recordedSessions();
  ASSERT_EQ(recorded.size(), 1u);
  {
    std::lock_guard lock(*sessionMu);
    ASSERT_EQ(recorded[0]->events.size(), 2u);
    const QXFeedback& start = recorded[0]->events[0].feedback;
    EXPECT_EQ(start.className(), "QXStartNetworkSearchFeedback");
    EXPECT_EQ(start.uint("triggerEvent"), 16u);
    EXPECT_EQ(start.uint("endpoint"), 10u);
    EXPECT_EQ(start.string("input"), "");
    EXPECT_EQ(start.string("url").value_or("").rfind(server.baseURL() + "/bag", 0), 0u);
    EXPECT_EQ(recorded[0]->events[0].queryId, 0);
    EXPECT_TRUE(recorded[0]->events[0].userGuid.has_value());
    const QXFeedback& end = recorded[0]->events[1].feedback;
    EXPECT_EQ(end.className(), "QXEndNetworkSearchFeedback");
    EXPECT_EQ(end.integer("statusCode"), 200);
    EXPECT_EQ(end.uint("responseSize"), server.bagBody().size());
    EXPECT_TRUE(recorded[0]->complete);
  }
  // A fetched first bag changes news availability from unknown: announced once.
  EXPECT_EQ(postedSystemNotifications(), std::vector<std::string>{kVORNotifyEnabled});

  // A restarted daemon on the same caches folder has the bag at once, without asking the server.
  auto second = makeAssembly();
  auto c2 = VorlenBagController::create(second);
  EXPECT_FALSE(c2->isFetchInProgress());
  auto diskBag = c2->inMemoryBag();
  ASSERT_TRUE(diskBag);
  EXPECT_EQ(diskBag->rawBag(), bag->rawBag());
  EXPECT_EQ(c2->currentBag(), diskBag);
  EXPECT_EQ(c2->warmURL(), server.baseURL() + "/warm");
  EXPECT_FALSE(c2->isFetchInProgress());
  EXPECT_EQ(server.requestCount("/bag"), 1u);
  // Loading from disk never announces news availability.
  EXPECT_EQ(postedSystemNotifications().size(), 1u);
}

TEST_F(BagControllerTest, RefreshIsDueFromTenMinutesBeforeExpiryAndWhenTheBagURLChanges) {
  auto assembly = makeAssembly();
  auto c = VorlenBagController::create(assembly);
  c->currentBag();
  waitForFetches(c, 1);
  Value::Dict raw = c->inMemoryBag()->rawBag();
  EXPECT_FALSE(c->isRefreshRequiredForTesting(raw));

  clock->advance(seconds(14400 - 601));
  EXPECT_FALSE(c->isRefreshRequiredForTesting(raw));
  c->cachedBagState();
  EXPECT_EQ(counters->value("com.velmo.vorlend.bag.expired"), 0);

  clock->advance(seconds(2));  // 599 s left
  EXPECT_TRUE(c->isRefreshRequiredForTesting(raw));
  EXPECT_EQ(counters->value("com.velmo.vorlend.bag.expired"), 1);
  auto stale = c->cachedBagState();  // still answers the installed bag, refetches in the background
  ASSERT_TRUE(stale);
  EXPECT_EQ(stale->rawBag(), raw);
  waitForFetches(c, 2);
  EXPECT_EQ(server.requestCount("/bag"), 2u);
  EXPECT_FALSE(c->isRefreshRequiredForTesting(c->inMemoryBag()->rawBag()));

  // A new bag URL makes the cached bag's "__bagurl" stale.
  assembly->userDefaults->set(VorlenBagController::kBagURLPreference, server.baseURL() + "/bag?mirror=1");
  {
    ScopedLogCapture capture;
    c->cachedBagState();
    EXPECT_EQ(capture.sink().count(
                  "bag url changed from: " + *c->inMemoryBag()->rawBag().at("__bagurl").getString() + " to " +
                  currentCacheURL(*assembly, *c)),
              1u);
  }
  waitForFetches(c, 3);
  EXPECT_NE(c->inMemoryBag()->rawBag().at("__bagurl").getString()->find("mirror=1"), std::string::npos);
  EXPECT_NE(server.requests().back().rawQuery.find("mirror=1"), std::string::npos);

  // A bag without a URL or expiry is always due.
  EXPECT_TRUE(c->isRefreshRequiredForTesting(Value::Dict{{"__expiration", Value(1e12)}}));
  EXPECT_TRUE(c->isRefreshRequiredForTesting(Value::Dict{}));
}

TEST_F(BagControllerTest, ARefreshDisabledDiskBagIsNeverRefreshedAndAStaleOneIsServedWhileRefetching) {
  writeDiskBag({{"version", Value("7")}, {"__refresh_disabled", Value(true)}, {"__expiration", Value(0.0)}});
  {
    ScopedLogCapture capture;
    auto c = VorlenBagController::create(makeAssembly());
    EXPECT_FALSE(c->isFetchInProgress());
    clock->advance(seconds(30 * 86400.0));
    auto bag = c->cachedBagState();
    ASSERT_TRUE(bag);
    EXPECT_EQ(bag->version(), "7");
    EXPECT_EQ(capture.sink().count("Bag refresh is disabled."), 2u);
    EXPECT_EQ(counters->value("com.velmo.vorlend.bag.expired"), 0);
  }

  // The same bag without the switch is expired: installed at once, and a refetch replaces it (the
  // server answers late so the stale bag is seen first).
  setBag(RefServer::BagMode::Slow, "1", 200);
  writeDiskBag({{"version", Value("7")}, {"__expiration", Value(0.0)}});
  auto c = VorlenBagController::create(makeAssembly());
  ASSERT_TRUE(c->inMemoryBag());
  EXPECT_EQ(c->inMemoryBag()->version(), "7");
  waitForFetches(c, 1);
  EXPECT_EQ(c->inMemoryBag()->version(), "1");
  EXPECT_EQ(readDiskBag().at("version"), Value("1"));
  EXPECT_EQ(server.requestCount("/bag"), 1u);
}

TEST_F(BagControllerTest, FailedFetchesKeepTheInstalledBagAndSayWhy) {
  auto c = VorlenBagController::create(makeAssembly());
  c->currentBag();
  waitForFetches(c, 1);
  const std::string diskBefore = test::readFile(dir / "caches/bag.plist");

  struct Case {
    RefServer::BagMode mode;
    std::string reason;
  };
  int64_t failed = 0;
  for (const Case& k :
       {Case{RefServer::BagMode::Array, "not JSON object"}, Case{RefServer::BagMode::Empty, "no data"},
        Case{RefServer::BagMode::Status, "statusCode 503"}}) {
    SCOPED_TRACE(k.reason);
    setBag(k.mode, "2");
    auto [bag, error] = fetch(c);
    EXPECT_FALSE(bag);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, kVORErrorDomain);
    EXPECT_EQ(error->code, 2);
    EXPECT_EQ(error->reason(), k.reason);
    EXPECT_EQ(counters->value(kFetchesFailed), ++failed);
    EXPECT_EQ(c->inMemoryBag()->version(), "1");

    auto recorded = recordedSessions().back();
    std::lock_guard lock(*sessionMu);
    ASSERT_EQ(recorded->events.size(), 3u);
    EXPECT_EQ(recorded->events[2].feedback.className(), "QXErrorFeedback");
    EXPECT_EQ(recorded->events[2].feedback.record<VORError>("error"), error);
    EXPECT_TRUE(recorded->complete);
  }
  EXPECT_EQ(counters->value(kFetches), 1);
  EXPECT_EQ(test::readFile(dir / "caches/bag.plist"), diskBefore);
  EXPECT_EQ(bagChanges.value(), 1);
}

// Servers send null for "no value"; a bag holding them, at any depth, still installs without them.
TEST_F(BagControllerTest, NullsInAFetchedBagAreLeftOutAndTheBagInstalls) {
  RefServer::BagControl control;
  control.extra = R"({"unused": null, "resources": [null, {"identifier": "x", "url": null}]})";
  server.setBagControl(control);
  auto c = VorlenBagController::create(makeAssembly());
  auto [bag, error] = fetch(c);
  ASSERT_TRUE(bag) << (error ? error->describe() : std::string());
  EXPECT_FALSE(error);
  EXPECT_FALSE(bag->rawBag().count("unused"));
  const Value::Array* resources = bag->rawBag().at("resources").getArray();
  ASSERT_TRUE(resources);
  ASSERT_EQ(resources->size(), 1u);
  EXPECT_EQ(resources->at(0), Value(Value::Dict{{"identifier", Value("x")}}));
  EXPECT_EQ(c->inMemoryBag()->version(), "1");
}

TEST_F(BagControllerTest, WithoutNetworkEachCallTriesOneFetchAndNeverRetries) {
  setBag(RefServer::BagMode::Drop);
  auto c = VorlenBagController::create(makeAssembly());
  for (size_t i = 1; i <= 2; ++i) {
    EXPECT_FALSE(c->currentBag());
    waitForFetches(c, int64_t(i));
    EXPECT_EQ(server.requestCount("/bag"), i);
  }
  EXPECT_EQ(counters->value(kFetchesFailed), 2);
  EXPECT_FALSE(c->inMemoryBag());
  EXPECT_FALSE(std::filesystem::exists(dir / "caches/bag.plist"));
}

TEST_F(BagControllerTest, ConcurrentTriggersMakeOneFetch) {
  setBag(RefServer::BagMode::Slow, "1", 300);
  auto c = VorlenBagController::create(makeAssembly());
  EXPECT_FALSE(c->currentBag());
  EXPECT_TRUE(c->isFetchInProgress());
  EXPECT_FALSE(c->currentBag());
  EXPECT_FALSE(c->fetchBagStateForTesting(std::nullopt, [](const auto&, const auto&) { ADD_FAILURE(); }));
  waitForFetches(c, 1);
  EXPECT_EQ(server.requestCount("/bag"), 1u);
  EXPECT_TRUE(c->currentBag());
}

// A refresh is answered from a fetch begun after it: with none in flight it starts one; refreshes that
// find one in flight share one more fetch after it.
TEST_F(BagControllerTest, ARefreshIsAnsweredFromAFetchBegunAfterIt) {
  std::mutex mu;
  std::vector<std::string> told;
  auto record = [&](const std::optional<VORBag>& bag, const std::optional<VORError>& error) {
    std::lock_guard lock(mu);
    told.push_back(bag ? bag->version().value_or("?") : error ? error->describe() : "nothing");
  };
  auto toldSoFar = [&](size_t n) {
    EXPECT_TRUE(eventually([&] {
      std::lock_guard lock(mu);
      return told.size() == n;
    }));
    std::lock_guard lock(mu);
    return told;
  };
  setBag(RefServer::BagMode::Ok, "1");
  auto c = VorlenBagController::create(makeAssembly());
  c->refreshBag(record);
  waitForFetches(c, 1);
  EXPECT_EQ(toldSoFar(1), (std::vector<std::string>{"1"}));

  setBag(RefServer::BagMode::Slow, "2", 300);
  ASSERT_TRUE(c->fetchBagStateForTesting(
      std::nullopt, [&](const auto&, const auto&) { setBag(RefServer::BagMode::Ok, "3"); }));
  c->refreshBag(record);
  c->refreshBag(record);
  waitForFetches(c, 3);
  EXPECT_EQ(server.requestCount("/bag"), 3u);
  EXPECT_EQ(toldSoFar(3), (std::vector<std::string>{"1", "3", "3"}));
}

TEST_F(BagControllerTest, ForceFetchAsksForANumericallyNewerVersionOnly) {
  setBag(RefServer::BagMode::Ok, "9");
  auto c = VorlenBagController::create(makeAssembly());
  c->currentBag();
  waitForFetches(c, 1);
  ASSERT_EQ(c->inMemoryBag()->version(), "9");

  setBag(RefServer::BagMode::Ok, "10");
  c->forceFetchBag({{"bag", Value(10)}});
  waitForFetches(c, 2);
  EXPECT_EQ(c->inMemoryBag()->version(), "10");
  auto last = server.requests().back();
  EXPECT_NE(std::find(last.queryItems.begin(), last.queryItems.end(),
                      std::pair<std::string, std::string>{"version", "10"}),
            last.queryItems.end());

  // "9" sorts after "10" as text but not as a number; a version that is not a number is ignored.
  c->forceFetchBag({{"bag", Value(9)}});
  c->forceFetchBag({{"bag", Value(10)}});
  c->forceFetchBag({{"bag", Value("11")}});
  c->forceFetchBag({});
  EXPECT_FALSE(c->isFetchInProgress());
  EXPECT_EQ(server.requestCount("/bag"), 2u);
}

TEST_F(BagControllerTest, NewsAvailabilityIsAnnouncedOnlyWhenAFetchedBagChangesIt) {
  // A stale disk bag in which the news client is switched off: installed silently, then refetched.
  writeDiskBag({{"version", Value("3")},
                {"enabled", Value(true)},
                {"clients", Value::dict({{"news", Value::dict({{"enabled", false}})}})},
                {"__expiration", Value(0.0)}});
  auto c = VorlenBagController::create(makeAssembly());
  waitForFetches(c, 1);
  ASSERT_TRUE(bagChanges.waitFor(2));  // the disk bag, then the fetched one
  EXPECT_EQ(postedSystemNotifications(), std::vector<std::string>{kVORNotifyEnabled});

  // The same availability again: nothing more. Then the server switches news off.
  fetch(c);
  EXPECT_EQ(postedSystemNotifications().size(), 1u);
  c->cacheBagState(VORBag(Value::Dict{{"enabled", Value(false)}}, "x"), /*fromDisk=*/false);
  EXPECT_EQ(postedSystemNotifications(), (std::vector<std::string>{kVORNotifyEnabled, kVORNotifyDisabled}));
  EXPECT_EQ(bagChanges.value(), 4);
}

TEST_F(BagControllerTest, RefreshRequiredNotificationRefetchesOnlyWhenNeeded) {
  auto assembly = makeAssembly();
  auto c = VorlenBagController::create(assembly);
  c->currentBag();
  waitForFetches(c, 1);
  const std::string changed =
      "something significant changed (locale, geo). checking to see if bag needs update";

  ScopedLogCapture capture;
  int other = 0;
  assembly->notificationCenter->post(kVORBagRefreshRequired, &other);  // not from the factory: ignored
  EXPECT_EQ(capture.sink().count(changed), 0u);

  assembly->notificationCenter->post(kVORBagRefreshRequired, assembly->requestFactory.get());
  EXPECT_EQ(capture.sink().count(changed), 1u);
  ASSERT_TRUE(eventually([&] { return capture.sink().contains("bag is current after the change"); }));
  EXPECT_FALSE(c->isFetchInProgress());
  EXPECT_EQ(server.requestCount("/bag"), 1u);

  clock->advance(seconds(14400));
  assembly->notificationCenter->post(kVORBagRefreshRequired, assembly->requestFactory.get());
  waitForFetches(c, 2);
  EXPECT_EQ(server.requestCount("/bag"), 2u);
}

TEST_F(BagControllerTest, BagEndpointComesFromThePreferenceOrTheCountry) {
  auto assembly = makeAssembly();
  assembly->diskBagCacheEnabled = false;
  auto c = VorlenBagController::create(assembly);
  EXPECT_EQ(c->bagFetchURLWithCountry("CN"), server.baseURL() + "/bag");

  ScopedLogCapture capture;
  assembly->userDefaults->set(VorlenBagController::kBagURLPreference, "not a url");
  EXPECT_EQ(c->bagFetchURLWithCountry("cn"), kVORBagURLChina);
  EXPECT_TRUE(capture.sink().contains(LogLevel::Error, "Vorlen_Bag",
                                      "Malformed vorlen bag URL in user defaults key VORBagURL"));
  assembly->userDefaults->set(VorlenBagController::kBagURLPreference, "");
  EXPECT_EQ(c->bagFetchURLWithCountry("US"), kVORBagURLWorldwide);
  EXPECT_EQ(c->bagFetchURLWithCountry(std::nullopt), kVORBagURLWorldwide);

  // With the disk cache switched off nothing is written, but the private keys are still added.
  Value::Dict cached = c->cacheBagDictionary({{"version", Value("5")}});
  EXPECT_TRUE(cached.count("__expiration"));
  EXPECT_FALSE(std::filesystem::exists(dir / "caches/bag.plist"));
  EXPECT_TRUE(capture.sink().contains("skipping writing bag to disk because the flag is disabled"));
}

TEST_F(BagControllerTest, AnUnreadableDiskCacheIsLoggedAndIgnored) {
  ScopedLogCapture capture;
  std::filesystem::create_directories(dir / "caches");
  test::writeFile(dir / "caches/bag.plist", "bplist00 garbage");
  auto first = VorlenBagController::create(makeAssembly());
  EXPECT_FALSE(first->inMemoryBag());
  auto lines = capture.sink().records();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const LogRecord& r) {
    return r.level == LogLevel::Fault && r.message.rfind("Error reading from bag cache: ", 0) == 0;
  }));

  auto bytes = Archive::encodeBinary(Value::array({1, 2}));
  test::writeFile(dir / "caches/bag.plist", std::string(bytes.begin(), bytes.end()));
  auto second = VorlenBagController::create(makeAssembly());
  EXPECT_FALSE(second->inMemoryBag());
  EXPECT_TRUE(capture.sink().contains(LogLevel::Fault, "Vorlen_Bag",
                                      "Unexpected class deserialized from bag cache: array."));
  EXPECT_EQ(server.requestCount("/bag"), 0u);
}

// The system-wide notifier the news announcements go through: name filters and token lifetime.
TEST(SystemNotifierTest, DeliversByNameUntilTheTokenGoes) {
  auto notifier = SystemNotifier::create();
  std::vector<std::string> all, news;
  auto everything = notifier->addObserver("", [&](const std::string& n) { all.push_back(n); });
  auto onlyEnabled =
      notifier->addObserver(kVORNotifyEnabled, [&](const std::string& n) { news.push_back(n); });
  ScopedLogCapture capture;
  notifier->post(kVORNotifyEnabled);
  notifier->post(kVORNotifyDisabled);
  onlyEnabled.reset();
  notifier->post(kVORNotifyEnabled);
  EXPECT_EQ(all, (std::vector<std::string>{kVORNotifyEnabled, kVORNotifyDisabled, kVORNotifyEnabled}));
  EXPECT_EQ(news, std::vector<std::string>{kVORNotifyEnabled});
  EXPECT_EQ(capture.sink().count(std::string("posting system notification ") + kVORNotifyDisabled), 1u);
  notifier.reset();
  everything.reset();  // a token may outlive its notifier
}

}  // namespace
}  // namespace vorlen
