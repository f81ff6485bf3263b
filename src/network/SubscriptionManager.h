// SubscriptionManager: the role of the keeper of the user's content subscriptions, and the delegate it
// hands them to (the request factory, which sends them as "X-Velmo-Subscriptions" and the storefront as
// the "storefront" query item).
//
// A subscription record is a dictionary: {"provider": <provider identifier>, "type": <the registry's
// subscription information>, "active": <modified within the bag's subscription TTL>}; the media store's own
// subscription is {"provider": "brisk", "attribute": "premium", "active": true}.
//
// Threading: see the implementation's header.
#pragma once

#include <optional>
#include <string>

#include "base/Value.h"

namespace vorlen {

class SubscriptionManagerDelegate {
 public:
  virtual ~SubscriptionManagerDelegate() = default;
  virtual void subscriptionManagerDidUpdateSubscriptionDictionaries(const Value::Array& dictionaries) = 0;
  virtual void subscriptionManagerDidUpdateStorefrontIdentifier(
      const std::optional<std::string>& storefront) = 0;
};

class SubscriptionManager {
 public:
  virtual ~SubscriptionManager() = default;
  // The current subscription records.
  virtual Value::Array subscriptions() = 0;
};

}  // namespace vorlen
