#include "network/VORNetworkRequestFactory.h"

#include <mutex>

#include "base/Log.h"
#include "base/Preferences.h"
#include "model/Constants.h"
#include "network/BagController.h"
#include "network/LocationManager.h"
#include "network/UrlComponents.h"
#include "network/UserAgent.h"
#include "network/VORRequestContext.h"
#include "network/VorlenURLRequestBuilder.h"
#include "platform/Assembly.h"
#include "platform/DeviceProperties.h"
#include "platform/DeviceRestrictions.h"
#include "platform/LocaleProvider.h"
#include "platform/PlatformNotifications.h"

namespace vorlen {

namespace {

const Logger& requestLog() {
  return VorlenLogForCategory(VorlenLogCategoryRequest);
}

constexpr const char* kDebugParametersKey = "VORDebugParameters";
constexpr const char* kUseQuintaraKey = "VORUseQuintara";
// The client text whose agent resource downloads are sent with.
constexpr const char* kDownloadClientText = "Norvanta/1";
// Visibility settings written on every new bag, with the client agent whose view of the bag decides them.
constexpr const char* kNewsVisibilitySetting = "allowNewsInSystemSearch";
constexpr const char* kNewsAgent = "news";
constexpr const char* kHashtagImagesVisibilitySetting = "allowHashtagImagesInSystemSearch";
constexpr const char* kHashtagImagesAgent = "hashtagimages";

std::vector<QueryItem> queryItemsOf(const VORRequest& query) {
  std::vector<QueryItem> items;
  items.reserve(query.queryItems.size());
  for (const VORQueryItem& item : query.queryItems) items.push_back(QueryItem{item.name, item.value});
  return items;
}

std::optional<VorlenURLRequestBuilder> builderFor(const std::optional<std::string>& url, const char* what) {
  if (!url || url->empty()) {
    requestLog().error("no {} URL in the bag", what);
    return std::nullopt;
  }
  auto builder = VorlenURLRequestBuilder::requestBuilderWithURL(*url);
  if (!builder) requestLog().error("invalid {} URL: {}", what, *url);
  return builder;
}

// The query kinds, as sets of bits for the context table below.
constexpr unsigned kSearch = 1, kZeroKeyword = 2, kMoreResults = 4, kCard = 8, kLookup = 16, kFlight = 32,
                   kEveryKind = 63;

// What a query request's context items are made from besides the context itself.
struct QueryInputs {
  const VORRequest& query;
  const VORBag& bag;
  const Uuid& userGuid;
  const VORRequestClient& client;
};

// The context items and headers that several query kinds share, with the kinds that carry each: one row
// per item, so what sets one kind's request apart reads across the table. Every item has a name of its
// own and is added with default semantics, so the order of the rows does not change a request. What only
// one kind sends, and a search's location (sent only once a fix is held), stays with that kind's request.
struct ContextRow {
  unsigned kinds;
  void (*add)(const VORRequestContext& c, VorlenURLRequestBuilder& b, const QueryInputs& in);
};
constexpr unsigned kTyped = kSearch | kZeroKeyword;  // the type-ahead kinds: the whole locale context
constexpr ContextRow kContextRows[] = {
    {kEveryKind, [](auto& c, auto& b, auto&) { c._addSecretKeyQueryItem(b); }},
    {kEveryKind, [](auto& c, auto& b, auto&) { c._addLocaleQueryItem(b); }},
    {kEveryKind, [](auto& c, auto& b, auto&) { c._addEffectiveSystemLanguageQueryItem(b); }},
    {kEveryKind, [](auto& c, auto& b, auto&) { c._addHttpRequestPreferredLanguages(b); }},
    {kTyped | kLookup | kFlight,
     [](auto& c, auto& b, auto& in) { c._addKeyboardInputModeQueryItem(b, in.query.keyboardInputMode); }},
    {kTyped, [](auto& c, auto& b, auto&) { c._addCalendarQueryItem(b); }},
    {kTyped, [](auto& c, auto& b, auto&) { c._addTimeZoneQueryItem(b); }},
    {kTyped, [](auto& c, auto& b, auto&) { c._addTemperatureUnitsQueryItem(b); }},
    {kTyped, [](auto& c, auto& b, auto&) { c._addTempUnitPreferenceQueryItem(b, c.tempUnits_); }},
    {kTyped, [](auto& c, auto& b, auto&) { c._add24hDateFormatQueryItem(b); }},
    {kTyped, [](auto& c, auto& b, auto&) { c._addSilhouetteTopics(b); }},
    {kTyped | kCard | kLookup | kFlight,
     [](auto& c, auto& b, auto&) { c._addDeviceCountryCodeQueryItem(b); }},
    {kTyped | kCard | kLookup | kFlight, [](auto& c, auto& b, auto&) { c._addHttpGeoClientMetadata(b); }},
    {kZeroKeyword | kMoreResults | kCard | kLookup | kFlight,
     [](auto& c, auto& b, auto&) { c._addLocationQueryItem(b); }},
    {kZeroKeyword | kMoreResults | kCard | kLookup | kFlight,
     [](auto& c, auto& b, auto&) { c._addLocationSourceQueryItem(b); }},
    {kSearch | kMoreResults | kCard | kLookup | kFlight,
     [](auto& c, auto& b, auto&) { c._addHttpAppWhitelistSignature(b); }},
    {kTyped | kMoreResults | kLookup, [](auto& c, auto& b, auto&) { c._addManagedAccountQueryItem(b); }},
    {kTyped | kMoreResults | kCard | kLookup, [](auto& c, auto& b, auto&) { c._addStoreFrontQueryItem(b); }},
    {kTyped | kMoreResults | kCard | kLookup,
     [](auto& c, auto& b, auto&) { c._addHttpRequestSubscriptionInfo(b); }},
    {kEveryKind, [](auto& c, auto& b, auto& in) { c._addHttpRequestUserGuid(b, in.userGuid); }},
    {kEveryKind, [](auto& c, auto& b, auto& in) { c._addHttpRequestUserAgent(b, in.client.userAgent); }},
    {kEveryKind, [](auto& c, auto& b, auto& in) { c._addHttpRequestUIScale(b, in.query.scale); }},
    {kTyped | kCard, [](auto& c, auto& b, auto& in) { c._addHttpMapsEnvironmentName(b, in.bag); }},
    {kTyped | kCard | kLookup | kFlight, [](auto& c, auto& b, auto&) { c._addHttpRequestMapsSessionId(b); }},
};

// For a query kind with nothing forced or nothing of its own to add.
constexpr auto kNothing = [](auto&...) {};

// Adds the rows of kContextRows that `kind` carries.
void addSharedContext(unsigned kind, const VORRequestContext& c, VorlenURLRequestBuilder& b,
                      const QueryInputs& in) {
  for (const ContextRow& row : kContextRows)
    if (row.kinds & kind) row.add(c, b, in);
}

}  // namespace

struct VORNetworkRequestFactory::Impl {
  Impl(const Assembly& assembly, std::shared_ptr<Queue> queue)
      : contextAccessQueue_(std::move(queue)),
        context(contextAccessQueue_, assembly.locationManager),
        defaults(assembly.userDefaults),
        center(assembly.notificationCenter),
        locationManager(assembly.locationManager),
        locale(assembly.platform.locale),
        restrictions(assembly.platform.restrictions),
        device(assembly.platform.device),
        clock(assembly.clock() ? assembly.clock() : Clock::system()) {}

