#include "network/VORRequestContext.h"

#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/uscript.h>
#include <unicode/utext.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "model/VORRequest.h"
#include "network/LocationManager.h"
#include "network/VorlenURLRequestBuilder.h"
#include "platform/LanguageIdentifier.h"

namespace vorlen {

namespace {

const Logger& requestLog() {
  return VorlenLogForCategory(VorlenLogCategoryRequest);
}

bool present(const std::optional<std::string>& s) {
  return s && !s->empty();
}

// The shape of most add-operations: the item (or header) `name` with default semantics, left out when
// `value` is absent or empty.
void addItem(VorlenURLRequestBuilder& b, const char* name, const std::optional<std::string>& value) {
  if (present(value)) b.defaultQueryItemWithName(name, *value);
}
void addHeader(VorlenURLRequestBuilder& b, const char* name, const std::optional<std::string>& value) {
  if (present(value)) b.defaultHttpHeaderWithName(name, *value);
}

// Converts a property-list value to JSON; false when it holds something JSON cannot (dates, data).
bool toJson(const Value& value, nlohmann::json* out) {
  switch (value.type()) {
    case Value::Type::Null:
      *out = nullptr;
      return true;
    case Value::Type::String:
      *out = *value.getString();
      return true;
    case Value::Type::Int:
      *out = *value.getInt();
      return true;
    case Value::Type::UInt:
      *out = *value.getUInt();
      return true;
    case Value::Type::Real: {
      double d = *value.getDouble();
      if (!std::isfinite(d)) return false;
      *out = d;
      return true;
    }
    case Value::Type::Bool:
      *out = *value.getBool();
      return true;
    case Value::Type::Array: {
      nlohmann::json array = nlohmann::json::array();
      for (const Value& item : *value.getArray()) {
        nlohmann::json j;
        if (!toJson(item, &j)) return false;
        array.push_back(std::move(j));
      }
      *out = std::move(array);
      return true;
    }
    case Value::Type::Dict: {
      nlohmann::json object = nlohmann::json::object();
      for (const auto& [key, item] : *value.getDict()) {
        nlohmann::json j;
        if (!toJson(item, &j)) return false;
        object[key] = std::move(j);
      }
      *out = std::move(object);
      return true;
    }
    case Value::Type::Date:
    case Value::Type::Data:
      return false;
  }
  return false;
}

// Language of one script, for scripts that name one language well enough for the search service's needs:
// the fallback when the language identifier is unsure. Latin, Cyrillic and Arabic script text is left
// undetermined here: a script alone cannot tell those languages apart, and a wrong "qlang" is worse than
// none.
std::optional<std::string> languageForScript(UScriptCode script, bool hasKana) {
  switch (script) {
    case USCRIPT_HAN:
      return std::string(hasKana ? "ja" : "zh");
    case USCRIPT_HIRAGANA:
    case USCRIPT_KATAKANA:
      return std::string("ja");
    case USCRIPT_HANGUL:
      return std::string("ko");
    case USCRIPT_GREEK:
      return std::string("el");
    case USCRIPT_HEBREW:
      return std::string("he");
    case USCRIPT_THAI:
      return std::string("th");
    case USCRIPT_ARMENIAN:
      return std::string("hy");
    case USCRIPT_GEORGIAN:
      return std::string("ka");
    case USCRIPT_KHMER:
      return std::string("km");
    case USCRIPT_LAO:
      return std::string("lo");
    case USCRIPT_TAMIL:
      return std::string("ta");
    case USCRIPT_TELUGU:
      return std::string("te");
    case USCRIPT_KANNADA:
      return std::string("kn");
    case USCRIPT_MALAYALAM:
      return std::string("ml");
    case USCRIPT_GUJARATI:
      return std::string("gu");
    case USCRIPT_GURMUKHI:
      return std::string("pa");
    case USCRIPT_SINHALA:
      return std::string("si");
    case USCRIPT_MYANMAR:
      return std::string("my");
    case USCRIPT_ETHIOPIC:
      return std::string("am");
    default:
      return std::nullopt;
  }
}

}  // namespace

VORRequestContext::VORRequestContext(std::shared_ptr<Queue> contextAccessQueue,
                                     std::shared_ptr<LocationManager> locationManager)
    : contextAccessQueue_(std::move(contextAccessQueue)), locationManager_(std::move(locationManager)) {}

// ---- Query items.

void VORRequestContext::_addSecretKeyQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  b.defaultQueryItemWithName("key", kSecretKey);
}

