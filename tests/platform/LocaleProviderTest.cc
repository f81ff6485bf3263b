#include "platform/LocaleProvider.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "base/Preferences.h"
#include "platform/PlatformNotifications.h"
#include "support/TempDir.h"

namespace vorlen {
namespace {

// Sets an environment variable for the test's duration and restores it afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value) {
      setenv(name, value, 1);
    } else {
      unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(LocaleProviderTest, PosixNamesAndLanguageListsBecomeIdentifiers) {
  EXPECT_EQ(LinuxLocaleProvider::localeFromPosixName("de_DE.UTF-8@euro"), "de_DE");
  EXPECT_EQ(LinuxLocaleProvider::localeFromPosixName("pt_BR"), "pt_BR");
  EXPECT_EQ(LinuxLocaleProvider::localeFromPosixName("C.UTF-8"), "en_US_POSIX");
  EXPECT_EQ(LinuxLocaleProvider::localeFromPosixName("POSIX"), "en_US_POSIX");
  EXPECT_EQ(LinuxLocaleProvider::localeFromPosixName(""), "en_US_POSIX");
  EXPECT_EQ(LinuxLocaleProvider::languagesFromLanguageVariable("de_DE:en_GB.UTF-8::fr"),
            (std::vector<std::string>{"de-DE", "en-GB", "fr"}));
  EXPECT_TRUE(LinuxLocaleProvider::languagesFromLanguageVariable("").empty());
}

class LinuxLocaleProviderTest : public ::testing::Test {
 protected:
  test::TempDir dir;
  std::shared_ptr<Preferences> prefs = std::make_shared<Preferences>(dir.path(), "com.velmo.vorlend");
  std::shared_ptr<NotificationCenter> center = NotificationCenter::create();
  ScopedEnv lcAll{"LC_ALL", nullptr};
  ScopedEnv lcMessages{"LC_MESSAGES", nullptr};
  ScopedEnv lang{"LANG", "en_US.UTF-8"};
  ScopedEnv language{"LANGUAGE", nullptr};
};

TEST_F(LinuxLocaleProviderTest, TheEnvironmentAndTheOverrideDecideTheLocaleValues) {
  LinuxLocaleProvider provider(prefs, center);
  EXPECT_EQ(provider.localeIdentifier(), "en_US");
  EXPECT_EQ(provider.measurementSystem(), "U.S.");
  EXPECT_EQ(provider.localeTemperatureUnit(), "Fahrenheit");
  EXPECT_EQ(provider.hourFormatPattern().find("HH"), std::string::npos);
  EXPECT_EQ(provider.preferredLanguages(), std::vector<std::string>{"en-US"});
  EXPECT_EQ(provider.effectiveSystemLanguage(), "en");
  EXPECT_EQ(provider.calendarIdentifier(), "gregorian");
  EXPECT_EQ(provider.regionCode(), "US");

  prefs->set(LinuxLocaleProvider::kLocaleOverrideKey, "en_GB");
  EXPECT_EQ(provider.localeIdentifier(), "en_GB");
  EXPECT_EQ(provider.measurementSystem(), "U.K.");
  EXPECT_EQ(provider.localeTemperatureUnit(), "Celsius");
  EXPECT_NE(provider.hourFormatPattern().find("HH"), std::string::npos);

  prefs->set(LinuxLocaleProvider::kLocaleOverrideKey, "de_DE");
  EXPECT_EQ(provider.measurementSystem(), "Metric");
  prefs->set(LinuxLocaleProvider::kLocaleOverrideKey, "th_TH");
  EXPECT_EQ(provider.calendarIdentifier(), "buddhist");

  EXPECT_FALSE(provider.preferredTemperatureUnit());
  prefs->set(LinuxLocaleProvider::kTemperatureUnitKey, "Kelvin");
  EXPECT_EQ(provider.preferredTemperatureUnit(), "Kelvin");
}

TEST_F(LinuxLocaleProviderTest, LanguageVariableGivesThePreferredLanguages) {
  ScopedEnv list{"LANGUAGE", "fr_CA:en"};
  LinuxLocaleProvider provider(prefs, center);
  EXPECT_EQ(provider.preferredLanguages(), (std::vector<std::string>{"fr-CA", "en"}));
  EXPECT_EQ(provider.effectiveSystemLanguage(), "fr");
}

TEST_F(LinuxLocaleProviderTest, ChangesArePostedOncePerChangeAndAlwaysOnNotify) {
  LinuxLocaleProvider provider(prefs, center);
  int posts = 0;
  auto token = center->addObserver(kPlatformCurrentLocaleDidChangeNotification, &provider,
                                   [&](const Notification&) { ++posts; });
  provider.checkForChanges();
  EXPECT_EQ(posts, 0);
  prefs->set(LinuxLocaleProvider::kLocaleOverrideKey, "ja_JP");
  provider.checkForChanges();
  provider.checkForChanges();
  EXPECT_EQ(posts, 1);
  provider.notifyChanged();  // SIGHUP: posted even without a visible change
  EXPECT_EQ(posts, 2);
}

// The time zone is watched through TZ and /etc/localtime: a relinked or rewritten zone file and a new TZ
// are each announced once, and the name follows them.
TEST_F(LinuxLocaleProviderTest, TimeZoneChangesArePostedFromTZAndTheLocalTimeFile) {
  ScopedEnv tz{"TZ", nullptr};
  const auto localtime = dir / "localtime";
  std::filesystem::create_symlink("/usr/share/zoneinfo/Europe/Berlin", localtime);
  LinuxLocaleProvider provider(prefs, center, localtime);
  int zonePosts = 0, localePosts = 0;
  auto zoneToken = center->addObserver(kPlatformTimeZoneDidChangeNotification, &provider,
                                       [&](const Notification&) { ++zonePosts; });
  auto localeToken = center->addObserver(kPlatformCurrentLocaleDidChangeNotification, &provider,
                                         [&](const Notification&) { ++localePosts; });
  EXPECT_EQ(provider.timeZoneName(), "Europe/Berlin");
  provider.checkForChanges();
  EXPECT_EQ(zonePosts, 0);

  std::filesystem::remove(localtime);
  std::filesystem::create_symlink("/usr/share/zoneinfo/Asia/Tokyo", localtime);
  provider.checkForChanges();
  provider.checkForChanges();
  EXPECT_EQ(zonePosts, 1);
  EXPECT_EQ(provider.timeZoneName(), "Asia/Tokyo");

  {
    ScopedEnv newYork{"TZ", ":America/New_York"};
    provider.checkForChanges();
    EXPECT_EQ(zonePosts, 2);
    EXPECT_EQ(provider.timeZoneName(), "America/New_York");
  }
  provider.checkForChanges();  // TZ gone again
  EXPECT_EQ(zonePosts, 3);
  EXPECT_EQ(localePosts, 0);
}

}  // namespace
}  // namespace vorlen
