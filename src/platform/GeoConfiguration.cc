#include "platform/GeoConfiguration.h"

#include <cctype>

#include "base/Log.h"
#include "base/Preferences.h"
#include "platform/LocaleProvider.h"
#include "platform/PlatformNotifications.h"

namespace vorlen {

// ---- LinuxGeoConfiguration
// -----------------------------------------------------------------------------------

LinuxGeoConfiguration::LinuxGeoConfiguration(std::shared_ptr<const Preferences> defaults,
                                             std::shared_ptr<const LocaleProvider> locale,
                                             std::shared_ptr<NotificationCenter> center)
    : defaults_(std::move(defaults)), locale_(std::move(locale)), center_(std::move(center)) {
  lastCountryCode_ = countryCode();
}

std::optional<std::string> LinuxGeoConfiguration::environmentName() const {
  if (defaults_) {
    auto name = defaults_->stringForKey(kEnvironmentKey);
    if (name && !name->empty()) return name;
  }
  return std::string(kDefaultEnvironment);
}

std::vector<uint8_t> LinuxGeoConfiguration::clientMetadata() const {
  // Keys in alphabetical order; quotes and backslashes of the environment name are escaped, control
  // characters dropped.
  std::string environment = environmentName().value_or(kDefaultEnvironment);
  std::string escaped;
  for (char c : environment) {
    if (c == '"' || c == '\\') escaped += '\\';
    if (static_cast<unsigned char>(c) < 0x20) continue;
    escaped += c;
  }
  std::string text = std::string("{\"app\":\"com.velmo.vorlend\",\"env\":\"") + escaped + "\"}";
  return std::vector<uint8_t>(text.begin(), text.end());
}

std::string LinuxGeoConfiguration::countryCode() const {
  if (defaults_) {
    auto code = defaults_->stringForKey(kCountryCodeKey);
    if (code && !code->empty()) {
      if (code->size() == 2 && std::isalpha(static_cast<unsigned char>((*code)[0])) &&
          std::isalpha(static_cast<unsigned char>((*code)[1]))) {
        std::string upper = *code;
        for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return upper;
      }
      VorlenDefaultLog().error("ignoring preference {}: not a two-letter country code: {}", kCountryCodeKey,
                               *code);
    }
  }
  return locale_ ? locale_->regionCode() : std::string();
}

void LinuxGeoConfiguration::checkForChanges() {
  std::string code = countryCode();
  {
    std::lock_guard lock(mu_);
    if (code == lastCountryCode_) return;
    lastCountryCode_ = code;
  }
  VorlenDefaultLog().info("device country code changed to {}", code);
  if (center_) center_->post(kPlatformCountryCodeDidChangeNotification, this);
}

}  // namespace vorlen
