#include "network/VorlenSubscriptionManager.h"

#include <gtest/gtest.h>

#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "model/Constants.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "support/PlatformFakes.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

class RecordingDelegate final : public SubscriptionManagerDelegate {
 public:
  void subscriptionManagerDidUpdateSubscriptionDictionaries(const Value::Array& dictionaries) override {
    std::lock_guard lock(mu);
    updates.push_back(dictionaries);
  }
  void subscriptionManagerDidUpdateStorefrontIdentifier(
      const std::optional<std::string>& storefront) override {
    std::lock_guard lock(mu);
    storefronts.push_back(storefront);
  }
  std::mutex mu;
  std::vector<Value::Array> updates;
  std::vector<std::optional<std::string>> storefronts;
};

class SubscriptionManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    assembly = std::make_shared<Assembly>(test::platformForTesting(dir.path(), clock));
    assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
    assembly->notificationCenter = assembly->platform.notificationCenter;
    registry = std::make_shared<test::FakeSubscriptionRegistry>(assembly->notificationCenter);
    store = std::make_shared<test::FakeMediaStore>(assembly->notificationCenter);
    assembly->platform.subscriptionRegistry = registry;
    assembly->platform.mediaStore = store;
  }
  void TearDown() override {
    manager.reset();
    assembly.reset();
  }

  void start(std::weak_ptr<SubscriptionManagerDelegate> d) {
    manager = VorlenSubscriptionManager::create(*assembly, std::move(d));
    manager->drainForTesting();
  }
  void postBag(Value::Dict raw) {
    Notification n;
    n.name = kVORBagChangeNotification;
    n.userInfo = Value::dict({{kVORBagKey, VORBag(std::move(raw), "Voyant/1").toRecord()}});
    assembly->notificationCenter->post(n);
    manager->drainForTesting();
  }
  static Value::Dict listsBag(double ttl = 3600) {
    return Value::Dict{
        {VORBagKeys::kSubscriptionProviderBundleIdentifierWhitelist, Value::array({Value("org.example.tv")})},
        {VORBagKeys::kSubscriptionProviderDomainWhitelist, Value::array({Value("video.example")})},
        {VORBagKeys::kSubscriptionTTL, Value(ttl)}};
  }
  test::FakeSubscriptionRegistry::Entry entry(std::string provider, double ageSeconds, std::string bundle,
                                              std::string domain = "") {
    return {{std::move(provider), Value("premium-tier"),
             clock->now() - std::chrono::seconds(int64_t(ageSeconds))},
            std::move(bundle),
            std::move(domain)};
  }
  size_t updateCount() {
    std::lock_guard lock(delegate->mu);
    return delegate->updates.size();
  }
  Value::Array lastUpdate() {
    std::lock_guard lock(delegate->mu);
    return delegate->updates.empty() ? Value::Array{} : delegate->updates.back();
  }
  static Value record(const char* provider, bool active) {
    return Value::dict(
        {{"provider", Value(provider)}, {"type", Value("premium-tier")}, {"active", Value(active)}});
  }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<test::FakeSubscriptionRegistry> registry;
  std::shared_ptr<test::FakeMediaStore> store;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<VorlenSubscriptionManager> manager;
};

TEST_F(SubscriptionManagerTest, AllowListedSubscriptionsOutsideTheTTLAreInactiveNotDropped) {
  registry->setEntries({entry("tv-recent", 10, "org.example.tv"), entry("tv-old", 7200, "org.example.tv"),
                        entry("web", 100, "org.other", "video.example"),
                        entry("unlisted", 1, "org.other", "x.example")});
  store->setStatus(3);
  start(delegate);
  EXPECT_EQ(updateCount(), 0u) << "nothing before a bag";
  postBag(listsBag(3600));
  ASSERT_EQ(updateCount(), 1u);
  Value::Array expected{
      Value::dict({{"provider", Value("brisk")}, {"attribute", Value("premium")}, {"active", Value(true)}}),
      record("tv-old", false), record("tv-recent", true), record("web", true)};
  EXPECT_EQ(lastUpdate(), expected);
  EXPECT_EQ(manager->subscriptions(), expected);
  EXPECT_EQ(registry->lastOptions().bundleIdentifiers, std::vector<std::string>{"org.example.tv"});
  EXPECT_EQ(registry->lastOptions().domains, std::vector<std::string>{"video.example"});
}

