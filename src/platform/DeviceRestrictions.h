// DeviceRestrictions: the device-management restrictions, the managed-account flag and the diagnostics
// consent that the request context reads, and the visibility settings the daemon writes back.
//
// LinuxDeviceRestrictions reads preferences at each call:
//   "VORRestrictions"       dictionary; "allowBookstore" (bool; absent = not set), "allowMediaStore" (bool,
//                           default true), "allowAppInstallation" (bool, default true). A value of another
//                           type counts as absent.
//   "VORManagedAccount"     bool, default false: the primary account is a managed one.
//   "VORDiagnosticsAllowed" bool, default false: the user agreed to send diagnostics and usage data.
// Effective boolean values follow the management service's numbering: 0 not set, 1 yes, 2 no.
// checkForChanges() posts kPlatformEffectiveSettingsDidChangeNotification when the restrictions or the
// diagnostics consent changed, and kPlatformAccountStoreDidChangeNotification followed by
// kPlatformAccountCredentialsDidChangeNotification when the managed-account flag changed, since the last
// check (sender: the restrictions object); the platform's change monitor calls it.
//
// Visibility settings (for example whether news may appear in system search) have no reader on this
// platform besides visibilitySetting(); they are kept in memory.
//
// Threading: every method is safe from any thread.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/NotificationCenter.h"

namespace vorlen {

class Preferences;

class DeviceRestrictions {
 public:
  static constexpr int kNotSet = 0;
  static constexpr int kYes = 1;
  static constexpr int kNo = 2;

  virtual ~DeviceRestrictions() = default;
  // Effective boolean value of the book-store feature setting (kNotSet, kYes, kNo).
  virtual int bookStoreSetting() const = 0;
  virtual bool isMediaStoreAllowed() const = 0;
  virtual bool isAppInstallationAllowed() const = 0;
  virtual bool isDiagnosticSubmissionAllowed() const = 0;
  virtual bool isManagedAccount() const = 0;

  void setVisibilitySetting(const std::string& setting, bool visible);
  std::optional<bool> visibilitySetting(const std::string& setting) const;

 private:
  mutable std::mutex visibilityMu_;
  std::map<std::string, bool> visibility_;
};

class LinuxDeviceRestrictions final : public DeviceRestrictions {
 public:
  static constexpr const char* kRestrictionsKey = "VORRestrictions";
  static constexpr const char* kManagedAccountKey = "VORManagedAccount";
  static constexpr const char* kDiagnosticsAllowedKey = "VORDiagnosticsAllowed";

  // Either may be null.
  LinuxDeviceRestrictions(std::shared_ptr<const Preferences> defaults,
                          std::shared_ptr<NotificationCenter> center);

  int bookStoreSetting() const override;
  bool isMediaStoreAllowed() const override;
  bool isAppInstallationAllowed() const override;
  bool isDiagnosticSubmissionAllowed() const override;
  bool isManagedAccount() const override;

  void checkForChanges();

 private:
  std::optional<bool> restriction(const char* key) const;
  std::string settingsSnapshot() const;

  std::shared_ptr<const Preferences> defaults_;
  std::shared_ptr<NotificationCenter> center_;
  std::mutex mu_;
  std::string lastSettings_;
  bool lastManaged_ = false;
};

}  // namespace vorlen