void VORRequestContext::_addLocaleQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  b.defaultQueryItemWithName("locale", localeIdentifier_);
}

void VORRequestContext::_addDiagnosticsAndUsageQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  if (diagnosticsAllowed_) b.defaultQueryItemWithName("du_enabled", "1");
}

void VORRequestContext::_addKeyboardInputModeQueryItem(VorlenURLRequestBuilder& b,
                                                       const std::optional<std::string>& mode) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "kb_ime", mode);
}

void VORRequestContext::_addTempUnitPreferenceQueryItem(VorlenURLRequestBuilder& b,
                                                        const std::optional<std::string>& temp) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "temp", temp);
}

void VORRequestContext::_addQueryLanguageQueryItem(VorlenURLRequestBuilder& b,
                                                   const std::string& queryString) const {
  contextAccessQueue_->assertCurrent();
  if (auto language = detectLanguage(queryString)) b.defaultQueryItemWithName("qlang", *language);
}

void VORRequestContext::_addLookupContextLanguageQueryItem(VorlenURLRequestBuilder& b,
                                                           const std::string& lookupContext) const {
  contextAccessQueue_->assertCurrent();
  if (auto language = detectLanguage(lookupContext)) b.defaultQueryItemWithName("lctxlang", *language);
}

void VORRequestContext::_addLookupHintDomainQueryItem(VorlenURLRequestBuilder& b,
                                                      const std::string& hintDomain) const {
  contextAccessQueue_->assertCurrent();
  if (!hintDomain.empty()) b.defaultQueryItemWithName("ldomain", hintDomain);
}

void VORRequestContext::_addClientContextQueryItem(VorlenURLRequestBuilder& b,
                                                   const std::string& context) const {
  contextAccessQueue_->assertCurrent();
  b.defaultQueryItemWithName("context", context);
}

void VORRequestContext::_addLookupSelectionType(VorlenURLRequestBuilder& b,
                                                uint64_t lookupSelectionType) const {
  contextAccessQueue_->assertCurrent();
  const char* type = lookupSelectionType == 2 ? "hint" : lookupSelectionType == 1 ? "explicit" : "default";
  b.defaultQueryItemWithName("ltype", type);
}

void VORRequestContext::_addManagedAccountQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  if (isManagedAccount_ || deviceRestricted_) b.defaultQueryItemWithName("mode", "managed");
}

void VORRequestContext::_addVersionQueryItem(VorlenURLRequestBuilder& b,
                                             const std::optional<std::string>& version) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "version", version);
}

void VORRequestContext::_addCardQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  b.defaultQueryItemWithName("card", "1");
}

void VORRequestContext::_addLocationQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "latlng", geoLocationLatLng_);
}

void VORRequestContext::_addLocationSourceQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "geosrc", geoLocationSource_);
}

void VORRequestContext::_addAgentQueryItem(VorlenURLRequestBuilder& b,
                                           const std::optional<std::string>& userAgent) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "agent", userAgent);
}

void VORRequestContext::_addStoreFrontQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "storefront", storeFrontIdentifier_);
}

void VORRequestContext::_addDeviceCountryCodeQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "cc", geoDeviceCountryCode_);
}

void VORRequestContext::_addTemperatureUnitsQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  // Sends the measurement system, not a temperature unit, whatever the name says: the service reads
  // "units" that way.
  addItem(b, "units", localeMeasurementSystem_);
}

void VORRequestContext::_add24hDateFormatQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "24h", is24hDateFormat_);
}

void VORRequestContext::_addSilhouetteTopics(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "sil", silhouetteTopicsStr_);
}

void VORRequestContext::_addTimeZoneQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "time_zone", localTimeZoneName_);
}

void VORRequestContext::_addCalendarQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "calendar", localeCalendarIdentifier_);
}

