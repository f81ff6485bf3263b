#include <gtest/gtest.h>

#include "base/Preferences.h"
#include "platform/DeviceRestrictions.h"
#include "platform/GeoConfiguration.h"
#include "platform/LocaleProvider.h"
#include "platform/LocationProvider.h"
#include "platform/PlatformNotifications.h"
#include "support/PlatformFakes.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

class RecordingDelegate final : public LocationDelegate {
 public:
  void locationManagerDidUpdateLocations(const std::vector<LocationFix>& locations) override {
    fixes.insert(fixes.end(), locations.begin(), locations.end());
  }
  void locationManagerDidFailWithError(const std::string& error) override { errors.push_back(error); }
  void locationManagerDidChangeAuthorizationStatus(int status) override { statuses.push_back(status); }
  std::vector<LocationFix> fixes;
  std::vector<std::string> errors;
  std::vector<int> statuses;
};

class PlatformPreferencesTest : public ::testing::Test {
 protected:
  test::TempDir dir;
  std::shared_ptr<Preferences> prefs = std::make_shared<Preferences>(dir.path(), "com.velmo.vorlend");
  std::shared_ptr<NotificationCenter> center = NotificationCenter::create();
  std::vector<std::string> posted;
  std::vector<std::unique_ptr<NotificationCenter::Token>> tokens;
  void record(const char* name) {
    tokens.push_back(
        center->addObserver(name, nullptr, [this, name](const Notification&) { posted.push_back(name); }));
  }
};

TEST_F(PlatformPreferencesTest, FixedLocationsAreValidatedBeforeUse) {
  std::string error;
  auto ok = LinuxLocationProvider::parseFixedLocation(
      Value::dict({{"latitude", 52.52}, {"longitude", 13.405}, {"accuracy", 50}, {"type", 4}}), &error);
  ASSERT_TRUE(ok);
  EXPECT_DOUBLE_EQ(ok->latitude, 52.52);
  EXPECT_DOUBLE_EQ(ok->horizontalAccuracy, 50);
  EXPECT_EQ(ok->type, 4);
  auto defaults =
      LinuxLocationProvider::parseFixedLocation(Value::dict({{"latitude", 1}, {"longitude", 2}}), &error);
  ASSERT_TRUE(defaults);
  EXPECT_DOUBLE_EQ(defaults->horizontalAccuracy, 1000);
  EXPECT_EQ(defaults->type, 0);
  EXPECT_FALSE(LinuxLocationProvider::parseFixedLocation(Value("52,13"), &error));
  EXPECT_FALSE(
      LinuxLocationProvider::parseFixedLocation(Value::dict({{"latitude", 91}, {"longitude", 0}}), &error));
  EXPECT_FALSE(
      LinuxLocationProvider::parseFixedLocation(Value::dict({{"latitude", 0}, {"longitude", -181}}), &error));
  EXPECT_FALSE(
      LinuxLocationProvider::parseFixedLocation(Value::dict({{"latitude", "0"}, {"longitude", 0}}), &error));
  EXPECT_FALSE(LinuxLocationProvider::parseFixedLocation(
      Value::dict({{"latitude", 0}, {"longitude", 0}, {"accuracy", -1}}), &error));
  EXPECT_FALSE(LinuxLocationProvider::parseFixedLocation(
      Value::dict({{"latitude", 0}, {"longitude", 0}, {"type", 1.5}}), &error));
}

TEST_F(PlatformPreferencesTest, AFixedLocationAuthorisesAndIsDeliveredOncePerStart) {
  record(kPlatformLocationAuthorizationDidChangeNotification);
  LinuxLocationProvider provider(prefs, center);
  auto delegate = std::make_shared<RecordingDelegate>();
  provider.setDelegate(delegate);
  EXPECT_EQ(provider.authorizationStatus(), LocationProvider::kDenied);
  provider.startUpdatingLocation();
  EXPECT_TRUE(delegate->fixes.empty());

  prefs->set(LinuxLocationProvider::kFixedLocationKey,
             Value::dict({{"latitude", 10.5}, {"longitude", -20.25}}));
  provider.checkForChanges();
  provider.checkForChanges();
  EXPECT_EQ(provider.authorizationStatus(), LocationProvider::kAuthorizedAlways);
  EXPECT_EQ(delegate->statuses, std::vector<int>{LocationProvider::kAuthorizedAlways});
  EXPECT_EQ(posted.size(), 1u);

  provider.startUpdatingLocation();
  provider.startUpdatingLocation();
  ASSERT_EQ(delegate->fixes.size(), 2u);
  EXPECT_DOUBLE_EQ(delegate->fixes[0].longitude, -20.25);
  EXPECT_TRUE(provider.isUpdating());
  provider.stopUpdatingLocation();
  EXPECT_FALSE(provider.isUpdating());

  prefs->set(LinuxLocationProvider::kFixedLocationKey, Value::dict({{"latitude", 100}, {"longitude", 0}}));
  EXPECT_EQ(provider.authorizationStatus(), LocationProvider::kDenied);  // malformed: no location
}

