#include "daemon/Daemon.h"

#include <gtest/gtest.h>

#include <condition_variable>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "cache/Lookup.h"
#include "network/AppWhitelistController.h"
#include "network/VORNetworkRequestFactory.h"
#include "network/VorlenSubscriptionManager.h"
#include "support/PlatformFakes.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

class DaemonTest : public ::testing::Test {
 protected:
  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
};

TEST_F(DaemonTest, StartCountsTheLaunchAndAnnouncesStartupOnce) {
  Platform platform = test::platformForTesting(dir.path(), clock);
  std::mutex mu;
  std::condition_variable cv;
  int startups = 0;
  auto token = platform.notificationCenter->addObserver("VORStartup", nullptr, [&](const Notification&) {
    std::lock_guard lock(mu);
    ++startups;
    cv.notify_all();
  });
  Daemon daemon(platform);
  auto assembly = daemon.start();
  {
    std::unique_lock lock(mu);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(10), [&] { return startups > 0; }));
  }
  EXPECT_EQ(startups, 1);
  EXPECT_EQ(platform.counters->value("com.velmo.vorlend.launch"), 1);
  EXPECT_EQ(assembly->notificationCenter, platform.notificationCenter);
  EXPECT_TRUE(assembly->sharedSession);
  EXPECT_FALSE(assembly->testFeedbacks);
  Counters::install(nullptr);
}

TEST_F(DaemonTest, SubscriptionsLookUpAndTheAppAllowListJoinTheGraph) {
  Platform platform = test::platformForTesting(dir.path(), clock);
  auto store = std::make_shared<test::FakeMediaStore>(platform.notificationCenter);
  store->setStorefront("143441-1,29");
  platform.mediaStore = store;
  platform.installedApplications =
      std::make_shared<test::FakeInstalledApplications>(platform.notificationCenter);
  Daemon daemon(platform);
  auto assembly = daemon.start();
  ASSERT_TRUE(assembly);
  ASSERT_TRUE(assembly->subscriptionManager);
  EXPECT_TRUE(assembly->lookup);
  EXPECT_TRUE(assembly->appWhitelistController);
  // The subscription manager's delegate is the daemon's request factory: the storefront reaches requests.
  std::static_pointer_cast<VorlenSubscriptionManager>(assembly->subscriptionManager)->drainForTesting();
  VORBag bag(Value::Dict{{"enabled", true}, {"search_url", "http://127.0.0.1:9/search"}}, "Voyant/1");
  VORSearchRequest q;
  q.queryString = "films";
  auto request = assembly->requestFactory->searchRequest(q, bag, Uuid(), VORRequestClient{});
  ASSERT_TRUE(request);
  EXPECT_NE(request->url.find("storefront=143441-1,29"), std::string::npos) << request->url;
  Counters::install(nullptr);
}

}  // namespace
}  // namespace vorlen