void VORRequestContext::_addEffectiveSystemLanguageQueryItem(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addItem(b, "esl", effectiveSystemLanguage_);
}

void VORRequestContext::_addl2l3modelVersions(VorlenURLRequestBuilder& b, const std::string& l2,
                                              const std::string& l3) const {
  contextAccessQueue_->assertCurrent();
  if (l2.empty() || l3.empty()) {
    requestLog().error("error adding model versions to search request, one is invalid: l2={}, l3={}", l2, l3);
    return;
  }
  b.defaultQueryItemWithName("l2", l2);
  b.defaultQueryItemWithName("l3", l3);
}

void VORRequestContext::_addDebugQueryItems(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  for (const QueryItem& item : debuggingQueryItems_) b.forceQueryItem(item);
}

namespace {

// Appends a suggestion's text, origin and score (and those of its folded duplicates) to the lists.
void addSuggestionAndSources(const QXSearchSuggestion& suggestion, std::vector<std::string>& texts,
                             std::vector<std::string>& origins, std::vector<std::string>& scores) {
  texts.push_back(suggestion.suggestion);
  origins.push_back(VORRequestContext::originStringForSearchSuggestion(suggestion).value_or(""));
  scores.push_back(fmt::format("{:.2f}", suggestion.score));
}

std::string joined(const std::vector<std::string>& parts) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i) out += ':';
    out += parts[i];
  }
  return out;
}

}  // namespace

void VORRequestContext::_addSuggestionStrings(VorlenURLRequestBuilder& b,
                                              const VORSearchRequest& query) const {
  contextAccessQueue_->assertCurrent();
  std::vector<std::string> texts, origins, scores;
  if (query.engagedSuggestion) {
    addSuggestionAndSources(*query.engagedSuggestion, texts, origins, scores);
    for (const QXSearchSuggestion& duplicate : query.engagedSuggestion->duplicateSuggestions) {
      addSuggestionAndSources(duplicate, texts, origins, scores);
    }
  }
  for (const QXSearchSuggestion& local : query.localContextualSuggestions) {
    addSuggestionAndSources(local, texts, origins, scores);
  }
  if (query.completionCacheSuggestion)
    addSuggestionAndSources(*query.completionCacheSuggestion, texts, origins, scores);
  if (texts.empty()) return;
  b.defaultQueryItemWithName("lc", joined(texts));
  b.defaultQueryItemWithName("lco", joined(origins));
  b.defaultQueryItemWithName("lcs", joined(scores));
}

// ---- Headers.

void VORRequestContext::_forceProtobuf(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  b.forceHttpHeaderWithName("Accept", "application/x-protobuf");
}

void VORRequestContext::_addHttpRequestUserGuid(VorlenURLRequestBuilder& b, const Uuid& userGuid) const {
  contextAccessQueue_->assertCurrent();
  b.defaultHttpHeaderWithName("X-Velmo-UserGuid", userGuid.string());
}

void VORRequestContext::_addHttpRequestUserAgent(VorlenURLRequestBuilder& b,
                                                 const std::optional<std::string>& userAgent) const {
  contextAccessQueue_->assertCurrent();
  addHeader(b, "User-Agent", userAgent);
}

void VORRequestContext::_addHttpRequestUIScale(VorlenURLRequestBuilder& b, double scale) const {
  contextAccessQueue_->assertCurrent();
  if (scale > 0) b.defaultHttpHeaderWithName("X-Velmo-UI-Scale", fmt::format("{:.1f}", scale));
}

void VORRequestContext::_addHttpRequestPreferredLanguages(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  addHeader(b, "X-Velmo-Languages", preferredLanguages_);
}

void VORRequestContext::_addHttpRequestMapsSessionId(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  if (!locationManager_) return;
  auto entity = locationManager_->getMapsUserSessionEntityAndReset(false);
  if (!entity) return;
  auto id = entity->sessionEntityString();
  if (!id) {
    requestLog().error("geo session entity of class {} cannot give its session id",
                       GeoSessionEntity::kClassName);
    return;
  }
  if (!id->empty()) b.defaultHttpHeaderWithName("X-Velmo-GeoSession", *id);
}

