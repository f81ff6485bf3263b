// VORNetworkRequestFactory: builds every HTTP request the daemon sends, from the request context it keeps
// about the device and the user (locale, languages, time zone, country, location, restrictions,
// subscriptions, debug parameters; see VORRequestContext for the vocabulary of items and headers).
//
// Every query item and header is added with default semantics (a value already set by the query or by the
// debug parameters wins) unless noted as forced; on the wire the query items are always sorted by name.
// The context that several query kinds share is one table in the .cc (each item with the kinds that carry
// it); a kind's request function adds its forced items, that table's rows for its kind and what only it
// sends. The bag, upload and download requests keep short lists of their own: they share little with the
// query kinds and with each other.
//
// What the factory keeps current, and how:
//   - locale fields: read at construction and again on kPlatformCurrentLocaleDidChangeNotification; a
//     change posts kVORBagRefreshRequired (sender: the factory);
//   - device country code: read at construction and on kPlatformCountryCodeDidChangeNotification; a change
//     of the code posts kVORBagRefreshRequired;
//   - restrictions and managed account: at construction and on their platform change notifications;
//   - the bag's supported location sources: on kVORBagChangeNotification (the bag record under "bag"); a
//     bag that supports sources starts location updates (the factory is the location delegate), one that
//     supports none stops them and records the source "bagno.all";
//   - the app allow-list signature, the subscription information and the storefront are absent until their
//     owners push them through the setters below.
//
// Threading: all context fields live on the serial queue "com.velmo.vorlend.contextaccess". Request
// composition runs there synchronously (so the build methods are safe from any thread but the context queue
// itself); updates from notifications and location callbacks are queued there asynchronously and keep their
// order. flushContextAccessQueue() waits for queued updates.
// REQUIRES: no build method is called from a handler of a notification that the factory itself posts while
// on the context queue (kVORBagRefreshRequired is posted off the queue, so observers may build requests).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/NotificationCenter.h"
#include "base/Queue.h"
#include "base/Uuid.h"
#include "base/Value.h"
#include "model/VORBag.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"
#include "network/HttpRequest.h"
#include "network/SubscriptionManager.h"
#include "network/VorlenURLRequestBuilder.h"
#include "platform/GeoSession.h"
#include "platform/LocationProvider.h"

namespace vorlen {

class Assembly;
class BagController;
class VORRequestContext;
class VorlenURLRequestBuilder;

// What the factory needs to know about the client a query request is built for.
struct VORRequestClient {
  // The user agent of the client's requests (createUserAgentString of its configuration's agent); absent or
  // empty sends no "User-Agent".
  std::optional<std::string> userAgent;
  // Seconds; the time-out of each query request.
  double requestTimeout = VORSessionConfiguration::kDefaultRequestTimeout;

