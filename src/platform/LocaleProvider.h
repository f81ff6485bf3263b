// LocaleProvider: the current locale, the user's preferred languages and the local time zone, as the
// request context needs them.
//
// LinuxLocaleProvider answers through ICU, reading the environment and the preferences at each call:
//   locale               the string preference "VORLocaleOverride" when set and not empty, else the first
//                        set of LC_ALL, LC_MESSAGES, LANG without encoding and modifier ("de_DE.UTF-8@euro"
//                        gives "de_DE"); "C", "POSIX" or nothing give "en_US_POSIX";
//   preferred languages  LANGUAGE split at ":" (each entry's "_" written "-", encoding dropped), else the
//                        locale's language and territory ("en-GB");
//   calendar             the ICU calendar type of the locale ("gregorian", "japanese", ...);
//   measurement system   "Metric", "U.S." or "U.K." from the locale's CLDR measurement system;
//   temperature unit     the user's preference "VORTemperatureUnit" (any text) when set, else the locale's:
//                        "Fahrenheit" for the territories that use it, else "Celsius";
//   hour format pattern  the locale's best pattern for the skeleton "j" (a pattern holding "HH" means a
//                        24-hour clock);
//   time-zone name       TZ when it names a zone (":Europe/Berlin" and zoneinfo paths too), else the zone
//                        /etc/localtime links to, else the host zone ICU detects; e.g. "Europe/Berlin";
//   effective system     the language part of the first preferred language ("de" for "de-AT"): the
//   language             daemon's texts are not localised further than that.
//
// A change is announced by posting kPlatformCurrentLocaleDidChangeNotification (sender: the provider) on the
// notification centre: notifyChanged() always posts, and checkForChanges() posts when the locale or the
// preferred languages differ from what it saw last (it is called periodically by the platform's change
// monitor and on SIGHUP, so an edit of "VORLocaleOverride" is noticed without a signal). checkForChanges()
// also watches the time zone: when TZ, the target of /etc/localtime or that file itself (device, inode,
// modification time, size) changed, it posts kPlatformTimeZoneDidChangeNotification.
//
// Threading: every method is safe from any thread.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/NotificationCenter.h"

namespace vorlen {

class Preferences;

class LocaleProvider {
 public:
  virtual ~LocaleProvider() = default;

  virtual std::string localeIdentifier() const = 0;                         // "en_GB"
  virtual std::vector<std::string> preferredLanguages() const = 0;          // "en-GB", "fr", ...
  virtual std::string calendarIdentifier() const = 0;                       // "gregorian"
  virtual std::string measurementSystem() const = 0;                        // "Metric", "U.S.", "U.K."
  virtual std::optional<std::string> preferredTemperatureUnit() const = 0;  // the user's own choice
  virtual std::string localeTemperatureUnit() const = 0;                    // "Celsius", "Fahrenheit"
  virtual std::string hourFormatPattern() const = 0;                        // "HH:mm", "h:mm a", ...
  virtual std::string timeZoneName() const = 0;                             // "Europe/London"
  virtual std::string effectiveSystemLanguage() const = 0;                  // "en"
  // The territory of the locale ("GB" for "en_GB"); empty when it has none.
  virtual std::string regionCode() const = 0;

  // Posts kPlatformCurrentLocaleDidChangeNotification.
  virtual void notifyChanged() = 0;
};

class LinuxLocaleProvider final : public LocaleProvider {
 public:
  static constexpr const char* kLocaleOverrideKey = "VORLocaleOverride";
  static constexpr const char* kTemperatureUnitKey = "VORTemperatureUnit";

  // Either may be null: without preferences only the environment counts; without a centre nothing is posted.
  // `localtimePath` is the system's local time-zone file (tests point it elsewhere).
  LinuxLocaleProvider(std::shared_ptr<const Preferences> defaults, std::shared_ptr<NotificationCenter> center,
                      std::filesystem::path localtimePath = "/etc/localtime");

  std::string localeIdentifier() const override;
  std::vector<std::string> preferredLanguages() const override;
  std::string calendarIdentifier() const override;
  std::string measurementSystem() const override;
  std::optional<std::string> preferredTemperatureUnit() const override;
  std::string localeTemperatureUnit() const override;
  std::string hourFormatPattern() const override;
  std::string timeZoneName() const override;
  std::string effectiveSystemLanguage() const override;
  std::string regionCode() const override;
  void notifyChanged() override;

  // Posts when the locale or the preferred languages changed since the last check (or construction), and
  // the time-zone notification when the time zone's sources changed.
  void checkForChanges();

  // "de_DE.UTF-8@euro" -> "de_DE"; "C", "POSIX" and "" -> "en_US_POSIX".
  static std::string localeFromPosixName(const std::string& posixName);
  // "de_DE:en_GB.UTF-8:fr" -> {"de-DE", "en-GB", "fr"}; empty entries are skipped.
  static std::vector<std::string> languagesFromLanguageVariable(const std::string& value);

 private:
  std::string snapshot() const;
  std::string timeZoneSnapshot() const;

  std::shared_ptr<const Preferences> defaults_;
  std::shared_ptr<NotificationCenter> center_;
  const std::filesystem::path localtimePath_;
  std::mutex mu_;
  std::string lastSnapshot_;
  std::string lastTimeZoneSnapshot_;
};

}  // namespace vorlen
