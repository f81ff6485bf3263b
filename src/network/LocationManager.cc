#include "network/LocationManager.h"

#include <openssl/evp.h>

#include "platform/Assembly.h"
#include "platform/GeoConfiguration.h"

namespace vorlen {

std::shared_ptr<LocationManager> LocationManager::create(const Assembly& assembly) {
  return create(assembly.platform.location, assembly.platform.geoSession, assembly.platform.geo);
}

std::shared_ptr<LocationManager> LocationManager::create(std::shared_ptr<LocationProvider> location,
                                                         std::shared_ptr<GeoSession> geoSession,
                                                         std::shared_ptr<GeoConfiguration> geo) {
  return std::shared_ptr<LocationManager>(
      new LocationManager(std::move(location), std::move(geoSession), std::move(geo)));
}

LocationManager::LocationManager(std::shared_ptr<LocationProvider> location,
                                 std::shared_ptr<GeoSession> geoSession,
                                 std::shared_ptr<GeoConfiguration> geo)
    : provider_(std::move(location)),
      geoSession_(std::move(geoSession)),
      geo_(std::move(geo)),
      queue_(Queue::serial("com.velmo.vorlend.location")) {}

int LocationManager::authorizationStatus() const {
  return provider_ ? provider_->authorizationStatus() : LocationProvider::kNotDetermined;
}

bool LocationManager::locationServicesEnabled() const {
  return provider_ && provider_->locationServicesEnabled();
}

void LocationManager::startUpdatingLocation(std::weak_ptr<LocationDelegate> delegate) {
  if (!provider_) return;
  std::weak_ptr<LocationManager> weak = weak_from_this();
  queue_->async([weak, delegate = std::move(delegate)] {
    auto self = weak.lock();
    if (!self) return;
    // The first start creates the client with its delegate; later delegates are not taken.
    if (!self->hasLocationClient_) {
      self->hasLocationClient_ = true;
      self->provider_->setDelegate(delegate);
    }
    self->provider_->startUpdatingLocation();
  });
}

void LocationManager::stopUpdatingLocation() {
  if (!provider_) return;
  std::weak_ptr<LocationManager> weak = weak_from_this();
  queue_->async([weak] {
    auto self = weak.lock();
    if (self && self->hasLocationClient_) self->provider_->stopUpdatingLocation();
  });
}

std::optional<GeoSessionEntity> LocationManager::getMapsUserSessionEntityAndReset(bool reset) {
  if (!geoSession_) return std::nullopt;
  return geoSession_->userSessionEntity(reset);
}

std::optional<std::string> LocationManager::mapsEnvironment() const {
  if (!geo_) return std::nullopt;
  return geo_->environmentName();
}

std::string LocationManager::getMapsClientMetadata() const {
  if (!geo_) return "";
  std::vector<uint8_t> bytes = geo_->clientMetadata();
  if (bytes.empty()) return "";
  std::string out(4 * ((bytes.size() + 2) / 3), '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes.data(),
                          static_cast<int>(bytes.size()));
  out.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return out;
}

std::string LocationManager::getDeviceCountryCode() const {
  return geo_ ? geo_->countryCode() : std::string();
}

void LocationManager::flushForTesting() {
  queue_->sync([] {});
}

}  // namespace vorlen
