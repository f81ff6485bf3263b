#include "platform/DeviceRestrictions.h"

#include "base/Preferences.h"
#include "platform/PlatformNotifications.h"

namespace vorlen {

void DeviceRestrictions::setVisibilitySetting(const std::string& setting, bool visible) {
  std::lock_guard lock(visibilityMu_);
  visibility_[setting] = visible;
}

std::optional<bool> DeviceRestrictions::visibilitySetting(const std::string& setting) const {
  std::lock_guard lock(visibilityMu_);
  auto it = visibility_.find(setting);
  if (it == visibility_.end()) return std::nullopt;
  return it->second;
}

// ---- LinuxDeviceRestrictions
// ---------------------------------------------------------------------------------

LinuxDeviceRestrictions::LinuxDeviceRestrictions(std::shared_ptr<const Preferences> defaults,
                                                 std::shared_ptr<NotificationCenter> center)
    : defaults_(std::move(defaults)), center_(std::move(center)) {
  lastSettings_ = settingsSnapshot();
  lastManaged_ = isManagedAccount();
}

std::optional<bool> LinuxDeviceRestrictions::restriction(const char* key) const {
  if (!defaults_) return std::nullopt;
  auto dict = defaults_->dictionaryForKey(kRestrictionsKey);
  if (!dict) return std::nullopt;
  auto it = dict->find(key);
  if (it == dict->end()) return std::nullopt;
  return it->second.getBool();
}

int LinuxDeviceRestrictions::bookStoreSetting() const {
  auto allowed = restriction("allowBookstore");
  if (!allowed) return kNotSet;
  return *allowed ? kYes : kNo;
}

bool LinuxDeviceRestrictions::isMediaStoreAllowed() const {
  return restriction("allowMediaStore").value_or(true);
}

bool LinuxDeviceRestrictions::isAppInstallationAllowed() const {
  return restriction("allowAppInstallation").value_or(true);
}

bool LinuxDeviceRestrictions::isDiagnosticSubmissionAllowed() const {
  return defaults_ && defaults_->boolForKey(kDiagnosticsAllowedKey);
}

bool LinuxDeviceRestrictions::isManagedAccount() const {
  return defaults_ && defaults_->boolForKey(kManagedAccountKey);
}

std::string LinuxDeviceRestrictions::settingsSnapshot() const {
  return std::to_string(bookStoreSetting()) + char('0' + isMediaStoreAllowed()) +
         char('0' + isAppInstallationAllowed()) + char('0' + isDiagnosticSubmissionAllowed());
}

void LinuxDeviceRestrictions::checkForChanges() {
  std::string settings = settingsSnapshot();
  bool managed = isManagedAccount();
  bool settingsChanged, managedChanged;
  {
    std::lock_guard lock(mu_);
    settingsChanged = settings != lastSettings_;
    managedChanged = managed != lastManaged_;
    lastSettings_ = settings;
    lastManaged_ = managed;
  }
  if (!center_) return;
  if (settingsChanged) center_->post(kPlatformEffectiveSettingsDidChangeNotification, this);
  if (managedChanged) {
    // The managed account is the one account this platform knows: its change is a change of the account
    // store and of the account's credentials alike.
    center_->post(kPlatformAccountStoreDidChangeNotification, this);
    center_->post(kPlatformAccountCredentialsDidChangeNotification, this);
  }
}

}  // namespace vorlen