  std::shared_ptr<Queue> contextAccessQueue_;
  VORRequestContext context;                       // on contextAccessQueue_
  std::optional<std::string> debugParametersText;  // the preference text the debug items were parsed from
  std::optional<std::string> _vorlendUserAgent;

  std::shared_ptr<Preferences> defaults;
  std::shared_ptr<NotificationCenter> center;
  std::shared_ptr<LocationManager> locationManager;
  std::shared_ptr<LocaleProvider> locale;
  std::shared_ptr<DeviceRestrictions> restrictions;
  std::shared_ptr<DeviceProperties> device;
  std::shared_ptr<Clock> clock;
  std::vector<std::unique_ptr<NotificationCenter::Token>> observers;

  mutable std::mutex proxyMu;
  std::optional<Value::Dict> proxyConfiguration;

  // The last bag-cache request and everything it was built from (on the context queue). The bag
  // controller asks for it on every keystroke to tell whether the held bag still matches the settings.
  struct BagCacheInputs {
    uint64_t preferencesChange = 0;  // bag URL, debug parameters and the alternate endpoint switch
    const BagController* controller = nullptr;
    std::optional<std::string> userAgent, version, country, locale, language;
    bool operator==(const BagCacheInputs&) const = default;
  };
  std::optional<std::pair<BagCacheInputs, HttpRequest>> lastBagCacheRequest;

  // ---- Context upkeep (on the context queue).

  // Re-parses "VORDebugParameters" when its text changed since the last request.
  void _refreshDebugParameters() {
    contextAccessQueue_->assertCurrent();
    std::optional<std::string> text = defaults ? defaults->stringForKey(kDebugParametersKey) : std::nullopt;
    if (text == debugParametersText) return;
    debugParametersText = text;
    context.debuggingQueryItems_ =
        text ? VORRequestContext::parseDebugParameters(*text) : std::vector<QueryItem>{};
  }