TEST_F(PlatformPreferencesTest, CountryCodeComesFromThePreferenceElseTheLocale) {
  record(kPlatformCountryCodeDidChangeNotification);
  auto locale = std::make_shared<test::FakeLocaleProvider>();
  auto v = locale->values();
  v.regionCode = "CH";
  locale->setValues(v);
  LinuxGeoConfiguration geo(prefs, locale, center);
  EXPECT_EQ(geo.countryCode(), "CH");
  EXPECT_EQ(geo.environmentName(), "prod");
  auto metadata = geo.clientMetadata();
  EXPECT_EQ(std::string(metadata.begin(), metadata.end()), R"({"app":"com.velmo.vorlend","env":"prod"})");

  prefs->set(LinuxGeoConfiguration::kCountryCodeKey, "cn");
  EXPECT_EQ(geo.countryCode(), "CN");
  geo.checkForChanges();
  geo.checkForChanges();
  EXPECT_EQ(posted.size(), 1u);
  prefs->set(LinuxGeoConfiguration::kCountryCodeKey, "CHN");  // malformed: the locale's again
  EXPECT_EQ(geo.countryCode(), "CH");
  geo.checkForChanges();
  EXPECT_EQ(posted.size(), 2u);

  prefs->set(LinuxGeoConfiguration::kEnvironmentKey, "qa\"1");
  EXPECT_EQ(geo.environmentName(), "qa\"1");
  metadata = geo.clientMetadata();
  EXPECT_EQ(std::string(metadata.begin(), metadata.end()), R"({"app":"com.velmo.vorlend","env":"qa\"1"})");
}

TEST_F(PlatformPreferencesTest, RestrictionsAreReadFromTheirDictionaryAndChangesPosted) {
  record(kPlatformEffectiveSettingsDidChangeNotification);
  record(kPlatformAccountStoreDidChangeNotification);
  record(kPlatformAccountCredentialsDidChangeNotification);
  LinuxDeviceRestrictions r(prefs, center);
  EXPECT_EQ(r.bookStoreSetting(), DeviceRestrictions::kNotSet);
  EXPECT_TRUE(r.isMediaStoreAllowed());
  EXPECT_TRUE(r.isAppInstallationAllowed());
  EXPECT_FALSE(r.isDiagnosticSubmissionAllowed());
  EXPECT_FALSE(r.isManagedAccount());

  prefs->set(
      LinuxDeviceRestrictions::kRestrictionsKey,
      Value::dict({{"allowBookstore", false}, {"allowMediaStore", "no"}, {"allowAppInstallation", false}}));
  EXPECT_EQ(r.bookStoreSetting(), DeviceRestrictions::kNo);
  EXPECT_TRUE(r.isMediaStoreAllowed());  // a string is not a boolean: absent
  EXPECT_FALSE(r.isAppInstallationAllowed());
  r.checkForChanges();
  EXPECT_EQ(posted, std::vector<std::string>{kPlatformEffectiveSettingsDidChangeNotification});

  // The managed account is this platform's account store and its credentials: both change with it.
  prefs->set(LinuxDeviceRestrictions::kManagedAccountKey, true);
  r.checkForChanges();
  r.checkForChanges();
  EXPECT_EQ(posted, (std::vector<std::string>{kPlatformEffectiveSettingsDidChangeNotification,
                                              kPlatformAccountStoreDidChangeNotification,
                                              kPlatformAccountCredentialsDidChangeNotification}));

  prefs->set(LinuxDeviceRestrictions::kDiagnosticsAllowedKey, true);
  EXPECT_TRUE(r.isDiagnosticSubmissionAllowed());
  r.checkForChanges();
  EXPECT_EQ(posted.size(), 4u);
}

}  // namespace
}  // namespace vorlen
