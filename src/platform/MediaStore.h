// MediaStore: the media store's own subscription status and the device's storefront.
//
// PreferencesMediaStore reads the preferences at each call: "VORMediaStoreAccountStatus" (integer; 3 means
// the user holds the store's subscription, anything else that they do not) and "VORStorefrontIdentifier"
// (string). checkForChanges() posts kPlatformMediaStoreSubscriptionStatusDidChangeNotification and
// kPlatformStorefrontDidChangeNotification (sender: the store) for the values that changed since the last
// check; the platform's change monitor calls it.
//
// Threading: every method is safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/NotificationCenter.h"

namespace vorlen {

class Preferences;

inline constexpr const char* kPlatformMediaStoreSubscriptionStatusDidChangeNotification =
    "VORPlatformMediaStoreSubscriptionStatusDidChange";
inline constexpr const char* kPlatformStorefrontDidChangeNotification = "VORPlatformStorefrontDidChange";

class MediaStore {
 public:
  static constexpr int64_t kSubscribedStatus = 3;
  virtual ~MediaStore() = default;
  // The store's last known subscription account status.
  virtual int64_t subscriptionAccountStatus() const = 0;
  virtual std::optional<std::string> storefrontIdentifier() const = 0;
};

class PreferencesMediaStore final : public MediaStore {
 public:
  static constexpr const char* kAccountStatusKey = "VORMediaStoreAccountStatus";
  static constexpr const char* kStorefrontKey = "VORStorefrontIdentifier";

  PreferencesMediaStore(std::shared_ptr<const Preferences> defaults,
                        std::shared_ptr<NotificationCenter> center);

  int64_t subscriptionAccountStatus() const override;
  std::optional<std::string> storefrontIdentifier() const override;
  void checkForChanges();

 private:
  std::shared_ptr<const Preferences> defaults_;
  std::shared_ptr<NotificationCenter> center_;
  std::mutex mu_;
  int64_t lastStatus_;
  std::optional<std::string> lastStorefront_;
};

}  // namespace vorlen
