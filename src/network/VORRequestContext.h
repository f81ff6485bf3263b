// VORRequestContext: the request factory's context about the device and the user, and the vocabulary of
// query items and header fields that requests take from it. Each add-operation adds one item or header
// with default semantics (a value already set wins) unless its comment says forced, and leaves it out when
// the comment says so.
// The add-operations stay one named operation per item (rather than rows of a table here) because they
// are the vocabulary the request factory's per-kind table and the bag, upload and download requests are
// written in; the shape they share is the two helpers in the .cc.
//
// Query items:
//   key        the fixed API key                                  never left out
//   locale     localeIdentifier_                                  never (bare name when absent)
//   du_enabled "1"                                                diagnostics not allowed
//   kb_ime     the query's keyboard input mode                    none
//   temp       the given temperature preference                   none
//   qlang      language detected in the query text                none detected
//   lctxlang   language detected in the look-up context           none detected
//   ldomain    the look-up hint domain                            empty
//   context    the client's context value                         never
//   ltype      2 "hint", 1 "explicit", else "default"             never
//   mode       "managed"                                          neither managed account nor restricted
//   version    the given version                                  empty
//   card       "1"                                                never
//   latlng     geoLocationLatLng_                                 empty
//   geosrc     geoLocationSource_                                 empty
//   agent      the given user agent                               empty
//   storefront storeFrontIdentifier_                              empty
//   cc         geoDeviceCountryCode_                              empty
//   units      localeMeasurementSystem_ ("SI", "US", "UK")        none (the name speaks of temperature,
//                                                                 but the measurement system is sent)
//   24h        "1"                                                not a 24-hour locale
//   sil        silhouetteTopicsStr_                               absent or empty
//   time_zone  localTimeZoneName_                                 empty
//   calendar   localeCalendarIdentifier_                          empty
//   esl        effectiveSystemLanguage_                           empty
//   l2, l3     the bag's model versions                           either empty: neither (logged)
//   (debug)    debuggingQueryItems_, forced                       none configured
// Headers:
//   Accept "application/x-protobuf" (forced); X-Velmo-UserGuid; User-Agent; X-Velmo-UI-Scale ("%.1f", when
//   above 0); X-Velmo-Languages; X-Velmo-GeoSession; X-Velmo-GeoEnvironment (when the bag says so);
//   X-Velmo-Subscriptions; X-Velmo-Whitelisted-App-Signature; X-Velmo-TopTopics; X-Velmo-FuzzedLatLong;
//   If-None-Match; X-Velmo-GeoMetadata.
//
// Threading: REQUIRES: every member runs on the context access queue given at construction (each
// add-operation asserts it). The static helpers are pure.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Queue.h"
#include "base/Uuid.h"
#include "base/Value.h"
#include "model/QXSearchSuggestion.h"
#include "model/VORBag.h"
#include "network/QueryItem.h"
#include "platform/LocationProvider.h"

namespace vorlen {

class VorlenURLRequestBuilder;
class LocationManager;
class VORSearchRequest;

class VORRequestContext {
 public:
  static constexpr const char* kSecretKey = "corgipup2718";

  // `locationManager` may be null (no geo session, environment or metadata then).
  VORRequestContext(std::shared_ptr<Queue> contextAccessQueue,
                    std::shared_ptr<LocationManager> locationManager);

  // ---- Context fields (on the context queue).
  std::optional<std::string> localeIdentifier_;
  std::optional<std::string> localeCalendarIdentifier_;
  std::optional<std::string> localeMeasurementSystem_;
  std::optional<std::string> preferredLanguages_;  // JSON array text
  std::optional<std::string> tempUnits_;
  std::optional<std::string> effectiveSystemLanguage_;
  std::optional<std::string> is24hDateFormat_;
  std::optional<std::string> localTimeZoneName_;
  std::optional<std::string> geoDeviceCountryCode_;
  std::optional<LocationFix> geoLocation_;
  std::optional<std::string> geoLocationLatLng_;
  std::optional<std::string> geoLocationSource_;
  std::optional<std::string> lookupGeoLocationLatLng_;
  std::optional<std::string> geoClientMetadata_;
  std::optional<std::string> storeFrontIdentifier_;
  std::optional<std::string> subscriptionInfo_;
  std::optional<std::string> silhouetteTopicsStr_;
  std::optional<std::string> appWhitelistSignature_;
  bool isManagedAccount_ = false;
  bool deviceRestricted_ = false;
  bool diagnosticsAllowed_ = false;
  std::vector<QueryItem> debuggingQueryItems_;
  std::vector<std::string> supportedGeoLocationSources_;

