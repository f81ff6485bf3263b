// Fakes of the platform services, for tests and benchmarks: device properties, locale, location, geo
// session and configuration, restrictions (settable values), and the services behind the request context's
// app signature and subscriptions and the look-up hints: installed applications, the TV-provider
// subscription registry, the media store and the data-detector service. Each setter posts the notification
// the real service would post (FakeLocaleProvider: change() and notifyChanged(); FakeGeoConfiguration:
// setCountryCode() when the code changes). FakeLocationProvider pushes fixes, failures and status changes to
// its delegate on the pushing thread. A FakeGeoSession may be set to an entity that cannot give its id.
//
// Threading: every method is safe from any thread.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <unistd.h>

#include "base/NotificationCenter.h"
#include "platform/DataDetectorStore.h"
#include "platform/DeviceProperties.h"
#include "platform/DeviceRestrictions.h"
#include "platform/GeoConfiguration.h"
#include "platform/GeoSession.h"
#include "platform/InstalledApplications.h"
#include "platform/LocaleProvider.h"
#include "platform/LocationProvider.h"
#include "platform/MediaStore.h"
#include "platform/SubscriptionRegistry.h"

namespace vorlen::test {

class FakeDeviceProperties final : public DeviceProperties {
 public:
  std::string type = "TestDevice1,1", name = "TestOS", build = "1A100", inputMode = "en_US";
  double scale = 2.0;
  std::string productType() const override { return type; }
  std::string productName() const override { return name; }
  std::string buildVersion() const override { return build; }
  double screenScale() const override { return scale; }
  std::string keyboardInputMode() const override { return inputMode; }
};

class FakeGeoSession final : public GeoSession {
 public:
  GeoSessionEntity userSessionEntity(bool reset) override {
    std::lock_guard lock(mu_);
    if (reset) {
      ++resets_;
      if (entity_.sessionId) entity_.sessionId = Uuid::random();
    }
    return entity_;
  }
  void setEntity(GeoSessionEntity entity) {
    std::lock_guard lock(mu_);
    entity_ = std::move(entity);
  }
  int resetCount() const {
    std::lock_guard lock(mu_);
    return resets_;
  }

 private:
  mutable std::mutex mu_;
  GeoSessionEntity entity_{Uuid::random()};
  int resets_ = 0;
};

class FakeLocationProvider final : public LocationProvider {
 public:
  int authorizationStatus() const override;
  bool locationServicesEnabled() const override;
  void setDelegate(std::weak_ptr<LocationDelegate> delegate) override;
  void startUpdatingLocation() override;
  void stopUpdatingLocation() override;
  bool isUpdating() const override;

  void setAuthorizationStatus(int status);
  void setLocationServicesEnabled(bool enabled);
  // Deliveries to the delegate (nothing when there is none).
  void pushLocations(const std::vector<LocationFix>& locations);
  void pushFailure(const std::string& error);
  void pushAuthorizationStatus(int status);  // sets the status, then tells the delegate
  int startCount() const;
  int stopCount() const;

 private:
  std::shared_ptr<LocationDelegate> delegate() const;

  mutable std::mutex mu_;
  std::weak_ptr<LocationDelegate> delegate_;
  int status_ = kNotDetermined;
  bool enabled_ = true;
  bool updating_ = false;
  int starts_ = 0, stops_ = 0;
};

class FakeGeoConfiguration final : public GeoConfiguration {
 public:
  explicit FakeGeoConfiguration(std::shared_ptr<NotificationCenter> center = nullptr)
      : center_(std::move(center)) {}

  std::optional<std::string> environmentName() const override;
  std::vector<uint8_t> clientMetadata() const override;
  std::string countryCode() const override;

  void setEnvironmentName(std::optional<std::string> name);
  void setClientMetadata(std::vector<uint8_t> metadata);
  // Posts kPlatformCountryCodeDidChangeNotification when `code` differs from the current one.
  void setCountryCode(std::string code);

