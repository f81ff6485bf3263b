// VorlenSubscriptionManager: collects the user's content subscriptions from the TV-provider subscription
// registry and the media store, filters them by the bag's allow-lists, and tells its delegate (the request
// factory) when the set changed. It also tracks the media store's storefront identifier.
//
// Updates are queued on a change of the registry's active subscriptions, of the media store's
// subscription status, or of the bag (whose "subscription_provider_bundle_identifier_whitelist",
// "subscription_provider_domain_whitelist" and "subscription_ttl" it keeps). An update:
//   - without either allow-list in the bag: empties the set and tells the delegate an empty list;
//   - otherwise asks the registry for the subscriptions of the allow-listed apps and domains (one record per
//     provider, a later one replacing an earlier; "active" is whether the modification date lies within
//     the last TTL seconds, so an old subscription is reported inactive rather than dropped), adds the
//     media store's record when its account status is 3, and tells the delegate only when the set differs
//     from the last one.
// The storefront is read at construction and on every storefront change, and always handed on.
//
// Threading: all state lives on the serial queue "com.velmo.vorlen.subscriptionsByProvider-Queue"; the
// delegate is called there (and held weakly). subscriptions() hops onto the queue synchronously.
// REQUIRES: _updateSubscriptions() runs on that queue (asserted); no method is called from the delegate
// callbacks.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "base/NotificationCenter.h"
#include "base/Queue.h"
#include "model/VORBag.h"
#include "network/SubscriptionManager.h"

namespace vorlen {

class Assembly;
class SubscriptionRegistry;
class MediaStore;

class VorlenSubscriptionManager final : public SubscriptionManager,
                                        public std::enable_shared_from_this<VorlenSubscriptionManager> {
 public:
  static constexpr const char* kMediaStoreProvider = "brisk";

  // Reads from the Assembly: notificationCenter, the clock, and the platform's subscription registry and
  // media store (either may be missing: it then contributes nothing).
  static std::shared_ptr<VorlenSubscriptionManager> create(
      const Assembly& assembly, std::weak_ptr<SubscriptionManagerDelegate> delegate);

  Value::Array subscriptions() override;

  void _thirdPartyNotificationDidUpdate(const Notification& notification);
  void _bagChangeNotification(const Notification& notification);
  void _subscriptionChanged(const Notification& notification);
  void _storefrontChanged(const Notification& notification);
  void _updateSubscriptions();

  // Waits until every update queued so far has run.
  void drainForTesting();

 private:
  VorlenSubscriptionManager(const Assembly& assembly, std::weak_ptr<SubscriptionManagerDelegate> delegate);
  void _start();
  void _initializeStorefront();
  void _updateStorefrontIdentifier(const std::optional<std::string>& storefront);
  void _enqueueUpdate();

  std::shared_ptr<NotificationCenter> center_;
  std::shared_ptr<Clock> clock_;
  std::shared_ptr<SubscriptionRegistry> thirdPartySubscriptionRegistrationCenter_;
  std::shared_ptr<MediaStore> mediaStore_;
  std::weak_ptr<SubscriptionManagerDelegate> delegate_;
  std::shared_ptr<Queue> queue_;
  std::vector<std::unique_ptr<NotificationCenter::Token>> observers_;

  // On queue_.
  std::map<std::string, Value> subscriptionsByProvider_;
  std::optional<VORBag> bag_;
  std::optional<std::string> storefrontIdentifier_;
};

}  // namespace vorlen
