#include "network/VorlenSubscriptionManager.h"

#include "base/Log.h"
#include "model/Constants.h"
#include "platform/Assembly.h"
#include "platform/MediaStore.h"
#include "platform/SubscriptionRegistry.h"

namespace vorlen {

namespace {
const Logger& log() {
  return VorlenLogForCategory(VorlenLogCategorySubscription);
}
}  // namespace

VorlenSubscriptionManager::VorlenSubscriptionManager(const Assembly& assembly,
                                                     std::weak_ptr<SubscriptionManagerDelegate> delegate)
    : center_(assembly.notificationCenter),
      clock_(assembly.clock() ? assembly.clock() : Clock::system()),
      thirdPartySubscriptionRegistrationCenter_(assembly.platform.subscriptionRegistry),
      mediaStore_(assembly.platform.mediaStore),
      delegate_(std::move(delegate)) {}

std::shared_ptr<VorlenSubscriptionManager> VorlenSubscriptionManager::create(
    const Assembly& assembly, std::weak_ptr<SubscriptionManagerDelegate> delegate) {
  std::shared_ptr<VorlenSubscriptionManager> manager(
      new VorlenSubscriptionManager(assembly, std::move(delegate)));
  manager->_start();
  return manager;
}

void VorlenSubscriptionManager::_start() {
  queue_ = Queue::serial("com.velmo.vorlen.subscriptionsByProvider-Queue", QueuePriority::Default, clock_);
  if (center_) {
    auto self = shared_from_this();
    using M = VorlenSubscriptionManager;
    observers_.push_back(center_->addObserver<M>(
        kPlatformActiveSubscriptionsDidChangeNotification, thirdPartySubscriptionRegistrationCenter_.get(),
        self, [](M& m, const Notification& n) { m._thirdPartyNotificationDidUpdate(n); }));
    observers_.push_back(
        center_->addObserver<M>(kVORBagChangeNotification, nullptr, self,
                                [](M& m, const Notification& n) { m._bagChangeNotification(n); }));
    observers_.push_back(
        center_->addObserver<M>(kPlatformMediaStoreSubscriptionStatusDidChangeNotification, nullptr, self,
                                [](M& m, const Notification& n) { m._subscriptionChanged(n); }));
    observers_.push_back(
        center_->addObserver<M>(kPlatformStorefrontDidChangeNotification, nullptr, self,
                                [](M& m, const Notification& n) { m._storefrontChanged(n); }));
  }
  _initializeStorefront();
}

Value::Array VorlenSubscriptionManager::subscriptions() {
  Value::Array out;
  queue_->sync([&] {
    for (const auto& [provider, record] : subscriptionsByProvider_) out.push_back(record);
  });
  return out;
}

void VorlenSubscriptionManager::_enqueueUpdate() {
  std::weak_ptr<VorlenSubscriptionManager> weak = weak_from_this();
  queue_->async([weak] {
    if (auto m = weak.lock()) m->_updateSubscriptions();
  });
}

void VorlenSubscriptionManager::_thirdPartyNotificationDidUpdate(const Notification&) {
  _enqueueUpdate();
}
void VorlenSubscriptionManager::_subscriptionChanged(const Notification&) {
  _enqueueUpdate();
}

void VorlenSubscriptionManager::_bagChangeNotification(const Notification& notification) {
  const Value* record = notification.userInfo.find(kVORBagKey);
  std::optional<VORBag> bag = record ? VORBag::fromRecord(*record) : std::nullopt;
  std::weak_ptr<VorlenSubscriptionManager> weak = weak_from_this();
  queue_->async([weak, bag = std::move(bag)] {
    auto m = weak.lock();
    if (!m) return;
    m->bag_ = bag;
    m->_updateSubscriptions();
  });
}

void VorlenSubscriptionManager::_storefrontChanged(const Notification&) {
  _initializeStorefront();
}

void VorlenSubscriptionManager::_initializeStorefront() {
  std::weak_ptr<VorlenSubscriptionManager> weak = weak_from_this();
  queue_->async([weak] {
    auto m = weak.lock();
    if (!m) return;
    m->_updateStorefrontIdentifier(m->mediaStore_ ? m->mediaStore_->storefrontIdentifier() : std::nullopt);
  });
}

void VorlenSubscriptionManager::_updateStorefrontIdentifier(const std::optional<std::string>& storefront) {
  queue_->assertCurrent();
  storefrontIdentifier_ = storefront;
  if (auto delegate = delegate_.lock())
    delegate->subscriptionManagerDidUpdateStorefrontIdentifier(storefront);
}

void VorlenSubscriptionManager::_updateSubscriptions() {
  queue_->assertCurrent();
  log().debug("updating subscription info");
  auto delegate = delegate_.lock();
  std::optional<std::vector<std::string>> domains, bundles;
  double ttl = 0;
  if (bag_) {
    domains = bag_->subscriptionProviderDomainWhitelist();
    bundles = bag_->subscriptionProviderBundleIdentifierWhitelist();
    ttl = bag_->subscriptionTTL();
  }
  if (!domains || !bundles) {
    subscriptionsByProvider_.clear();
    if (delegate) delegate->subscriptionManagerDidUpdateSubscriptionDictionaries({});
    return;
  }
  const bool holdsMediaStoreSubscription =
      mediaStore_ && mediaStore_->subscriptionAccountStatus() == MediaStore::kSubscribedStatus;

  std::map<std::string, Value> fresh;
  if (thirdPartySubscriptionRegistrationCenter_) {
    SubscriptionFetchOptions options{*bundles, *domains};
    std::string error;
    auto found = thirdPartySubscriptionRegistrationCenter_->activeSubscriptions(options, &error);
    if (!found) {
      log().error("Error fetching third party subscription information from daemon: {}", error);
    } else {
      const Time now = clock_->now();
      const Time since = now - std::chrono::duration_cast<Duration>(std::chrono::duration<double>(ttl));
      for (const ThirdPartySubscription& s : *found) {
        const bool active = s.modificationDate >= since && s.modificationDate <= now;
        Value record = Value::dict({{"provider", Value(s.providerIdentifier)}, {"active", Value(active)}});
        if (!s.subscriptionInfo.isNull()) record.set("type", s.subscriptionInfo);
        fresh[s.providerIdentifier] = std::move(record);
      }
    }
  }
  if (holdsMediaStoreSubscription) {
    fresh[kMediaStoreProvider] = Value::dict(
        {{"provider", Value(kMediaStoreProvider)}, {"attribute", Value("premium")}, {"active", Value(true)}});
  }
  if (fresh == subscriptionsByProvider_) return;
  subscriptionsByProvider_ = std::move(fresh);
  if (!delegate) return;
  Value::Array list;
  for (const auto& [provider, record] : subscriptionsByProvider_) list.push_back(record);
  delegate->subscriptionManagerDidUpdateSubscriptionDictionaries(list);
}

void VorlenSubscriptionManager::drainForTesting() {
  queue_->sync([] {});
}

}  // namespace vorlen
