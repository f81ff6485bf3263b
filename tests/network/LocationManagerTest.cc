#include "network/LocationManager.h"

#include <gtest/gtest.h>

#include "platform/GeoConfiguration.h"
#include "support/PlatformFakes.h"

namespace vorlen {
namespace {

class CountingDelegate final : public LocationDelegate {
 public:
  void locationManagerDidUpdateLocations(const std::vector<LocationFix>&) override { ++updates; }
  void locationManagerDidFailWithError(const std::string&) override {}
  void locationManagerDidChangeAuthorizationStatus(int) override {}
  int updates = 0;
};

TEST(LocationManagerTest, TheFirstStartChoosesTheDelegateForGood) {
  auto provider = std::make_shared<test::FakeLocationProvider>();
  auto manager = LocationManager::create(provider, std::make_shared<test::FakeGeoSession>(),
                                         std::make_shared<test::FakeGeoConfiguration>());
  auto first = std::make_shared<CountingDelegate>();
  auto second = std::make_shared<CountingDelegate>();
  manager->stopUpdatingLocation();  // no client yet: nothing to stop
  manager->startUpdatingLocation(first);
  manager->startUpdatingLocation(second);
  manager->flushForTesting();
  EXPECT_EQ(provider->startCount(), 2);
  EXPECT_EQ(provider->stopCount(), 0);
  provider->pushLocations({LocationFix{1, 2, 3, 4}});
  EXPECT_EQ(first->updates, 1);
  EXPECT_EQ(second->updates, 0);
  manager->stopUpdatingLocation();
  manager->flushForTesting();
  EXPECT_EQ(provider->stopCount(), 1);
}

TEST(LocationManagerTest, GeoValuesAndTheirAbsence) {
  auto geo = std::make_shared<test::FakeGeoConfiguration>();
  auto session = std::make_shared<test::FakeGeoSession>();
  auto manager = LocationManager::create(std::make_shared<test::FakeLocationProvider>(), session, geo);
  geo->setClientMetadata({'a', 'b', 'c', 'd'});
  EXPECT_EQ(manager->getMapsClientMetadata(), "YWJjZA==");
  geo->setClientMetadata({});
  EXPECT_EQ(manager->getMapsClientMetadata(), "");
  EXPECT_EQ(manager->getDeviceCountryCode(), "US");
  EXPECT_EQ(manager->mapsEnvironment(), "test");
  auto a = manager->getMapsUserSessionEntityAndReset(false);
  auto b = manager->getMapsUserSessionEntityAndReset(false);
  auto c = manager->getMapsUserSessionEntityAndReset(true);
  EXPECT_EQ(a->sessionId, b->sessionId);
  EXPECT_NE(a->sessionId, c->sessionId);

  auto bare = LocationManager::create(nullptr, nullptr, nullptr);
  EXPECT_EQ(bare->authorizationStatus(), LocationProvider::kNotDetermined);
  EXPECT_FALSE(bare->getMapsUserSessionEntityAndReset(false));
  EXPECT_FALSE(bare->mapsEnvironment());
  EXPECT_EQ(bare->getDeviceCountryCode(), "");
  bare->startUpdatingLocation({});
  bare->flushForTesting();
}

}  // namespace
}  // namespace vorlen