 private:
  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  std::optional<std::string> environment_ = std::string("test");
  std::vector<uint8_t> metadata_ = {'m', 'e', 't', 'a'};
  std::string countryCode_ = "US";
};

class FakeDeviceRestrictions final : public DeviceRestrictions {
 public:
  explicit FakeDeviceRestrictions(std::shared_ptr<NotificationCenter> center = nullptr)
      : center_(std::move(center)) {}

  int bookStoreSetting() const override;
  bool isMediaStoreAllowed() const override;
  bool isAppInstallationAllowed() const override;
  bool isDiagnosticSubmissionAllowed() const override;
  bool isManagedAccount() const override;

  // Each posts kPlatformEffectiveSettingsDidChangeNotification ...
  void setBookStoreSetting(int value);
  void setMediaStoreAllowed(bool allowed);
  void setAppInstallationAllowed(bool allowed);
  void setDiagnosticSubmissionAllowed(bool allowed);
  // ... and this one kPlatformAccountStoreDidChangeNotification, then
  // kPlatformAccountCredentialsDidChangeNotification.
  void setManagedAccount(bool managed);

 private:
  void post(const char* name);
  // Sets `field` under the lock, then posts `notification`.
  template <class T>
  void change(T& field, T value, const char* notification);

  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  int bookStore_ = kNotSet;
  bool mediaStore_ = true, appInstallation_ = true, diagnostics_ = true, managed_ = false;
};

class FakeLocaleProvider final : public LocaleProvider {
 public:
  explicit FakeLocaleProvider(std::shared_ptr<NotificationCenter> center = nullptr)
      : center_(std::move(center)) {}

  struct Values {
    std::string localeIdentifier = "en_US";
    std::vector<std::string> preferredLanguages = {"en-US"};
    std::string calendarIdentifier = "gregorian";
    std::string measurementSystem = "U.S.";
    std::optional<std::string> preferredTemperatureUnit;
    std::string localeTemperatureUnit = "Fahrenheit";
    std::string hourFormatPattern = "h:mm a";
    std::string timeZoneName = "America/Los_Angeles";
    std::string effectiveSystemLanguage = "en";
    std::string regionCode = "US";
  };

  Values values() const;
  void setValues(Values values);
  // Changes the values and posts the change notification.
  void change(Values values);

  std::string localeIdentifier() const override { return values().localeIdentifier; }
  std::vector<std::string> preferredLanguages() const override { return values().preferredLanguages; }
  std::string calendarIdentifier() const override { return values().calendarIdentifier; }
  std::string measurementSystem() const override { return values().measurementSystem; }
  std::optional<std::string> preferredTemperatureUnit() const override {
    return values().preferredTemperatureUnit;
  }
  std::string localeTemperatureUnit() const override { return values().localeTemperatureUnit; }
  std::string hourFormatPattern() const override { return values().hourFormatPattern; }
  std::string timeZoneName() const override { return values().timeZoneName; }
  std::string effectiveSystemLanguage() const override { return values().effectiveSystemLanguage; }
  std::string regionCode() const override { return values().regionCode; }
  void notifyChanged() override;

 private:
  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  Values values_;
};

class FakeInstalledApplications final : public InstalledApplications {
 public:
  explicit FakeInstalledApplications(std::shared_ptr<NotificationCenter> center = nullptr)
      : center_(std::move(center)) {}
  std::vector<InstalledApplication> installedApplications() const override {
    std::lock_guard lock(mu_);
    return apps_;
  }
  // Replaces the list and posts the applications-changed notification.
  void setApplications(std::vector<InstalledApplication> apps) {
    {
      std::lock_guard lock(mu_);
      apps_ = std::move(apps);
    }
    if (center_) center_->post(kPlatformInstalledApplicationsDidChangeNotification, this);
  }

 private:
  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  std::vector<InstalledApplication> apps_;
};

class FakeSubscriptionRegistry final : public SubscriptionRegistry {
 public:
  struct Entry {
    ThirdPartySubscription subscription;
    std::string bundleIdentifier, domain;
  };
  explicit FakeSubscriptionRegistry(std::shared_ptr<NotificationCenter> center = nullptr)
      : center_(std::move(center)) {}

