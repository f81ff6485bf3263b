#include "platform/LocationProvider.h"

#include <cmath>

#include "base/Log.h"
#include "base/Preferences.h"
#include "platform/PlatformNotifications.h"

namespace vorlen {

// ---- LinuxLocationProvider
// -----------------------------------------------------------------------------------

LinuxLocationProvider::LinuxLocationProvider(std::shared_ptr<const Preferences> defaults,
                                             std::shared_ptr<NotificationCenter> center)
    : defaults_(std::move(defaults)), center_(std::move(center)) {
  lastStatus_ = authorizationStatus();
}

std::optional<LocationFix> LinuxLocationProvider::parseFixedLocation(const Value& value, std::string* error) {
  auto fail = [&](const char* why) {
    if (error) *error = why;
    return std::nullopt;
  };
  if (!value.isDict()) return fail("not a dictionary");
  const Value* lat = value.find("latitude");
  const Value* lng = value.find("longitude");
  if (!lat || !lat->getDouble() || !lng || !lng->getDouble())
    return fail("latitude and longitude must be numbers");
  LocationFix fix;
  fix.latitude = *lat->getDouble();
  fix.longitude = *lng->getDouble();
  if (!std::isfinite(fix.latitude) || std::fabs(fix.latitude) > 90) return fail("latitude out of range");
  if (!std::isfinite(fix.longitude) || std::fabs(fix.longitude) > 180) return fail("longitude out of range");
  fix.horizontalAccuracy = 1000;
  if (const Value* accuracy = value.find("accuracy")) {
    auto a = accuracy->getDouble();
    if (!a || !std::isfinite(*a) || *a < 0) return fail("accuracy must be a non-negative number");
    fix.horizontalAccuracy = *a;
  }
  if (const Value* type = value.find("type")) {
    auto t = type->getInt();
    if (!t) return fail("type must be an integer");
    fix.type = *t;
  }
  return fix;
}

std::optional<LocationFix> LinuxLocationProvider::fixedLocation() const {
  if (!defaults_) return std::nullopt;
  Value value = defaults_->object(kFixedLocationKey);
  if (value.isNull()) return std::nullopt;
  std::string error;
  auto fix = parseFixedLocation(value, &error);
  if (!fix) VorlenDefaultLog().error("ignoring preference {}: {}", kFixedLocationKey, Private(error));
  return fix;
}

int LinuxLocationProvider::authorizationStatus() const {
  return fixedLocation() ? kAuthorizedAlways : kDenied;
}

void LinuxLocationProvider::setDelegate(std::weak_ptr<LocationDelegate> delegate) {
  std::lock_guard lock(mu_);
  delegate_ = std::move(delegate);
}

void LinuxLocationProvider::startUpdatingLocation() {
  std::shared_ptr<LocationDelegate> delegate;
  {
    std::lock_guard lock(mu_);
    updating_ = true;
    delegate = delegate_.lock();
  }
  // A fixed location never moves: each start delivers it once.
  auto fix = fixedLocation();
  if (fix && delegate) delegate->locationManagerDidUpdateLocations({*fix});
}

void LinuxLocationProvider::stopUpdatingLocation() {
  std::lock_guard lock(mu_);
  updating_ = false;
}

bool LinuxLocationProvider::isUpdating() const {
  std::lock_guard lock(mu_);
  return updating_;
}

void LinuxLocationProvider::checkForChanges() {
  int status = authorizationStatus();
  std::shared_ptr<LocationDelegate> delegate;
  {
    std::lock_guard lock(mu_);
    if (status == lastStatus_) return;
    lastStatus_ = status;
    delegate = delegate_.lock();
  }
  if (delegate) delegate->locationManagerDidChangeAuthorizationStatus(status);
  if (center_) center_->post(kPlatformLocationAuthorizationDidChangeNotification, this);
}

}  // namespace vorlen
