#include "platform/MediaStore.h"

#include "base/Preferences.h"

namespace vorlen {

PreferencesMediaStore::PreferencesMediaStore(std::shared_ptr<const Preferences> defaults,
                                             std::shared_ptr<NotificationCenter> center)
    : defaults_(std::move(defaults)), center_(std::move(center)) {
  lastStatus_ = subscriptionAccountStatus();
  lastStorefront_ = storefrontIdentifier();
}

int64_t PreferencesMediaStore::subscriptionAccountStatus() const {
  return defaults_ ? defaults_->integerForKey(kAccountStatusKey) : 0;
}

std::optional<std::string> PreferencesMediaStore::storefrontIdentifier() const {
  return defaults_ ? defaults_->stringForKey(kStorefrontKey) : std::nullopt;
}

void PreferencesMediaStore::checkForChanges() {
  bool statusChanged = false, storefrontChanged = false;
  {
    std::lock_guard lock(mu_);
    int64_t status = subscriptionAccountStatus();
    std::optional<std::string> storefront = storefrontIdentifier();
    statusChanged = status != lastStatus_;
    storefrontChanged = storefront != lastStorefront_;
    lastStatus_ = status;
    lastStorefront_ = std::move(storefront);
  }
  if (!center_) return;
  if (statusChanged) center_->post(kPlatformMediaStoreSubscriptionStatusDidChangeNotification, this);
  if (storefrontChanged) center_->post(kPlatformStorefrontDidChangeNotification, this);
}

}  // namespace vorlen