  static VORRequestClient fromConfiguration(const VORSessionConfiguration& configuration,
                                            std::optional<std::string> userAgent) {
    return VORRequestClient{std::move(userAgent), configuration.effectiveRequestTimeout()};
  }
};

class VORNetworkRequestFactory final : public LocationDelegate,
                                       public SubscriptionManagerDelegate,
                                       public std::enable_shared_from_this<VORNetworkRequestFactory> {
 public:
  // Query item that carries a field mask (the response fields a client asks for), added with default
  // semantics when a mask is given.
  static constexpr const char* kFieldMaskQueryItem = "fields";

  // Reads from the Assembly: userDefaults, notificationCenter, locationManager, the clock and the
  // platform's device properties, locale provider and device restrictions. Any of them may be missing; the
  // context then lacks what it would have given.
  static std::shared_ptr<VORNetworkRequestFactory> create(const Assembly& assembly);
  ~VORNetworkRequestFactory() override;

  // ---- Query requests. Each answers nothing (after a log line) when the bag has no absolute URL for it.
  // The display scale ("X-Velmo-UI-Scale") and keyboard input mode ("kb_ime") come from the query itself.

  // Search (bag searchURL); starts location updates first when the bag supports location.
  std::optional<HttpRequest> searchRequest(const VORSearchRequest& query, const VORBag& bag,
                                           const Uuid& userGuid, const VORRequestClient& client,
                                           const std::optional<std::string>& fieldMask = std::nullopt);
  // Zero keyword (bag searchURL, "qtype=zkw" unless the query's items say otherwise); always starts location.
  std::optional<HttpRequest> zeroKeywordRequest(const VORZeroKeywordRequest& query, const VORBag& bag,
                                                const Uuid& userGuid, const VORRequestClient& client,
                                                const std::optional<std::string>& fieldMask = std::nullopt);
  // More results (bag moreResultsURL); starts location (whatever the bag says) only when that URL carries no
  // "latlng".
  std::optional<HttpRequest> moreResultsRequest(const VORMoreResultsRequest& query, const VORBag& bag,
                                                const Uuid& userGuid, const VORRequestClient& client,
                                                const std::optional<std::string>& fieldMask = std::nullopt);
  // Card (bag cardURL).
  std::optional<HttpRequest> cardRequest(const VORCardRequest& query, const VORBag& bag, const Uuid& userGuid,
                                         const VORRequestClient& client);
  // Look-up (bag searchURL); always starts location.
  std::optional<HttpRequest> lookupRequest(const VORLookupRequest& query, const VORBag& bag,
                                           const Uuid& userGuid, const VORRequestClient& client);
  // Flight search (bag flightURL, "Accept: application/x-protobuf"); always starts location.
  std::optional<HttpRequest> flightSearchRequest(const VORFlightSearchRequest& query, const VORBag& bag,
                                                 const Uuid& userGuid, const VORRequestClient& client);

  // ---- Other requests.

  // The warm-up request for `url` (the bag's warmURL): no items, always to the network.
  std::optional<HttpRequest> warmRequest(const std::string& url);
  // The bag fetch request: base URL controller.bagFetchURLWithCountry(device country code of the context);
  // nothing (after a log line) when that URL is not absolute.
  std::optional<HttpRequest> bagFetchRequest(const BagController& controller,
                                             const std::optional<std::string>& userAgent,
                                             const std::optional<std::string>& version);
  // The bag-cache request: never sent; its URL text is the identity of a cached bag. It differs from the
  // bag fetch request of the same state only in "key", the headers and the user agent, which travels as
  // the query item "agent".
  std::optional<HttpRequest> bagCacheRequest(const BagController& controller,
                                             const std::optional<std::string>& userAgent,
                                             const std::optional<std::string>& version);
  // A resource file download; `version` (the stored version) becomes "If-None-Match".
  std::optional<HttpRequest> fileDownloadRequest(const std::string& url,
                                                 const std::optional<std::string>& version,
                                                 bool includeLatLong);
  // A compressed feedback upload: POST, "Content-Encoding: deflate", "X-Velmo-Digest" = `digest`.
  std::optional<HttpRequest> flusherUploadRequest(const std::string& url, double timeoutSeconds,
                                                  const std::string& digest);

  // ---- Context pushed by other components.

  // Topics text ("sil"): a string is sent as it is, any other value as its JSON text; null clears it.
  void setSilhouetteTopics(const Value& topics);
  // Freezes the current location's full coordinates as the look-up location ("X-Velmo-FuzzedLatLong").
  void setPerformedSearch();
  // The subscription dictionaries, sent as JSON text ("X-Velmo-Subscriptions"); an empty list clears it.
  void subscriptionManagerDidUpdateSubscriptionDictionaries(const Value::Array& dictionaries) override;
  void subscriptionManagerDidUpdateStorefrontIdentifier(
      const std::optional<std::string>& storefront) override;
  // The installed-apps allow-list signature ("X-Velmo-Whitelisted-App-Signature").
  void setAppWhitelistSignature(const std::optional<std::string>& signature);

  // The geo session of the location manager (nothing without one).
  std::optional<GeoSessionEntity> getMapsUserSessionEntityAndReset(bool reset);
  // The configuration handed to the network service proxy for the service "vorlend" at the last bag: the
  // bag's quintaraConfiguration, or {"appRule": {"enable": {"Enabled": false}}}. No proxy service exists on
  // this platform, so it is only kept and logged.
  std::optional<Value::Dict> networkServiceProxyConfiguration() const;

  // Waits until every context update queued so far has run.
  void flushContextAccessQueue();

  // ---- LocationDelegate (called by the location service on its own thread).
  void locationManagerDidUpdateLocations(const std::vector<LocationFix>& locations) override;
  void locationManagerDidFailWithError(const std::string& error) override;
  void locationManagerDidChangeAuthorizationStatus(int status) override;

  // Context values, read on the context queue; for tests and diagnostics.
  struct LocationState {
    std::optional<std::string> latLng, source, lookupLatLng;
  };
  LocationState locationStateForTesting();

  // A new bag was installed (kVORBagChangeNotification, the bag record under "bag").
  void bagChangeNotification(const Notification& notification);

 private:
  struct Impl;
  explicit VORNetworkRequestFactory(const Assembly& assembly);
  void _setUp();
  // A builder on the bag endpoint for the context's device country; nothing (logged) when not absolute.
  std::optional<VorlenURLRequestBuilder> _bagRequestBuilder(const BagController& controller);
  // Each reads the platform outside the context queue, then updates the context on it. `announce` posts
  // kVORBagRefreshRequired (the locale always, the country code only when it changed).
  void _updateLocaleContexts(bool announce);
  void _updateTimeZoneName();
  void _updateDeviceCountryCode(bool announce);
  void _updateDeviceRestrictions();
  void _updateIsManagedAccount();
  void _didGetBag(const VORBag& bag);

  std::unique_ptr<Impl> impl_;
};

}  // namespace vorlen
