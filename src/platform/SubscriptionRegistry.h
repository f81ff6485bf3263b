// SubscriptionRegistry: the TV-provider subscription registry, the source of the subscriptions the user
// holds in other video apps.
//
// FileSubscriptionRegistry realises it as `subscriptions.json` in the config folder:
//   {"subscriptions": [{"provider": <provider identifier>, "bundleIdentifier": <app id>, "domain": <web
//     domain>, "type": <subscription information, any JSON value>, "modified": <seconds since 1970>}]}
// A fetch answers the entries whose "bundleIdentifier" is in the options' bundle identifiers or whose
// "domain" is in their domains, in file order. An entry without a string "provider" or a numeric
// "modified" is skipped. A missing file holds no subscriptions; a file that cannot be read or is not such
// a document (or is larger than 1 MiB, or nests deeper than the JSON limit) is an error.
// The active-subscriptions-changed notification is kPlatformActiveSubscriptionsDidChangeNotification
// (sender: the registry); checkForChanges() posts it when the file's identity, size or modification time
// changed since the last check (the platform's change monitor calls it).
//
// Threading: every method is safe from any thread.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "base/NotificationCenter.h"
#include "base/Value.h"

namespace vorlen {

inline constexpr const char* kPlatformActiveSubscriptionsDidChangeNotification =
    "VORPlatformActiveSubscriptionsDidChange";

struct ThirdPartySubscription {
  std::string providerIdentifier;
  Value subscriptionInfo;  // the entry's "type"; null when absent
  Time modificationDate;
};

struct SubscriptionFetchOptions {
  std::vector<std::string> bundleIdentifiers;
  std::vector<std::string> domains;
};

class SubscriptionRegistry {
 public:
  virtual ~SubscriptionRegistry() = default;
  // The matching subscriptions, or nothing with *error set.
  virtual std::optional<std::vector<ThirdPartySubscription>> activeSubscriptions(
      const SubscriptionFetchOptions& options, std::string* error) const = 0;
};

class FileSubscriptionRegistry final : public SubscriptionRegistry {
 public:
  static constexpr const char* kFileName = "subscriptions.json";
  static constexpr size_t kMaxFileBytes = 1 << 20;

  // `center` may be null (no notification then).
  FileSubscriptionRegistry(std::filesystem::path file, std::shared_ptr<NotificationCenter> center);

  std::optional<std::vector<ThirdPartySubscription>> activeSubscriptions(
      const SubscriptionFetchOptions& options, std::string* error) const override;
  void checkForChanges();

  // The subscriptions of a document's text, before filtering; nothing with *error for a bad document.
  static std::optional<std::vector<std::pair<ThirdPartySubscription, std::pair<std::string, std::string>>>>
  parse(std::string_view text, std::string* error);

 private:
  std::string stamp() const;

  std::filesystem::path file_;
  std::shared_ptr<NotificationCenter> center_;
  std::mutex mu_;
  std::string lastStamp_;
};

}  // namespace vorlen