TEST_F(SubscriptionManagerTest, EqualUpdatesNotifyOnceAndChangesNotifyAgain) {
  registry->setEntries({entry("tv", 10, "org.example.tv")});
  start(delegate);
  postBag(listsBag());
  ASSERT_EQ(updateCount(), 1u);
  registry->setEntries({entry("tv", 10, "org.example.tv")});  // same records
  store->setStatus(1);                                        // not subscribed, as before
  manager->drainForTesting();
  EXPECT_EQ(updateCount(), 1u);
  EXPECT_EQ(registry->fetches(), 3);

  store->setStatus(3);
  manager->drainForTesting();
  EXPECT_EQ(updateCount(), 2u);
  EXPECT_EQ(lastUpdate().size(), 2u);
  // Time alone makes "tv" inactive once its modification is older than the TTL: a change.
  clock->advance(std::chrono::seconds(3600));
  registry->setEntries({entry("tv", 3700, "org.example.tv")});
  manager->drainForTesting();
  EXPECT_EQ(updateCount(), 3u);
}

TEST_F(SubscriptionManagerTest, ABagWithoutEitherAllowListClearsEverythingIncludingTheStore) {
  registry->setEntries({entry("tv", 10, "org.example.tv")});
  store->setStatus(3);
  start(delegate);
  postBag(listsBag());
  ASSERT_EQ(lastUpdate().size(), 2u);
  for (const char* dropped : {VORBagKeys::kSubscriptionProviderDomainWhitelist,
                              VORBagKeys::kSubscriptionProviderBundleIdentifierWhitelist}) {
    SCOPED_TRACE(dropped);
    Value::Dict raw = listsBag();
    raw.erase(dropped);
    size_t before = updateCount();
    postBag(raw);
    EXPECT_EQ(updateCount(), before + 1) << "the empty list is always told";
    EXPECT_TRUE(lastUpdate().empty());
    EXPECT_TRUE(manager->subscriptions().empty());
  }
}

TEST_F(SubscriptionManagerTest, ARegistryErrorIsLoggedAndGivesNoThirdPartyRecords) {
  ScopedLogCapture capture;
  registry->setEntries({}, std::string("registry unavailable"));
  store->setStatus(3);
  start(delegate);
  postBag(listsBag());
  EXPECT_TRUE(capture.sink().contains(
      "Error fetching third party subscription information from daemon: registry unavailable"));
  ASSERT_EQ(lastUpdate().size(), 1u);
  EXPECT_EQ(*lastUpdate()[0].find("provider"), Value("brisk"));
}

TEST_F(SubscriptionManagerTest, TheRequestFactoryReceivesSubscriptionsAndStorefront) {
  store->setStorefront("143441-1,29");
  auto factory = VORNetworkRequestFactory::create(*assembly);
  assembly->requestFactory = factory;
  registry->setEntries({entry("tv", 10, "org.example.tv")});
  start(factory);
  postBag(listsBag());
  auto build = [&] {
    VORBag bag(Value::Dict{{"enabled", true}, {"search_url", "http://127.0.0.1:9/search"}}, "Voyant/1");
    VORSearchRequest q;
    q.queryString = "films";
    return factory->searchRequest(q, bag, Uuid(), VORRequestClient{});
  };
  auto request = build();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->header("X-Velmo-Subscriptions"),
            R"([{"active":true,"provider":"tv","type":"premium-tier"}])");
  EXPECT_NE(request->url.find("storefront=143441-1,29"), std::string::npos) << request->url;

  store->setStorefront("143444");
  postBag(Value::Dict{});
  request = build();
  EXPECT_FALSE(request->header("X-Velmo-Subscriptions")) << "an empty list sends no header";
  EXPECT_NE(request->url.find("storefront=143444"), std::string::npos) << request->url;
}

}  // namespace
}  // namespace vorlen
