#include "platform/LocaleProvider.h"

#include <unicode/calendar.h>
#include <unicode/dtptngen.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>
#include <unicode/ulocdata.h>
#include <unicode/unistr.h>

#include <sys/stat.h>

#include <cstdlib>
#include <set>

#include <fmt/format.h>

#include "base/Log.h"
#include "base/Preferences.h"
#include "platform/PlatformNotifications.h"

namespace vorlen {

namespace {

std::string envValue(const char* name) {
  const char* v = std::getenv(name);
  return v ? std::string(v) : std::string();
}

std::string toUtf8(const icu::UnicodeString& s) {
  std::string out;
  s.toUTF8String(out);
  return out;
}

// Territories whose everyday temperature unit is Fahrenheit.
const std::set<std::string>& fahrenheitTerritories() {
  static const std::set<std::string> territories = {"US", "BS", "BZ", "KY", "PW", "LR", "PR",
                                                    "GU", "VI", "AS", "MP", "FM", "MH"};
  return territories;
}

}  // namespace

// ---- LinuxLocaleProvider
// -------------------------------------------------------------------------------------

LinuxLocaleProvider::LinuxLocaleProvider(std::shared_ptr<const Preferences> defaults,
                                         std::shared_ptr<NotificationCenter> center,
                                         std::filesystem::path localtimePath)
    : defaults_(std::move(defaults)), center_(std::move(center)), localtimePath_(std::move(localtimePath)) {
  lastSnapshot_ = snapshot();
  lastTimeZoneSnapshot_ = timeZoneSnapshot();
}

std::string LinuxLocaleProvider::localeFromPosixName(const std::string& posixName) {
  std::string name = posixName.substr(0, posixName.find_first_of(".@"));
  if (name.empty() || name == "C" || name == "POSIX") return "en_US_POSIX";
  return name;
}

std::vector<std::string> LinuxLocaleProvider::languagesFromLanguageVariable(const std::string& value) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= value.size()) {
    size_t end = value.find(':', start);
    if (end == std::string::npos) end = value.size();
    std::string entry = value.substr(start, end - start);
    entry = entry.substr(0, entry.find_first_of(".@"));
    for (char& c : entry) {
      if (c == '_') c = '-';
    }
    if (!entry.empty() && entry != "C" && entry != "POSIX") out.push_back(entry);
    start = end + 1;
  }
  return out;
}

std::string LinuxLocaleProvider::localeIdentifier() const {
  if (defaults_) {
    auto override = defaults_->stringForKey(kLocaleOverrideKey);
    if (override && !override->empty()) return *override;
  }
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    std::string v = envValue(name);
    if (!v.empty()) return localeFromPosixName(v);
  }
  return localeFromPosixName("");
}

std::vector<std::string> LinuxLocaleProvider::preferredLanguages() const {
  auto languages = languagesFromLanguageVariable(envValue("LANGUAGE"));
  if (!languages.empty()) return languages;
  icu::Locale locale(localeIdentifier().c_str());
  std::string tag = locale.getLanguage();
  if (tag.empty()) tag = "en";
  if (*locale.getCountry()) tag += std::string("-") + locale.getCountry();
  return {tag};
}

std::string LinuxLocaleProvider::calendarIdentifier() const {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Calendar> calendar(
      icu::Calendar::createInstance(icu::Locale(localeIdentifier().c_str()), status));
  if (U_FAILURE(status) || !calendar) return "gregorian";
  return calendar->getType();
}

std::string LinuxLocaleProvider::measurementSystem() const {
  UErrorCode status = U_ZERO_ERROR;
  UMeasurementSystem system = ulocdata_getMeasurementSystem(localeIdentifier().c_str(), &status);
  if (U_FAILURE(status)) return "Metric";
  switch (system) {
    case UMS_US:
      return "U.S.";
    case UMS_UK:
      return "U.K.";
    default:
      return "Metric";
  }
}

std::optional<std::string> LinuxLocaleProvider::preferredTemperatureUnit() const {
  if (!defaults_) return std::nullopt;
  auto unit = defaults_->stringForKey(kTemperatureUnitKey);
  if (!unit || unit->empty()) return std::nullopt;
  return unit;
}

std::string LinuxLocaleProvider::localeTemperatureUnit() const {
  return fahrenheitTerritories().contains(regionCode()) ? "Fahrenheit" : "Celsius";
}