  // ---- Query items.
  void _addSecretKeyQueryItem(VorlenURLRequestBuilder& b) const;
  void _addLocaleQueryItem(VorlenURLRequestBuilder& b) const;
  void _addDiagnosticsAndUsageQueryItem(VorlenURLRequestBuilder& b) const;
  void _addKeyboardInputModeQueryItem(VorlenURLRequestBuilder& b,
                                      const std::optional<std::string>& mode) const;
  void _addTempUnitPreferenceQueryItem(VorlenURLRequestBuilder& b,
                                       const std::optional<std::string>& temp) const;
  void _addQueryLanguageQueryItem(VorlenURLRequestBuilder& b, const std::string& queryString) const;
  void _addLookupContextLanguageQueryItem(VorlenURLRequestBuilder& b, const std::string& lookupContext) const;
  void _addLookupHintDomainQueryItem(VorlenURLRequestBuilder& b, const std::string& hintDomain) const;
  void _addClientContextQueryItem(VorlenURLRequestBuilder& b, const std::string& context) const;
  void _addLookupSelectionType(VorlenURLRequestBuilder& b, uint64_t lookupSelectionType) const;
  void _addManagedAccountQueryItem(VorlenURLRequestBuilder& b) const;
  void _addVersionQueryItem(VorlenURLRequestBuilder& b, const std::optional<std::string>& version) const;
  void _addCardQueryItem(VorlenURLRequestBuilder& b) const;
  void _addLocationQueryItem(VorlenURLRequestBuilder& b) const;
  void _addLocationSourceQueryItem(VorlenURLRequestBuilder& b) const;
  void _addAgentQueryItem(VorlenURLRequestBuilder& b, const std::optional<std::string>& userAgent) const;
  void _addStoreFrontQueryItem(VorlenURLRequestBuilder& b) const;
  void _addDeviceCountryCodeQueryItem(VorlenURLRequestBuilder& b) const;
  void _addTemperatureUnitsQueryItem(VorlenURLRequestBuilder& b) const;
  void _add24hDateFormatQueryItem(VorlenURLRequestBuilder& b) const;
  void _addSilhouetteTopics(VorlenURLRequestBuilder& b) const;
  void _addTimeZoneQueryItem(VorlenURLRequestBuilder& b) const;
  void _addCalendarQueryItem(VorlenURLRequestBuilder& b) const;
  void _addEffectiveSystemLanguageQueryItem(VorlenURLRequestBuilder& b) const;
  void _addl2l3modelVersions(VorlenURLRequestBuilder& b, const std::string& l2, const std::string& l3) const;
  void _addDebugQueryItems(VorlenURLRequestBuilder& b) const;
  // "lc", "lco", "lcs" from the suggestions the search query carries.
  void _addSuggestionStrings(VorlenURLRequestBuilder& b, const VORSearchRequest& query) const;

  // ---- Headers.
  void _forceProtobuf(VorlenURLRequestBuilder& b) const;
  void _addHttpRequestUserGuid(VorlenURLRequestBuilder& b, const Uuid& userGuid) const;
  void _addHttpRequestUserAgent(VorlenURLRequestBuilder& b,
                                const std::optional<std::string>& userAgent) const;
  void _addHttpRequestUIScale(VorlenURLRequestBuilder& b, double scale) const;
  void _addHttpRequestPreferredLanguages(VorlenURLRequestBuilder& b) const;
  void _addHttpRequestMapsSessionId(VorlenURLRequestBuilder& b) const;
  void _addHttpMapsEnvironmentName(VorlenURLRequestBuilder& b, const VORBag& bag) const;
  void _addHttpRequestSubscriptionInfo(VorlenURLRequestBuilder& b) const;
  void _addHttpAppWhitelistSignature(VorlenURLRequestBuilder& b) const;
  void _addHttpRequestTopTopics(VorlenURLRequestBuilder& b, const Value& topTopics) const;
  void _addHttpFuzzedLocation(VorlenURLRequestBuilder& b) const;
  void _addHttpIfNoneMatch(VorlenURLRequestBuilder& b, const std::optional<std::string>& version) const;
  void _addHttpGeoClientMetadata(VorlenURLRequestBuilder& b) const;

  // ---- Location rules.
  // Applies a fix when the bag's sources allow it; true when it was applied (updates may then stop).
  bool _setLocationIfAllowedByBag(const LocationFix& fix);
  void _setLocation(const LocationFix& fix);
  void _setNoLocationWithReason(const std::string& reason);
  // Freezes the full coordinates of the current location as the look-up location.
  void setPerformedSearch();

  // ---- Pure helpers.
  // "Metric" -> "SI", "U.S." -> "US", "U.K." -> "UK", else nothing.
  static std::optional<std::string> measurementSystemCode(std::string_view system);
  // By fix type: 1, 2, 3, 9 "gps"; 6, 7, 8 "cell"; 4, 5 "wifi"; else "unknown".
  static std::string _locationSourceForLocation(const LocationFix& fix);
  // Origin of a suggestion by type (1 "se", 5 "ss-<topic>", 6 "ut", 7 "co", 8 "3d", 9 "en"), or nothing.
  static std::optional<std::string> originStringForSearchSuggestion(const QXSearchSuggestion& suggestion);
  // Query items of a "VORDebugParameters" text ("a=1&b=2"); a component without exactly one "=" is logged
  // and skipped.
  static std::vector<QueryItem> parseDebugParameters(const std::string& text);
  // At most the first three languages as a JSON array text.
  static std::optional<std::string> preferredLanguagesText(const std::vector<std::string>& languages);
  // JSON text of a property-list value; nothing for null or a value JSON cannot hold (dates, data).
  static std::optional<std::string> jsonText(const Value& value);
  // The language of a text ("qlang", "lctxlang"): the language identifier's answer when it is sure (see
  // LanguageIdentifier), else the language the script of the first word names (ICU; see the .cc for the
  // mapping), else nothing.
  static std::optional<std::string> detectLanguage(const std::string& text);

 private:
  std::shared_ptr<Queue> contextAccessQueue_;
  std::shared_ptr<LocationManager> locationManager_;
};

}  // namespace vorlen
