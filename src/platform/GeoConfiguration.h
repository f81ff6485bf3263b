// GeoConfiguration: what the geo services are configured with: the geo resource environment's name, the
// geo map service's client metadata for this service, and the device country code.
//
// LinuxGeoConfiguration:
//   environment name  the string preference "VORGeoEnvironment" when set and not empty, else "prod";
//   client metadata   the bytes of a compact JSON object naming this service and the geo environment:
//                     {"app":"com.velmo.vorlend","env":"prod"};
//   country code      the string preference "VORCountryCode" when it is two ASCII letters (upper-cased),
//                     else the territory of the current locale; empty when neither gives one. A malformed
//                     preference is logged and ignored.
// checkForChanges() posts kPlatformCountryCodeDidChangeNotification (sender: the configuration) when the
// country code differs from the one it saw last; the platform's change monitor calls it periodically and
// after a locale change.
//
// Threading: every method is safe from any thread.
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
class LocaleProvider;

class GeoConfiguration {
 public:
  virtual ~GeoConfiguration() = default;
  virtual std::optional<std::string> environmentName() const = 0;
  virtual std::vector<uint8_t> clientMetadata() const = 0;
  virtual std::string countryCode() const = 0;
};

class LinuxGeoConfiguration final : public GeoConfiguration {
 public:
  static constexpr const char* kEnvironmentKey = "VORGeoEnvironment";
  static constexpr const char* kCountryCodeKey = "VORCountryCode";
  static constexpr const char* kDefaultEnvironment = "prod";

  // Any argument may be null.
  LinuxGeoConfiguration(std::shared_ptr<const Preferences> defaults,
                        std::shared_ptr<const LocaleProvider> locale,
                        std::shared_ptr<NotificationCenter> center);

  std::optional<std::string> environmentName() const override;
  std::vector<uint8_t> clientMetadata() const override;
  std::string countryCode() const override;

  // Posts kPlatformCountryCodeDidChangeNotification when the country code changed since the last check.
  void checkForChanges();

 private:
  std::shared_ptr<const Preferences> defaults_;
  std::shared_ptr<const LocaleProvider> locale_;
  std::shared_ptr<NotificationCenter> center_;
  std::mutex mu_;
  std::string lastCountryCode_;
};

}  // namespace vorlen