void VORRequestContext::_addHttpMapsEnvironmentName(VorlenURLRequestBuilder& b, const VORBag& bag) const {
  contextAccessQueue_->assertCurrent();
  if (!bag.sendGeoEnvironmentHeader() || !locationManager_) return;
  auto name = locationManager_->mapsEnvironment();
  addHeader(b, "X-Velmo-GeoEnvironment", name);
}

void VORRequestContext::_addHttpRequestSubscriptionInfo(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  if (subscriptionInfo_) b.defaultHttpHeaderWithName("X-Velmo-Subscriptions", *subscriptionInfo_);
}

void VORRequestContext::_addHttpAppWhitelistSignature(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  if (appWhitelistSignature_)
    b.defaultHttpHeaderWithName("X-Velmo-Whitelisted-App-Signature", *appWhitelistSignature_);
}

void VORRequestContext::_addHttpRequestTopTopics(VorlenURLRequestBuilder& b, const Value& topTopics) const {
  contextAccessQueue_->assertCurrent();
  if (auto text = jsonText(topTopics)) b.defaultHttpHeaderWithName("X-Velmo-TopTopics", *text);
}

void VORRequestContext::_addHttpFuzzedLocation(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  if (lookupGeoLocationLatLng_)
    b.defaultHttpHeaderWithName("X-Velmo-FuzzedLatLong", *lookupGeoLocationLatLng_);
}

void VORRequestContext::_addHttpIfNoneMatch(VorlenURLRequestBuilder& b,
                                            const std::optional<std::string>& version) const {
  contextAccessQueue_->assertCurrent();
  addHeader(b, "If-None-Match", version);
}

void VORRequestContext::_addHttpGeoClientMetadata(VorlenURLRequestBuilder& b) const {
  contextAccessQueue_->assertCurrent();
  if (geoClientMetadata_) b.defaultHttpHeaderWithName("X-Velmo-GeoMetadata", *geoClientMetadata_);
}

// ---- Location rules.

bool VORRequestContext::_setLocationIfAllowedByBag(const LocationFix& fix) {
  contextAccessQueue_->assertCurrent();
  std::string source = _locationSourceForLocation(fix);
  for (const std::string& supported : supportedGeoLocationSources_) {
    if (supported == source) {
      _setLocation(fix);
      return true;
    }
  }
  _setNoLocationWithReason(fmt::format("{}.{}", "bagno", source));
  return false;
}

void VORRequestContext::_setLocation(const LocationFix& fix) {
  contextAccessQueue_->assertCurrent();
  geoLocation_ = fix;
  geoLocationLatLng_ = fmt::format("{:f},{:f}", fix.latitude, fix.longitude);
  geoLocationSource_ = fmt::format("{},{:f}", _locationSourceForLocation(fix), fix.horizontalAccuracy);
  // The look-up location is coarse (whole degrees) until a search was performed.
  if (!lookupGeoLocationLatLng_) {
    lookupGeoLocationLatLng_ = fmt::format("{:f},{:f}", std::trunc(fix.latitude), std::trunc(fix.longitude));
  }
}

void VORRequestContext::_setNoLocationWithReason(const std::string& reason) {
  contextAccessQueue_->assertCurrent();
  geoLocation_.reset();
  geoLocationLatLng_.reset();
  lookupGeoLocationLatLng_.reset();
  geoLocationSource_ = reason;
}

void VORRequestContext::setPerformedSearch() {
  contextAccessQueue_->assertCurrent();
  if (geoLocation_) {
    lookupGeoLocationLatLng_ = fmt::format("{:f},{:f}", geoLocation_->latitude, geoLocation_->longitude);
  }
}

// ---- Pure helpers.

std::optional<std::string> VORRequestContext::measurementSystemCode(std::string_view system) {
  if (system == "Metric") return std::string("SI");
  if (system == "U.S.") return std::string("US");
  if (system == "U.K.") return std::string("UK");
  return std::nullopt;
}