std::string LinuxLocaleProvider::hourFormatPattern() const {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::DateTimePatternGenerator> generator(
      icu::DateTimePatternGenerator::createInstance(icu::Locale(localeIdentifier().c_str()), status));
  if (U_FAILURE(status) || !generator) return "";
  icu::UnicodeString pattern = generator->getBestPattern(icu::UnicodeString("j"), status);
  if (U_FAILURE(status)) return "";
  return toUtf8(pattern);
}

namespace {

// "Europe/Berlin" of ".../zoneinfo/Europe/Berlin"; empty when the path is not in a zoneinfo folder.
std::string zoneOfPath(const std::string& path) {
  const size_t at = path.find("zoneinfo/");
  return at == std::string::npos ? std::string() : path.substr(at + 9);
}

bool isKnownZone(const std::string& id) {
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString canonical;
  icu::TimeZone::getCanonicalID(icu::UnicodeString::fromUTF8(id), canonical, status);
  return U_SUCCESS(status);
}

}  // namespace

std::string LinuxLocaleProvider::timeZoneName() const {
  // Read afresh each time (the host zone of the time-zone library is fixed once per process): TZ naming a
  // zone, else the zone /etc/localtime links to, else what the library detects.
  if (const char* tz = std::getenv("TZ"); tz && *tz) {
    std::string value = tz[0] == ':' ? tz + 1 : tz;
    if (value.starts_with("/")) {
      if (std::string zone = zoneOfPath(value); !zone.empty()) return zone;
    } else if (isKnownZone(value)) {
      return value;
    }
  }
  std::error_code ec;
  const std::filesystem::path target = std::filesystem::read_symlink(localtimePath_, ec);
  if (!ec) {
    if (std::string zone = zoneOfPath(target.string()); !zone.empty()) return zone;
  }
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::detectHostTimeZone());
  if (!zone) return "";
  icu::UnicodeString id;
  zone->getID(id);
  return toUtf8(id);
}

std::string LinuxLocaleProvider::effectiveSystemLanguage() const {
  auto languages = preferredLanguages();
  if (languages.empty()) return "en";
  const std::string& first = languages.front();
  return first.substr(0, first.find('-'));
}

std::string LinuxLocaleProvider::regionCode() const {
  return icu::Locale(localeIdentifier().c_str()).getCountry();
}

void LinuxLocaleProvider::notifyChanged() {
  {
    std::lock_guard lock(mu_);
    lastSnapshot_ = snapshot();
  }
  if (center_) center_->post(kPlatformCurrentLocaleDidChangeNotification, this);
}

void LinuxLocaleProvider::checkForChanges() {
  std::string now = snapshot();
  std::string zoneNow = timeZoneSnapshot();
  bool localeChanged, zoneChanged;
  {
    std::lock_guard lock(mu_);
    localeChanged = now != lastSnapshot_;
    zoneChanged = zoneNow != lastTimeZoneSnapshot_;
    lastSnapshot_ = now;
    lastTimeZoneSnapshot_ = zoneNow;
  }
  if (localeChanged) {
    VorlenDefaultLog().info("current locale changed: {}", now);
    if (center_) center_->post(kPlatformCurrentLocaleDidChangeNotification, this);
  }
  if (zoneChanged) {
    VorlenDefaultLog().info("time zone changed: {}", timeZoneName());
    if (center_) center_->post(kPlatformTimeZoneDidChangeNotification, this);
  }
}

std::string LinuxLocaleProvider::timeZoneSnapshot() const {
  // TZ, where /etc/localtime links, and which file it is and when it was written (it may be a copy).
  const char* tz = std::getenv("TZ");
  std::string s = tz ? std::string("TZ=") + tz : std::string("no TZ");
  std::error_code ec;
  s += " -> " + std::filesystem::read_symlink(localtimePath_, ec).string();
  struct stat st {};
  if (::stat(localtimePath_.c_str(), &st) == 0) {
    s += fmt::format(" {}:{} {}.{} {}", st.st_dev, st.st_ino, st.st_mtim.tv_sec, st.st_mtim.tv_nsec,
                     st.st_size);
  }
  return s;
}

std::string LinuxLocaleProvider::snapshot() const {
  std::string s = localeIdentifier();
  for (const std::string& language : preferredLanguages()) s += " " + language;
  if (auto unit = preferredTemperatureUnit()) s += " " + *unit;
  return s;
}

}  // namespace vorlen