  bool useQuintara() const { return defaults && defaults->boolForKey(kUseQuintaraKey); }

  // What the bag fetch and the bag-cache request share, with the debug items read afresh: the version,
  // the debug items, locale, language, country and the alternate endpoint switch.
  void _addBagContext(VorlenURLRequestBuilder& b, const std::optional<std::string>& version, bool quintara) {
    contextAccessQueue_->assertCurrent();
    _refreshDebugParameters();
    context._addVersionQueryItem(b, version);
    context._addDebugQueryItems(b);
    context._addLocaleQueryItem(b);
    context._addEffectiveSystemLanguageQueryItem(b);
    context._addDeviceCountryCodeQueryItem(b);
    b.defaultQueryItemWithName("quintara", quintara ? "1" : "0");
  }

  // Starts location updates when the bag wants location with requests and the user allows it (search).
  void _startLocationIfNeeded(const VORBag& bag, const std::shared_ptr<VORNetworkRequestFactory>& self) {
    if (!locationManager || bag.supportedGeoLocationSources().empty()) return;
    if (!LocationProvider::isAuthorized(locationManager->authorizationStatus())) return;
    locationManager->startUpdatingLocation(self);
  }
  // Starts location updates whatever the bag and the authorisation say (zero keyword, more results,
  // look-up, flight search): the fix that arrives is still kept only when the bag accepts its source, and
  // without authorisation none arrives.
  void _startLocation(const std::shared_ptr<VORNetworkRequestFactory>& self) {
    if (locationManager) locationManager->startUpdatingLocation(self);
  }

  // Fills a query request on the context queue, with the debug items read afresh, and gives it its
  // time-out.
  template <class Fill>
  std::optional<HttpRequest> compose(VorlenURLRequestBuilder& b, double timeout, Fill&& fill) {
    std::optional<HttpRequest> out;
    contextAccessQueue_->sync([&] {
      _refreshDebugParameters();
      fill(context, b);
      out = b.createMutableUrlRequest();
      out->timeoutSeconds = timeout;
    });
    return out;
  }