std::string VORRequestContext::_locationSourceForLocation(const LocationFix& fix) {
  switch (fix.type) {
    case 1:
    case 2:
    case 3:
    case 9:
      return "gps";
    case 6:
    case 7:
    case 8:
      return "cell";
    case 4:
    case 5:
      return "wifi";
    default:
      return "unknown";
  }
}

std::optional<std::string> VORRequestContext::originStringForSearchSuggestion(
    const QXSearchSuggestion& suggestion) {
  switch (suggestion.type) {
    case 1:
      return std::string("se");
    case 5:
      if (suggestion.topicIdentifier.empty()) return std::nullopt;
      return fmt::format("{}-{}", "ss", suggestion.topicIdentifier);
    case 6:
      return std::string("ut");
    case 7:
      return std::string("co");
    case 8:
      return std::string("3d");
    case 9:
      return std::string("en");
    default:
      return std::nullopt;
  }
}

std::vector<QueryItem> VORRequestContext::parseDebugParameters(const std::string& text) {
  requestLog().debug("processing debug parameters: ({})", text);
  std::vector<QueryItem> items;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('&', start);
    if (end == std::string::npos) end = text.size();
    std::string component = text.substr(start, end - start);
    size_t eq = component.find('=');
    if (eq == std::string::npos || component.find('=', eq + 1) != std::string::npos) {
      requestLog().error("invalid query components: {}", component);
    } else {
      items.push_back(QueryItem{component.substr(0, eq), component.substr(eq + 1)});
    }
    start = end + 1;
  }
  return items;
}

std::optional<std::string> VORRequestContext::preferredLanguagesText(
    const std::vector<std::string>& languages) {
  nlohmann::json array = nlohmann::json::array();
  for (size_t i = 0; i < languages.size() && i < 3; ++i) array.push_back(languages[i]);
  try {
    return array.dump();
  } catch (const std::exception& e) {  // invalid UTF-8 in a language name
    requestLog().error("Error encoding preferred languages {}.", e.what());
    return std::nullopt;
  }
}

std::optional<std::string> VORRequestContext::jsonText(const Value& value) {
  if (value.isNull()) return std::nullopt;
  nlohmann::json j;
  if (!toJson(value, &j)) return std::nullopt;
  try {
    return j.dump();
  } catch (const std::exception&) {  // invalid UTF-8
    return std::nullopt;
  }
}

std::optional<std::string> VORRequestContext::detectLanguage(const std::string& text) {
  if (text.empty()) return std::nullopt;
  // The language identifier for short texts first; where it is unsure (a single word, mixed text), the
  // script of the first word when that script names one language.
  if (auto language = LanguageIdentifier::languageOfText(text)) return language;
  UErrorCode status = U_ZERO_ERROR;
  UText* ut = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
  std::unique_ptr<icu::BreakIterator> words(
      icu::BreakIterator::createWordInstance(icu::Locale::getRoot(), status));
  if (U_FAILURE(status) || !words) {
    if (ut) utext_close(ut);
    return std::nullopt;
  }
  words->setText(ut, status);
  // Kana anywhere in the text marks Han characters as Japanese.
  bool hasKana = false;
  for (UChar32 c = utext_next32From(ut, 0); c >= 0; c = utext_next32(ut)) {
    UErrorCode e = U_ZERO_ERROR;
    UScriptCode s = uscript_getScript(c, &e);
    if (s == USCRIPT_HIRAGANA || s == USCRIPT_KATAKANA) hasKana = true;
  }
  std::optional<std::string> language;
  // The first word token decides: its first letter's script.
  int32_t start = words->first();
  for (int32_t end = words->next(); end != icu::BreakIterator::DONE; start = end, end = words->next()) {
    if (words->getRuleStatus() == UBRK_WORD_NONE) continue;
    UChar32 first = -1;
    for (UChar32 c = utext_next32From(ut, start); c >= 0 && utext_getNativeIndex(ut) <= end;
         c = utext_next32(ut)) {
      if (u_isalpha(c)) {
        first = c;
        break;
      }
    }
    if (first < 0) continue;
    UErrorCode e = U_ZERO_ERROR;
    language = languageForScript(uscript_getScript(first, &e), hasKana);
    break;
  }
  utext_close(ut);
  return language;
}

}  // namespace vorlen
