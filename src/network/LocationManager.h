// LocationManager: the daemon's thin adapter to the platform's location and geo services. The request
// context starts and stops location updates through it, asks it for the location authorisation, and reads
// from it the geo values sent with requests: the device country code ("cc"), the geo session id
// ("X-Velmo-GeoSession"), the geo environment name ("X-Velmo-GeoEnvironment") and the geo client metadata
// ("X-Velmo-GeoMetadata").
//
// The location client is created on the first startUpdatingLocation() with that call's delegate, asking for
// kilometre accuracy (a coarse position is all requests need, and it keeps the cost of location low); a later
// start with another delegate keeps the first client and its delegate. stopUpdatingLocation() stops the
// client's updates and keeps the client.
//
// Threading: the location client is created, started and stopped only on the serial queue
// "com.velmo.vorlend.location" (start and stop return at once and run there in call order); location
// callbacks reach the delegate on the thread the platform delivers them on, and the delegate moves them onto
// its own queue. Every other method is synchronous and safe from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/Queue.h"
#include "platform/GeoSession.h"
#include "platform/LocationProvider.h"

namespace vorlen {

class Assembly;
class GeoConfiguration;

class LocationManager : public std::enable_shared_from_this<LocationManager> {
 public:
  static constexpr double kDesiredAccuracyMeters = 1000.0;

  static std::shared_ptr<LocationManager> create(const Assembly& assembly);
  // Any service may be null: then the manager answers as if the service had nothing to say (status 0, no
  // updates, no session, no environment, empty metadata and country code).
  static std::shared_ptr<LocationManager> create(std::shared_ptr<LocationProvider> location,
                                                 std::shared_ptr<GeoSession> geoSession,
                                                 std::shared_ptr<GeoConfiguration> geo);

  // The location authorisation (LocationProvider numbering; 3 and 4 are authorised).
  int authorizationStatus() const;
  bool locationServicesEnabled() const;
  void startUpdatingLocation(std::weak_ptr<LocationDelegate> delegate);
  void stopUpdatingLocation();

  // The geo session service's user session; `reset` starts a new session first.
  std::optional<GeoSessionEntity> getMapsUserSessionEntityAndReset(bool reset);
  std::optional<std::string> mapsEnvironment() const;
  // The client metadata as standard base64 without line breaks.
  std::string getMapsClientMetadata() const;
  std::string getDeviceCountryCode() const;

  // Waits until every start and stop issued before has run.
  void flushForTesting();

 private:
  LocationManager(std::shared_ptr<LocationProvider> location, std::shared_ptr<GeoSession> geoSession,
                  std::shared_ptr<GeoConfiguration> geo);

  std::shared_ptr<LocationProvider> provider_;
  std::shared_ptr<GeoSession> geoSession_;
  std::shared_ptr<GeoConfiguration> geo_;
  std::shared_ptr<Queue> queue_;
  bool hasLocationClient_ = false;  // on queue_
};

}  // namespace vorlen