  // Fills a query request of `kind`: the kind's own forced items (`forced`, first, so that the query's own
  // items can replace them), the query's items, the debug items (which replace anything), the field mask,
  // the kind's rows of the shared context, and last what only this kind sends (`extra`).
  template <class Forced, class Extra>
  std::optional<HttpRequest> composeQuery(VorlenURLRequestBuilder& b, unsigned kind, const QueryInputs& in,
                                          const std::optional<std::string>& fieldMask, Forced&& forced,
                                          Extra&& extra) {
    return compose(b, in.client.requestTimeout, [&](const VORRequestContext& c, VorlenURLRequestBuilder& b) {
      forced(b);
      b.forceQueryItemsFromArray(queryItemsOf(in.query));
      c._addDebugQueryItems(b);
      if (fieldMask && !fieldMask->empty()) b.defaultQueryItemWithName(kFieldMaskQueryItem, *fieldMask);
      addSharedContext(kind, c, b, in);
      extra(c, b);
    });
  }
};

std::shared_ptr<VORNetworkRequestFactory> VORNetworkRequestFactory::create(const Assembly& assembly) {
  std::shared_ptr<VORNetworkRequestFactory> factory(new VORNetworkRequestFactory(assembly));
  factory->_setUp();
  return factory;
}

VORNetworkRequestFactory::VORNetworkRequestFactory(const Assembly& assembly)
    : impl_(std::make_unique<Impl>(assembly, Queue::serial("com.velmo.vorlend.contextaccess",
                                                           QueuePriority::Default, assembly.clock()))) {
  if (impl_->device) impl_->_vorlendUserAgent = createUserAgentString(kVORVorlendNameVersion, *impl_->device);
}

VORNetworkRequestFactory::~VORNetworkRequestFactory() = default;

void VORNetworkRequestFactory::_setUp() {
  Impl& d = *impl_;
  std::shared_ptr<VORNetworkRequestFactory> self = shared_from_this();
  std::weak_ptr<VORNetworkRequestFactory> weak = self;

  // Locale, country, client metadata, restrictions, managed account, location: first set-up, no
  // announcement.
  _updateLocaleContexts(false);
  _updateDeviceCountryCode(false);
  std::optional<std::string> metadata;
  if (d.locationManager) {
    std::string text = d.locationManager->getMapsClientMetadata();
    if (!text.empty()) metadata = std::move(text);
  }
  const int authorization = d.locationManager ? d.locationManager->authorizationStatus() : 0;
  d.contextAccessQueue_->sync([&] {
    d.context.geoClientMetadata_ = metadata;
    // _initLocationServices: until a fix arrives the source says why there is none.
    d.context.geoLocationSource_ = LocationProvider::isAuthorized(authorization) ? "error.init" : "userno";
  });
  _updateDeviceRestrictions();
  _updateIsManagedAccount();

  if (!d.center) return;
  auto observe = [&](const char* name,
                     std::function<void(VORNetworkRequestFactory&, const Notification&)> handler) {
    d.observers.push_back(
        d.center->addObserver<VORNetworkRequestFactory>(name, nullptr, self, std::move(handler)));
  };
  observe(kPlatformCurrentLocaleDidChangeNotification,
          [](VORNetworkRequestFactory& f, const Notification&) { f._updateLocaleContexts(true); });
  observe(kPlatformTimeZoneDidChangeNotification,
          [](VORNetworkRequestFactory& f, const Notification&) { f._updateTimeZoneName(); });
  observe(kPlatformCountryCodeDidChangeNotification,
          [](VORNetworkRequestFactory& f, const Notification&) { f._updateDeviceCountryCode(true); });
  observe(kPlatformEffectiveSettingsDidChangeNotification,
          [](VORNetworkRequestFactory& f, const Notification&) { f._updateDeviceRestrictions(); });
  observe(kPlatformAccountStoreDidChangeNotification,
          [](VORNetworkRequestFactory& f, const Notification&) { f._updateIsManagedAccount(); });
  observe(kPlatformAccountCredentialsDidChangeNotification,
          [](VORNetworkRequestFactory& f, const Notification&) { f._updateIsManagedAccount(); });
  observe(kVORBagChangeNotification,
          [](VORNetworkRequestFactory& f, const Notification& n) { f.bagChangeNotification(n); });
}

// ---- Context updates
// ---------------------------------------------------------------------------------------

void VORNetworkRequestFactory::_updateLocaleContexts(bool announce) {
  Impl& d = *impl_;
  if (!d.locale) return;
  // Read outside the queue: the locale service may be slow (ICU data loading).
  const LocaleProvider& locale = *d.locale;
  std::string identifier = locale.localeIdentifier();
  std::string calendar = locale.calendarIdentifier();
  std::optional<std::string> measurement =
      VORRequestContext::measurementSystemCode(locale.measurementSystem());
  std::optional<std::string> languages =
      VORRequestContext::preferredLanguagesText(locale.preferredLanguages());
  std::string temperature = locale.preferredTemperatureUnit().value_or(locale.localeTemperatureUnit());
  std::string esl = locale.effectiveSystemLanguage();
  bool is24h = locale.hourFormatPattern().find("HH") != std::string::npos;
  std::string timeZone = locale.timeZoneName();

  d.contextAccessQueue_->sync([&] {
    VORRequestContext& c = d.context;
    c.localeIdentifier_ = identifier.empty() ? std::nullopt : std::optional(identifier);
    c.localeCalendarIdentifier_ = calendar.empty() ? std::nullopt : std::optional(calendar);
    c.localeMeasurementSystem_ = measurement;
    c.preferredLanguages_ = languages;
    c.tempUnits_ = temperature.empty() ? std::nullopt : std::optional(temperature.substr(0, 1));
    c.effectiveSystemLanguage_ = esl.empty() ? std::nullopt : std::optional(esl);
    c.is24hDateFormat_ = is24h ? std::optional<std::string>("1") : std::nullopt;
    c.localTimeZoneName_ = timeZone.empty() ? std::nullopt : std::optional(timeZone);
  });
  // Posted off the context queue, after the update: observers (the bag controller) build requests at once.
  if (announce && d.center) d.center->post(kVORBagRefreshRequired, this);
}

void VORNetworkRequestFactory::_updateTimeZoneName() {
  Impl& d = *impl_;
  if (!d.locale) return;
  std::string timeZone = d.locale->timeZoneName();
  d.contextAccessQueue_->sync(
      [&] { d.context.localTimeZoneName_ = timeZone.empty() ? std::nullopt : std::optional(timeZone); });
}

void VORNetworkRequestFactory::_updateDeviceCountryCode(bool announce) {
  Impl& d = *impl_;
  std::string code = d.locationManager ? d.locationManager->getDeviceCountryCode() : std::string();
  std::optional<std::string> next = code.empty() ? std::nullopt : std::optional(code);
  bool changed = false;
  d.contextAccessQueue_->sync([&] {
    changed = d.context.geoDeviceCountryCode_ != next;
    d.context.geoDeviceCountryCode_ = next;
  });
  if (changed && announce && d.center) d.center->post(kVORBagRefreshRequired, this);
}

void VORNetworkRequestFactory::_updateDeviceRestrictions() {
  Impl& d = *impl_;
  if (!d.restrictions) return;
  const DeviceRestrictions& r = *d.restrictions;
  d.contextAccessQueue_->sync([&] {
    requestLog().debug("device restriction have changed, currently restriction status is {}",
                       int(d.context.deviceRestricted_));
    bool restricted;
    if (r.bookStoreSetting() == DeviceRestrictions::kNo) {
      restricted = true;
    } else if (!r.isMediaStoreAllowed()) {
      restricted = true;
    } else {
      restricted = !r.isAppInstallationAllowed();
    }
    d.context.diagnosticsAllowed_ = r.isDiagnosticSubmissionAllowed();
    if (restricted != d.context.deviceRestricted_) {
      d.context.deviceRestricted_ = restricted;
      requestLog().info("updating device restriction status to: {}", int(restricted));
    }
  });
}

void VORNetworkRequestFactory::_updateIsManagedAccount() {
  Impl& d = *impl_;
  if (!d.restrictions) return;
  bool managed = d.restrictions->isManagedAccount();
  d.contextAccessQueue_->sync([&] {
    if (managed == d.context.isManagedAccount_) return;
    d.context.isManagedAccount_ = managed;
    requestLog().info("updating managed account status to: {}", int(managed));
  });
}

void VORNetworkRequestFactory::bagChangeNotification(const Notification& notification) {
  const Value* record = notification.userInfo.find(kVORBagKey);
  if (!record) return;
  auto bag = VORBag::fromRecord(*record);
  if (bag) _didGetBag(*bag);
}

void VORNetworkRequestFactory::_didGetBag(const VORBag& bag) {
  Impl& d = *impl_;
  std::vector<std::string> sources = bag.supportedGeoLocationSources();
  std::weak_ptr<VORNetworkRequestFactory> weak = weak_from_this();
  d.contextAccessQueue_->async([weak, sources] {
    auto self = weak.lock();
    if (!self) return;
    Impl& d = *self->impl_;
    d.context.supportedGeoLocationSources_ = sources;
    if (!sources.empty()) {
      if (d.locationManager) d.locationManager->startUpdatingLocation(self);
    } else {
      if (d.locationManager) d.locationManager->stopUpdatingLocation();
      d.context._setNoLocationWithReason(fmt::format("{}.{}", "bagno", "all"));
    }
  });

  // Visibility of news and hashtag images in system search follows those clients' view of the bag.
  if (d.restrictions) {
    Queue::global(QueuePriority::Background)->async([restrictions = d.restrictions, raw = bag.rawBag()] {
      for (auto [setting, agent] : {std::pair{kNewsVisibilitySetting, kNewsAgent},
                                    std::pair{kHashtagImagesVisibilitySetting, kHashtagImagesAgent}}) {
        bool enabled = VORBag(raw, agent).isEnabled();
        restrictions->setVisibilitySetting(setting, enabled);
        requestLog().info("set effective visibility setting for {} to {}", setting, int(enabled));
      }
    });
  }

  // The network service proxy's configuration for this service.
  Value::Dict proxy = bag.quintaraConfiguration().value_or(
      Value::Dict{{"appRule", Value::dict({{"enable", Value::dict({{"Enabled", false}})}})}});
  requestLog().debug("network service proxy configuration for vorlend: {}", Value(proxy).describe());
  std::lock_guard lock(d.proxyMu);
  d.proxyConfiguration = std::move(proxy);
}

std::optional<Value::Dict> VORNetworkRequestFactory::networkServiceProxyConfiguration() const {
  std::lock_guard lock(impl_->proxyMu);
  return impl_->proxyConfiguration;
}

// ---- Pushed context
// ----------------------------------------------------------------------------------------

void VORNetworkRequestFactory::setSilhouetteTopics(const Value& topics) {
  std::optional<std::string> text;
  if (const std::string* s = topics.getString()) {
    text = *s;
  } else {
    text = VORRequestContext::jsonText(topics);
  }
  impl_->contextAccessQueue_->sync([&] { impl_->context.silhouetteTopicsStr_ = text; });
}

void VORNetworkRequestFactory::setPerformedSearch() {
  impl_->contextAccessQueue_->sync([&] { impl_->context.setPerformedSearch(); });
}

void VORNetworkRequestFactory::subscriptionManagerDidUpdateSubscriptionDictionaries(
    const Value::Array& dictionaries) {
  std::optional<std::string> text;
  if (!dictionaries.empty()) {
    text = VORRequestContext::jsonText(Value(dictionaries));
    if (!text) {
      VorlenLogForCategory(VorlenLogCategorySubscription)
          .error("cannot encode subscription dictionaries as JSON");
    }
  }
  impl_->contextAccessQueue_->sync([&] { impl_->context.subscriptionInfo_ = text; });
}

void VORNetworkRequestFactory::subscriptionManagerDidUpdateStorefrontIdentifier(
    const std::optional<std::string>& storefront) {
  impl_->contextAccessQueue_->sync([&] { impl_->context.storeFrontIdentifier_ = storefront; });
}

void VORNetworkRequestFactory::setAppWhitelistSignature(const std::optional<std::string>& signature) {
  impl_->contextAccessQueue_->sync([&] { impl_->context.appWhitelistSignature_ = signature; });
}

std::optional<GeoSessionEntity> VORNetworkRequestFactory::getMapsUserSessionEntityAndReset(bool reset) {
  if (!impl_->locationManager) return std::nullopt;
  return impl_->locationManager->getMapsUserSessionEntityAndReset(reset);
}

void VORNetworkRequestFactory::flushContextAccessQueue() {
  impl_->contextAccessQueue_->sync([] {});
}

VORNetworkRequestFactory::LocationState VORNetworkRequestFactory::locationStateForTesting() {
  LocationState state;
  impl_->contextAccessQueue_->sync([&] {
    state.latLng = impl_->context.geoLocationLatLng_;
    state.source = impl_->context.geoLocationSource_;
    state.lookupLatLng = impl_->context.lookupGeoLocationLatLng_;
  });
  return state;
}

// ---- Location delegate
// -------------------------------------------------------------------------------------

void VORNetworkRequestFactory::locationManagerDidUpdateLocations(const std::vector<LocationFix>& locations) {
  if (locations.empty()) return;
  LocationFix last = locations.back();
  std::weak_ptr<VORNetworkRequestFactory> weak = weak_from_this();
  impl_->contextAccessQueue_->async([weak, last] {
    auto self = weak.lock();
    if (!self) return;
    Impl& d = *self->impl_;
    // One fix per start: a fix the bag accepts ends the updates; a refused one leaves them running.
    if (d.context._setLocationIfAllowedByBag(last) && d.locationManager)
      d.locationManager->stopUpdatingLocation();
  });
}

void VORNetworkRequestFactory::locationManagerDidFailWithError(const std::string& error) {
  requestLog().fault("Location determination failed with error {}", error);
  std::weak_ptr<VORNetworkRequestFactory> weak = weak_from_this();
  impl_->contextAccessQueue_->async([weak] {
    if (auto self = weak.lock()) self->impl_->context._setNoLocationWithReason("error.fail");
  });
}

void VORNetworkRequestFactory::locationManagerDidChangeAuthorizationStatus(int status) {
  Impl& d = *impl_;
  if (d.locationManager && d.locationManager->locationServicesEnabled() &&
      LocationProvider::isAuthorized(status)) {
    d.locationManager->startUpdatingLocation(weak_from_this());
    return;
  }
  std::weak_ptr<VORNetworkRequestFactory> weak = weak_from_this();
  d.contextAccessQueue_->async([weak] {
    if (auto self = weak.lock()) self->impl_->context._setNoLocationWithReason("userno");
  });
}

// ---- Query requests
// ----------------------------------------------------------------------------------------

std::optional<HttpRequest> VORNetworkRequestFactory::searchRequest(
    const VORSearchRequest& query, const VORBag& bag, const Uuid& userGuid, const VORRequestClient& client,
    const std::optional<std::string>& fieldMask) {
  Impl& d = *impl_;
  auto builder = builderFor(bag.searchURL(), "search");
  if (!builder) return std::nullopt;
  d._startLocationIfNeeded(bag, shared_from_this());
  auto forced = [&](VorlenURLRequestBuilder& b) {
    b.forceQueryItemWithName("q", query.queryString);
    switch (query.triggerEvent) {
      case 8:
      case 10:
        b.forceQueryItemWithName("qtype", "suggested");
        break;
      case 21:
        b.defaultQueryItemWithName("suggest_queries", "withtop");
        break;
      case 22:
      case 23:
        b.forceQueryItemWithName("qtype", "explicit");
        break;
      default:
        break;
    }
  };
  auto extra = [&](const VORRequestContext& c, VorlenURLRequestBuilder& b) {
    c._addCardQueryItem(b);
    c._addHttpRequestTopTopics(b, query.topTopics);
    c._addl2l3modelVersions(b, bag.l2version(), bag.l3version());
    c._addSuggestionStrings(b, query);
    // Only a held fix: a search never sends the reason there is none.
    if (c.geoLocation_) {
      c._addLocationQueryItem(b);
      c._addLocationSourceQueryItem(b);
    }
  };
  return d.composeQuery(*builder, kSearch, {query, bag, userGuid, client}, fieldMask, forced, extra);
}

std::optional<HttpRequest> VORNetworkRequestFactory::zeroKeywordRequest(
    const VORZeroKeywordRequest& query, const VORBag& bag, const Uuid& userGuid,
    const VORRequestClient& client, const std::optional<std::string>& fieldMask) {
  Impl& d = *impl_;
  auto builder = builderFor(bag.searchURL(), "search");
  if (!builder) return std::nullopt;
  d._startLocation(shared_from_this());
  // The query's own items may ask for another type.
  auto forced = [](VorlenURLRequestBuilder& b) { b.forceQueryItemWithName("qtype", "zkw"); };
  return d.composeQuery(*builder, kZeroKeyword, {query, bag, userGuid, client}, fieldMask, forced, kNothing);
}

std::optional<HttpRequest> VORNetworkRequestFactory::moreResultsRequest(
    const VORMoreResultsRequest& query, const VORBag& bag, const Uuid& userGuid,
    const VORRequestClient& client, const std::optional<std::string>& fieldMask) {
  Impl& d = *impl_;
  auto builder = builderFor(bag.moreResultsURL(), "more results");
  if (!builder) return std::nullopt;
  // A URL that already carries a position needs none of ours.
  if (!builder->containsQueryItemWithName("latlng")) d._startLocation(shared_from_this());
  return d.composeQuery(*builder, kMoreResults, {query, bag, userGuid, client}, fieldMask, kNothing,
                        kNothing);
}

std::optional<HttpRequest> VORNetworkRequestFactory::cardRequest(const VORCardRequest& query,
                                                                 const VORBag& bag, const Uuid& userGuid,
                                                                 const VORRequestClient& client) {
  Impl& d = *impl_;
  auto builder = builderFor(bag.cardURL(), "card");
  if (!builder) return std::nullopt;
  return d.composeQuery(*builder, kCard, {query, bag, userGuid, client}, std::nullopt, kNothing, kNothing);
}

std::optional<HttpRequest> VORNetworkRequestFactory::lookupRequest(const VORLookupRequest& query,
                                                                   const VORBag& bag, const Uuid& userGuid,
                                                                   const VORRequestClient& client) {
  Impl& d = *impl_;
  auto builder = builderFor(bag.searchURL(), "search");
  if (!builder) return std::nullopt;
  d._startLocation(shared_from_this());
  auto extra = [&](const VORRequestContext& c, VorlenURLRequestBuilder& b) {
    c._addClientContextQueryItem(b, query.appBundleIdentifier);
    c._addLookupHintDomainQueryItem(b, query.hintDomain);
    c._addLookupSelectionType(b, query.lookupSelectionType);
    c._addQueryLanguageQueryItem(b, query.queryString);
    c._addLookupContextLanguageQueryItem(b, query.lookupContext);
  };
  auto forced = [&](VorlenURLRequestBuilder& b) { b.forceQueryItemWithName("q", query.queryString); };
  return d.composeQuery(*builder, kLookup, {query, bag, userGuid, client}, std::nullopt, forced, extra);
}

std::optional<HttpRequest> VORNetworkRequestFactory::flightSearchRequest(const VORFlightSearchRequest& query,
                                                                         const VORBag& bag,
                                                                         const Uuid& userGuid,
                                                                         const VORRequestClient& client) {
  Impl& d = *impl_;
  auto builder = builderFor(bag.flightURL(), "flight");
  if (!builder) return std::nullopt;
  d._startLocation(shared_from_this());
  const double now = toUnixSeconds(d.clock->now());
  auto forced = [&](VorlenURLRequestBuilder& b) {
    b.forceQueryItemWithName("q", query.flightQuery);
    b.forceQueryItemWithName("timestamp", fmt::format("{}", now));
  };
  auto extra = [](const VORRequestContext& c, VorlenURLRequestBuilder& b) { c._forceProtobuf(b); };
  return d.composeQuery(*builder, kFlight, {query, bag, userGuid, client}, std::nullopt, forced, extra);
}

// ---- Other requests
// ----------------------------------------------------------------------------------------

std::optional<HttpRequest> VORNetworkRequestFactory::warmRequest(const std::string& url) {
  auto builder = builderFor(url, "warm");
  if (!builder) return std::nullopt;
  HttpRequest request = builder->createMutableUrlRequest();
  request.cachePolicy = HttpCachePolicy::ReloadIgnoringLocalCacheData;
  return request;
}

std::optional<VorlenURLRequestBuilder> VORNetworkRequestFactory::_bagRequestBuilder(
    const BagController& controller) {
  Impl& d = *impl_;
  std::optional<std::string> country;
  d.contextAccessQueue_->sync([&] { country = d.context.geoDeviceCountryCode_; });
  std::string url = controller.bagFetchURLWithCountry(country);
  auto builder = VorlenURLRequestBuilder::requestBuilderWithURL(url);
  if (!builder) VorlenLogForCategory(VorlenLogCategoryBag).error("bag URL is not absolute: {}", url);
  return builder;
}

std::optional<HttpRequest> VORNetworkRequestFactory::bagFetchRequest(
    const BagController& controller, const std::optional<std::string>& userAgent,
    const std::optional<std::string>& version) {
  Impl& d = *impl_;
  auto builder = _bagRequestBuilder(controller);
  if (!builder) return std::nullopt;
  const bool quintara = d.useQuintara();
  std::optional<HttpRequest> out;
  d.contextAccessQueue_->sync([&] {
    VorlenURLRequestBuilder& b = *builder;
    d._addBagContext(b, version, quintara);
    d.context._addSecretKeyQueryItem(b);
    d.context._addHttpRequestPreferredLanguages(b);
    d.context._addHttpRequestUserAgent(b, userAgent);
    out = b.createMutableUrlRequest();
    out->cachePolicy = HttpCachePolicy::ReloadIgnoringLocalCacheData;
  });
  return out;
}

std::optional<HttpRequest> VORNetworkRequestFactory::bagCacheRequest(
    const BagController& controller, const std::optional<std::string>& userAgent,
    const std::optional<std::string>& version) {
  Impl& d = *impl_;
  Impl::BagCacheInputs inputs;
  inputs.preferencesChange = d.defaults ? d.defaults->changeCount() : 0;
  inputs.controller = &controller;
  inputs.userAgent = userAgent;
  inputs.version = version;
  std::optional<HttpRequest> out;
  d.contextAccessQueue_->sync([&] {
    inputs.country = d.context.geoDeviceCountryCode_;
    inputs.locale = d.context.localeIdentifier_;
    inputs.language = d.context.effectiveSystemLanguage_;
    if (d.lastBagCacheRequest && d.lastBagCacheRequest->first == inputs) out = d.lastBagCacheRequest->second;
  });
  if (out) return out;

  auto builder = _bagRequestBuilder(controller);
  if (!builder) return std::nullopt;
  const bool quintara = d.useQuintara();
  d.contextAccessQueue_->sync([&] {
    VorlenURLRequestBuilder& b = *builder;
    d._addBagContext(b, version, quintara);
    d.context._addAgentQueryItem(b, userAgent);
    out = b.createMutableUrlRequest();
    // Kept under the inputs read before building: if any changed meanwhile, the next ask rebuilds.
    d.lastBagCacheRequest.emplace(inputs, *out);
  });
  return out;
}

std::optional<HttpRequest> VORNetworkRequestFactory::fileDownloadRequest(
    const std::string& url, const std::optional<std::string>& version, bool includeLatLong) {
  Impl& d = *impl_;
  auto builder = builderFor(url, "resource");
  if (!builder) return std::nullopt;
  std::optional<std::string> agent =
      d.device ? createUserAgentString(kDownloadClientText, *d.device) : std::nullopt;
  std::optional<HttpRequest> out;
  d.contextAccessQueue_->sync([&] {
    const VORRequestContext& c = d.context;
    VorlenURLRequestBuilder& b = *builder;
    c._addSecretKeyQueryItem(b);
    c._addHttpRequestUserAgent(b, agent);
    if (includeLatLong) c._addHttpFuzzedLocation(b);
    c._addHttpIfNoneMatch(b, version);
    out = b.createMutableUrlRequest();
  });
  return out;
}

std::optional<HttpRequest> VORNetworkRequestFactory::flusherUploadRequest(const std::string& url,
                                                                          double timeoutSeconds,
                                                                          const std::string& digest) {
  Impl& d = *impl_;
  auto builder = builderFor(url, "upload");
  if (!builder) return std::nullopt;
  std::optional<HttpRequest> out;
  d.contextAccessQueue_->sync([&] {
    d._refreshDebugParameters();
    const VORRequestContext& c = d.context;
    VorlenURLRequestBuilder& b = *builder;
    b.defaultHttpHeaderWithName("X-Velmo-Digest", digest);
    c._addDebugQueryItems(b);
    c._addSecretKeyQueryItem(b);
    c._addDeviceCountryCodeQueryItem(b);
    c._addLocaleQueryItem(b);
    c._addDiagnosticsAndUsageQueryItem(b);
    c._addHttpRequestPreferredLanguages(b);
    c._addHttpRequestUserAgent(b, d._vorlendUserAgent);
    b.forceHttpHeaderWithName("Content-Encoding", "deflate");
    out = b.createMutableUrlRequest();
    out->method = "POST";
    out->cachePolicy = HttpCachePolicy::ReloadIgnoringLocalCacheData;
    out->timeoutSeconds = timeoutSeconds;
  });
  return out;
}

}  // namespace vorlen