  std::optional<std::vector<ThirdPartySubscription>> activeSubscriptions(
      const SubscriptionFetchOptions& options, std::string* error) const override {
    std::lock_guard lock(mu_);
    ++fetches_;
    lastOptions_ = options;
    if (error_) {
      if (error) *error = *error_;
      return std::nullopt;
    }
    std::vector<ThirdPartySubscription> out;
    auto listed = [](const std::vector<std::string>& list, const std::string& s) {
      for (const auto& x : list)
        if (x == s) return true;
      return false;
    };
    for (const Entry& e : entries_)
      if (listed(options.bundleIdentifiers, e.bundleIdentifier) || listed(options.domains, e.domain))
        out.push_back(e.subscription);
    return out;
  }
  void setEntries(std::vector<Entry> entries, std::optional<std::string> error = std::nullopt) {
    {
      std::lock_guard lock(mu_);
      entries_ = std::move(entries);
      error_ = std::move(error);
    }
    if (center_) center_->post(kPlatformActiveSubscriptionsDidChangeNotification, this);
  }
  int fetches() const {
    std::lock_guard lock(mu_);
    return fetches_;
  }
  SubscriptionFetchOptions lastOptions() const {
    std::lock_guard lock(mu_);
    return lastOptions_;
  }

 private:
  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  std::vector<Entry> entries_;
  std::optional<std::string> error_;
  mutable int fetches_ = 0;
  mutable SubscriptionFetchOptions lastOptions_;
};

class FakeMediaStore final : public MediaStore {
 public:
  explicit FakeMediaStore(std::shared_ptr<NotificationCenter> center = nullptr)
      : center_(std::move(center)) {}
  int64_t subscriptionAccountStatus() const override {
    std::lock_guard lock(mu_);
    return status_;
  }
  std::optional<std::string> storefrontIdentifier() const override {
    std::lock_guard lock(mu_);
    return storefront_;
  }
  void setStatus(int64_t status) {
    {
      std::lock_guard lock(mu_);
      status_ = status;
    }
    if (center_) center_->post(kPlatformMediaStoreSubscriptionStatusDidChangeNotification, this);
  }
  void setStorefront(std::optional<std::string> storefront) {
    {
      std::lock_guard lock(mu_);
      storefront_ = std::move(storefront);
    }
    if (center_) center_->post(kPlatformStorefrontDidChangeNotification, this);
  }

 private:
  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  int64_t status_ = 0;
  std::optional<std::string> storefront_;
};

// Records every push; the contents of a pushed file are read at push time. A store told to refuse
// rejects every push.
class FakeDataDetectorStore final : public DataDetectorStore {
 public:
  struct Push {
    int kind;
    std::optional<std::string> contents;  // nothing for "no file"
    std::string signature;
  };
  bool pushSource(int kind, int fd, const std::string& signature) override {
    std::optional<std::string> contents;
    if (fd >= 0) {
      std::string text;
      char buffer[4096];
      off_t offset = 0;
      for (ssize_t n; (n = ::pread(fd, buffer, sizeof buffer, offset)) > 0; offset += n)
        text.append(buffer, n);
      contents = std::move(text);
    }
    std::lock_guard lock(mu_);
    pushes_.push_back({kind, contents, signature});
    if (refuse_) return false;
    if (fd >= 0)
      signatures_[kind] = signature;
    else
      signatures_.erase(kind);
    return true;
  }
  std::optional<std::string> signatureForSourceKind(int kind) const override {
    std::lock_guard lock(mu_);
    auto it = signatures_.find(kind);
    return it == signatures_.end() ? std::nullopt : std::optional(it->second);
  }
  void setSignature(int kind, std::string signature) {
    std::lock_guard lock(mu_);
    signatures_[kind] = std::move(signature);
  }
  void setRefuse(bool refuse) {
    std::lock_guard lock(mu_);
    refuse_ = refuse;
  }
  std::vector<Push> pushes() const {
    std::lock_guard lock(mu_);
    return pushes_;
  }

 private:
  mutable std::mutex mu_;
  std::vector<Push> pushes_;
  std::map<int, std::string> signatures_;
  bool refuse_ = false;
};

}  // namespace vorlen::test
