#include "support/PlatformFakes.h"

#include "platform/PlatformNotifications.h"

namespace vorlen::test {

// ---- FakeLocationProvider
// ------------------------------------------------------------------------------------

int FakeLocationProvider::authorizationStatus() const {
  std::lock_guard lock(mu_);
  return status_;
}

bool FakeLocationProvider::locationServicesEnabled() const {
  std::lock_guard lock(mu_);
  return enabled_;
}

void FakeLocationProvider::setDelegate(std::weak_ptr<LocationDelegate> delegate) {
  std::lock_guard lock(mu_);
  delegate_ = std::move(delegate);
}

void FakeLocationProvider::startUpdatingLocation() {
  std::lock_guard lock(mu_);
  updating_ = true;
  ++starts_;
}

void FakeLocationProvider::stopUpdatingLocation() {
  std::lock_guard lock(mu_);
  updating_ = false;
  ++stops_;
}

bool FakeLocationProvider::isUpdating() const {
  std::lock_guard lock(mu_);
  return updating_;
}

void FakeLocationProvider::setAuthorizationStatus(int status) {
  std::lock_guard lock(mu_);
  status_ = status;
}

void FakeLocationProvider::setLocationServicesEnabled(bool enabled) {
  std::lock_guard lock(mu_);
  enabled_ = enabled;
}

std::shared_ptr<LocationDelegate> FakeLocationProvider::delegate() const {
  std::lock_guard lock(mu_);
  return delegate_.lock();
}

void FakeLocationProvider::pushLocations(const std::vector<LocationFix>& locations) {
  if (auto d = delegate()) d->locationManagerDidUpdateLocations(locations);
}

void FakeLocationProvider::pushFailure(const std::string& error) {
  if (auto d = delegate()) d->locationManagerDidFailWithError(error);
}

void FakeLocationProvider::pushAuthorizationStatus(int status) {
  setAuthorizationStatus(status);
  if (auto d = delegate()) d->locationManagerDidChangeAuthorizationStatus(status);
}

int FakeLocationProvider::startCount() const {
  std::lock_guard lock(mu_);
  return starts_;
}

int FakeLocationProvider::stopCount() const {
  std::lock_guard lock(mu_);
  return stops_;
}

// ---- FakeGeoConfiguration
// ------------------------------------------------------------------------------------

std::optional<std::string> FakeGeoConfiguration::environmentName() const {
  std::lock_guard lock(mu_);
  return environment_;
}

std::vector<uint8_t> FakeGeoConfiguration::clientMetadata() const {
  std::lock_guard lock(mu_);
  return metadata_;
}

std::string FakeGeoConfiguration::countryCode() const {
  std::lock_guard lock(mu_);
  return countryCode_;
}

void FakeGeoConfiguration::setEnvironmentName(std::optional<std::string> name) {
  std::lock_guard lock(mu_);
  environment_ = std::move(name);
}

void FakeGeoConfiguration::setClientMetadata(std::vector<uint8_t> metadata) {
  std::lock_guard lock(mu_);
  metadata_ = std::move(metadata);
}

void FakeGeoConfiguration::setCountryCode(std::string code) {
  {
    std::lock_guard lock(mu_);
    if (code == countryCode_) return;
    countryCode_ = std::move(code);
  }
  if (center_) center_->post(kPlatformCountryCodeDidChangeNotification, this);
}

// ---- FakeDeviceRestrictions
// ----------------------------------------------------------------------------------

int FakeDeviceRestrictions::bookStoreSetting() const {
  std::lock_guard lock(mu_);
  return bookStore_;
}
bool FakeDeviceRestrictions::isMediaStoreAllowed() const {
  std::lock_guard lock(mu_);
  return mediaStore_;
}
bool FakeDeviceRestrictions::isAppInstallationAllowed() const {
  std::lock_guard lock(mu_);
  return appInstallation_;
}
bool FakeDeviceRestrictions::isDiagnosticSubmissionAllowed() const {
  std::lock_guard lock(mu_);
  return diagnostics_;
}
bool FakeDeviceRestrictions::isManagedAccount() const {
  std::lock_guard lock(mu_);
  return managed_;
}

void FakeDeviceRestrictions::post(const char* name) {
  if (center_) center_->post(name, this);
}

template <class T>
void FakeDeviceRestrictions::change(T& field, T value, const char* notification) {
  {
    std::lock_guard lock(mu_);
    field = value;
  }
  post(notification);
}

void FakeDeviceRestrictions::setBookStoreSetting(int value) {
  change(bookStore_, value, kPlatformEffectiveSettingsDidChangeNotification);
}
void FakeDeviceRestrictions::setMediaStoreAllowed(bool allowed) {
  change(mediaStore_, allowed, kPlatformEffectiveSettingsDidChangeNotification);
}
void FakeDeviceRestrictions::setAppInstallationAllowed(bool allowed) {
  change(appInstallation_, allowed, kPlatformEffectiveSettingsDidChangeNotification);
}
void FakeDeviceRestrictions::setDiagnosticSubmissionAllowed(bool allowed) {
  change(diagnostics_, allowed, kPlatformEffectiveSettingsDidChangeNotification);
}
void FakeDeviceRestrictions::setManagedAccount(bool managed) {
  change(managed_, managed, kPlatformAccountStoreDidChangeNotification);
  post(kPlatformAccountCredentialsDidChangeNotification);
}

// ---- FakeLocaleProvider
// --------------------------------------------------------------------------------------

FakeLocaleProvider::Values FakeLocaleProvider::values() const {
  std::lock_guard lock(mu_);
  return values_;
}

void FakeLocaleProvider::setValues(Values values) {
  std::lock_guard lock(mu_);
  values_ = std::move(values);
}

void FakeLocaleProvider::change(Values values) {
  setValues(std::move(values));
  notifyChanged();
}

void FakeLocaleProvider::notifyChanged() {
  if (center_) center_->post(kPlatformCurrentLocaleDidChangeNotification, this);
}

}  // namespace vorlen::test
