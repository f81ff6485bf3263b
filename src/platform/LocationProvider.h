// LocationProvider: the platform's location service as the daemon uses it: an authorisation status, and
// location updates that start and stop and are delivered to one delegate.
//
// Authorisation numbers (the daemon treats 3 and 4 as authorised):
//   0 not determined, 1 restricted, 2 denied, 3 authorised always, 4 authorised when in use.
// Fix types (LocationFix::type) name how a fix was obtained; the request context maps them to source words:
//   1, 2, 3, 9 satellite ("gps"); 6, 7, 8 cell towers ("cell"); 4, 5 Wi-Fi ("wifi"); 0 and others unknown.
//
// LinuxLocationProvider knows no positioning hardware. It reports the fixed location of the preference
// "VORFixedLocation", a dictionary {"latitude": real, "longitude": real, "accuracy": real (metres, default
// 1000), "type": integer (fix type, default 0)}; latitude and longitude are required and must lie in
// [-90, 90] and [-180, 180]. With such a location the status is 3 (authorised always) and every start of
// updates delivers that fix once to the delegate; without one (missing, or rejected with a log line) the
// status is 2 (denied) and a start delivers nothing. checkForChanges() re-reads the preference and, when the
// status changed, tells the delegate and posts kPlatformLocationAuthorizationDidChangeNotification.
//
// Threading: every method is safe from any thread. Delegate calls run on the thread that caused them (the
// caller of startUpdatingLocation() or checkForChanges()); delegates hop onto their own queue. The delegate
// is held weakly.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/NotificationCenter.h"

namespace vorlen {

class Preferences;

struct LocationFix {
  double latitude = 0;
  double longitude = 0;
  double horizontalAccuracy = 0;  // metres
  int64_t type = 0;               // fix type, see above
};

class LocationDelegate {
 public:
  virtual ~LocationDelegate() = default;
  // `locations` is never empty; the last one is the newest.
  virtual void locationManagerDidUpdateLocations(const std::vector<LocationFix>& locations) = 0;
  virtual void locationManagerDidFailWithError(const std::string& error) = 0;
  virtual void locationManagerDidChangeAuthorizationStatus(int status) = 0;
};

class LocationProvider {
 public:
  static constexpr int kNotDetermined = 0;
  static constexpr int kRestricted = 1;
  static constexpr int kDenied = 2;
  static constexpr int kAuthorizedAlways = 3;
  static constexpr int kAuthorizedWhenInUse = 4;
  static bool isAuthorized(int status) {
    return status == kAuthorizedAlways || status == kAuthorizedWhenInUse;
  }

  virtual ~LocationProvider() = default;
  virtual int authorizationStatus() const = 0;
  // Whether location services are switched on for the device as a whole.
  virtual bool locationServicesEnabled() const = 0;
  // Replaces the delegate that later deliveries go to.
  virtual void setDelegate(std::weak_ptr<LocationDelegate> delegate) = 0;
  virtual void startUpdatingLocation() = 0;
  virtual void stopUpdatingLocation() = 0;
  virtual bool isUpdating() const = 0;
};

class LinuxLocationProvider final : public LocationProvider {
 public:
  static constexpr const char* kFixedLocationKey = "VORFixedLocation";

  // `center` may be null (then nothing is posted).
  LinuxLocationProvider(std::shared_ptr<const Preferences> defaults,
                        std::shared_ptr<NotificationCenter> center);

  int authorizationStatus() const override;
  bool locationServicesEnabled() const override { return true; }
  void setDelegate(std::weak_ptr<LocationDelegate> delegate) override;
  void startUpdatingLocation() override;
  void stopUpdatingLocation() override;
  bool isUpdating() const override;

  // The configured fixed location, or nothing (after a log line when the preference is malformed).
  std::optional<LocationFix> fixedLocation() const;
  // Re-reads the preference; on a change of the status tells the delegate and posts the notification.
  void checkForChanges();

  // The fix a "VORFixedLocation" value describes, or nothing when it is not a valid one (`error` says why).
  static std::optional<LocationFix> parseFixedLocation(const Value& value, std::string* error);

 private:
  std::shared_ptr<const Preferences> defaults_;
  std::shared_ptr<NotificationCenter> center_;
  mutable std::mutex mu_;
  std::weak_ptr<LocationDelegate> delegate_;
  bool updating_ = false;
  int lastStatus_ = kNotDetermined;
};

}  // namespace vorlen
