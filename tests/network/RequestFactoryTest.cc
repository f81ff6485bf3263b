// Requests built by VORNetworkRequestFactory are sent through a real HttpSession to the in-process
// RefServer, and the assertions are on what arrived there.
#include "network/VORNetworkRequestFactory.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Paths.h"
#include "base/Preferences.h"
#include "model/Constants.h"
#include "network/BagController.h"
#include "network/HttpTestSupport.h"
#include "network/LocationManager.h"
#include "network/UrlComponents.h"
#include "platform/Assembly.h"
#include "platform/DeviceRestrictions.h"
#include "platform/GeoConfiguration.h"
#include "platform/LocaleProvider.h"
#include "platform/LocationProvider.h"
#include "platform/PlatformNotifications.h"
#include "support/PlatformFakes.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using Recorded = RefServer::RecordedRequest;

// The bag endpoint role, as the factory uses it: only the URL for a country code matters.
class UrlOnlyBagController final : public BagController {
 public:
  explicit UrlOnlyBagController(std::string base) : base_(std::move(base)) {}
  std::optional<VORBag> currentBag() override { return std::nullopt; }
  std::optional<VORBag> cachedBagState() override { return std::nullopt; }
  std::optional<std::string> warmURL() override { return std::nullopt; }
  void forceFetchBag(const Value::Dict&) override {}
  std::string bagFetchURLWithCountry(const std::optional<std::string>& countryCode) const override {
    lastCountry = countryCode;
    return base_;
  }
  mutable std::optional<std::string> lastCountry;

 private:
  std::string base_;
};

std::optional<std::string> item(const Recorded& r, const std::string& name) {
  for (const auto& [n, v] : r.queryItems) {
    if (n == name) return v;
  }
  return std::nullopt;
}

std::vector<std::string> itemNamesOnTheWire(const Recorded& r) {
  std::vector<std::string> names;
  for (const QueryItem& i : UrlComponents::parse("http://h/?" + r.rawQuery)->queryItems())
    names.push_back(i.name);
  return names;
}

bool hasHeader(const Recorded& r, const std::string& name) {
  return std::any_of(r.headers.begin(), r.headers.end(), [&](const auto& h) {
    return std::equal(h.first.begin(), h.first.end(), name.begin(), name.end(),
                      [](char a, char b) { return std::tolower(a) == std::tolower(b); });
  });
}

// Each entry is "name=value" (the item is sent with that value) or "!name" (it is not sent).
void expectItems(const Recorded& r, std::initializer_list<std::string_view> expected) {
  for (std::string_view e : expected) {
    if (e.starts_with('!')) {
      EXPECT_FALSE(item(r, std::string(e.substr(1)))) << e << " in " << r.rawQuery;
    } else {
      const size_t eq = e.find('=');
      EXPECT_EQ(item(r, std::string(e.substr(0, eq))), std::string(e.substr(eq + 1))) << r.rawQuery;
    }
  }
}

// Each entry is "Name: value" (the header is sent with that value) or "!Name" (it is not sent).
void expectHeaders(const Recorded& r, std::initializer_list<std::string_view> expected) {
  for (std::string_view e : expected) {
    if (e.starts_with('!')) {
      EXPECT_FALSE(hasHeader(r, std::string(e.substr(1)))) << e;
    } else {
      const size_t colon = e.find(": ");
      EXPECT_EQ(r.header(e.substr(0, colon)), e.substr(colon + 2));
    }
  }
}

class RequestFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.start());
    HttpSessionSettings s;
    s.name = "factory-test";
    session = HttpSession::create(s);
    // RefServer::start() returns before its accept loop runs, and a stop() before that loop started never
    // ends it; one answered request proves the loop is running.
    HttpRequest ping;
    ping.url = server.baseURL() + "/_echo";
    send(ping);
    assembly = std::make_shared<Assembly>(test::platformForTesting(dir.path(), clock));
    assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
    assembly->notificationCenter = assembly->platform.notificationCenter;
    locale = std::static_pointer_cast<test::FakeLocaleProvider>(assembly->platform.locale);
    location = std::static_pointer_cast<test::FakeLocationProvider>(assembly->platform.location);
    geo = std::static_pointer_cast<test::FakeGeoConfiguration>(assembly->platform.geo);
    restrictions = std::static_pointer_cast<test::FakeDeviceRestrictions>(assembly->platform.restrictions);
    test::FakeLocaleProvider::Values v;
    v.localeIdentifier = "en_GB";
    v.preferredLanguages = {"en-GB", "fr-FR", "de", "es", "it"};
    v.measurementSystem = "U.K.";
    v.localeTemperatureUnit = "Celsius";
    v.hourFormatPattern = "HH:mm";
    v.timeZoneName = "Europe/London";
    v.regionCode = "GB";
    locale->setValues(v);
    geo->setCountryCode("GB");
  }

  // Builds the location manager and the factory from the Assembly as the daemon does.
  std::shared_ptr<VORNetworkRequestFactory> makeFactory() {
    assembly->locationManager = LocationManager::create(*assembly);
    factory = VORNetworkRequestFactory::create(*assembly);
    assembly->requestFactory = factory;
    return factory;
  }

  Value::Dict rawBag(Value::Array sources = {}) const {
    std::string echo = server.baseURL() + "/_echo";
    return Value::Dict{{"enabled", true},
                       {"search_url", echo + "?kind=search"},
                       {"more_results_url", echo + "?kind=more"},
                       {"card_url", echo + "?kind=card"},
                       {"flight_url", echo + "?kind=flight"},
                       {"l2_version", "l2-7"},
                       {"l3_version", "l3-9"},
                       {"send_geo_environment_header", true},
                       {"supported_geo_location_sources", Value(std::move(sources))}};
  }
  VORBag bag(Value::Array sources = {}) const { return VORBag(rawBag(std::move(sources)), "Voyant/1"); }

  void installBag(const VORBag& b) {
    Notification n;
    n.name = kVORBagChangeNotification;
    n.userInfo = Value::dict({{kVORBagKey, b.toRecord()}});
    assembly->notificationCenter->post(n);
    factory->flushContextAccessQueue();
    assembly->locationManager->flushForTesting();
  }

  // Sends the request and answers what the server recorded of it.
  Recorded send(const HttpRequest& request) {
    server.clearRequests();
    test::CompletionProbe probe;
    session->dataTask(request, probe.handler())->resume();
    EXPECT_TRUE(probe.waitFor(1));
    auto all = server.requests();
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? Recorded{} : all.back();
  }

  VORRequestClient client{std::string("Vorlend/1.0 (TestDevice1,1; TestOS 1A100) Voyant/1"), 12.5};
  Uuid guid = *Uuid::parse("1B4E28BA-2FA1-41D2-883F-0016D3CCA427");

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  RefServer server;
  std::shared_ptr<HttpSession> session;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<test::FakeLocaleProvider> locale;
  std::shared_ptr<test::FakeLocationProvider> location;
  std::shared_ptr<test::FakeGeoConfiguration> geo;
  std::shared_ptr<test::FakeDeviceRestrictions> restrictions;
  std::shared_ptr<VORNetworkRequestFactory> factory;
};

TEST_F(RequestFactoryTest, SearchRequestCarriesTheWholeContextInAlphabeticalOrder) {
  makeFactory();
  VORSearchRequest q;
  q.queryString = "weather; today";
  q.triggerEvent = 22;
  q.scale = 2.0;
  q.keyboardInputMode = "en_GB";
  q.topTopics = Value::array({"sports", "news"});
  QXSearchSuggestion engaged;
  engaged.suggestion = "weather";
  engaged.type = 5;
  engaged.topicIdentifier = "T1";
  engaged.score = 0.5;
  QXSearchSuggestion dup;
  dup.suggestion = "weather uk";
  dup.type = 6;
  dup.score = 0.25;
  engaged.duplicateSuggestions = {dup};
  q.engagedSuggestion = engaged;
  QXSearchSuggestion completion;
  completion.suggestion = "weather today";
  completion.type = 2;  // no origin
  completion.score = 1.0;
  q.completionCacheSuggestion = completion;

  auto request = factory->searchRequest(q, bag(), guid, client, std::string("title,url"));
  ASSERT_TRUE(request);
  EXPECT_EQ(request->timeoutSeconds, 12.5);
  Recorded r = send(*request);

  auto names = itemNamesOnTheWire(r);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end())) << r.rawQuery;
  EXPECT_NE(r.rawQuery.find("weather%3B"), std::string::npos) << r.rawQuery;
  // "kind" is the bag URL's own item; no location is known yet.
  expectItems(r, {"q=weather; today", "qtype=explicit", "kind=search", "key=corgipup2718", "card=1"});
  expectItems(r, {"cc=GB", "locale=en_GB", "esl=en", "kb_ime=en_GB", "calendar=gregorian"});
  expectItems(r, {"time_zone=Europe/London", "units=UK", "temp=C", "24h=1", "l2=l2-7", "l3=l3-9"});
  expectItems(r, {"lc=weather:weather uk:weather today", "lco=ss-T1:ut:", "lcs=0.50:0.25:1.00"});
  expectItems(r, {"!latlng", "!geosrc", "!mode", "!du_enabled"});
  EXPECT_EQ(item(r, VORNetworkRequestFactory::kFieldMaskQueryItem), "title,url");
  // "bWV0YQ==" is the base64 of the fake's geo metadata "meta".
  expectHeaders(r,
                {R"(X-Velmo-Languages: ["en-GB","fr-FR","de"])", R"(X-Velmo-TopTopics: ["sports","news"])"});
  expectHeaders(r,
                {"X-Velmo-UI-Scale: 2.0", "X-Velmo-GeoMetadata: bWV0YQ==", "X-Velmo-GeoEnvironment: test"});
  expectHeaders(r, {"!X-Velmo-Subscriptions", "!X-Velmo-Whitelisted-App-Signature"});
  EXPECT_EQ(r.header("X-Velmo-UserGuid"), guid.string());
  EXPECT_EQ(r.header("User-Agent"), *client.userAgent);
  EXPECT_TRUE(Uuid::parse(r.header("X-Velmo-GeoSession")));
  EXPECT_NE(r.header("Accept"), "application/x-protobuf");
}

TEST_F(RequestFactoryTest, QueryItemsWinOverDefaultsAndDebugItemsWinOverEverything) {
  assembly->userDefaults->set("VORDebugParameters", "locale=xx_XX&broken&q=debugged&a=b=c&empty=");
  makeFactory();
  ScopedLogCapture logs;
  VORSearchRequest q;
  q.queryString = "typed";
  q.triggerEvent = 8;
  q.queryItems = {VORQueryItem{}, VORQueryItem{}};
  q.queryItems[0].name = "key";
  q.queryItems[0].value = "client-key";
  q.queryItems[1].name = "qtype";
  q.queryItems[1].value = "mine";
  Recorded r = send(*factory->searchRequest(q, bag(), guid, client));
  // The query's own "key" stays over the default, its "qtype" is forced after the trigger's "suggested";
  // debug items are forced over everything, even the query text.
  expectItems(r, {"key=client-key", "qtype=mine", "locale=xx_XX", "q=debugged", "empty=", "!broken", "!a"});
  EXPECT_TRUE(logs.sink().contains("invalid query components: broken"));
  EXPECT_TRUE(logs.sink().contains("invalid query components: a=b=c"));

  // A new preference text is picked up by the next request.
  assembly->userDefaults->remove("VORDebugParameters");
  Recorded after = send(*factory->searchRequest(q, bag(), guid, client));
  expectItems(after, {"locale=en_GB", "q=typed"});
}

TEST_F(RequestFactoryTest, MeasurementSystemHourCycleAndModelVersionsDecideTheirItems) {
  auto v = locale->values();
  v.measurementSystem = "Imperial";
  v.hourFormatPattern = "h:mm a";
  v.preferredLanguages = {};
  locale->setValues(v);
  makeFactory();
  ScopedLogCapture logs;
  auto raw = rawBag();
  raw["l3_version"] = "";
  VORSearchRequest q;
  q.queryString = "x";
  Recorded r = send(*factory->searchRequest(q, VORBag(raw, "Voyant/1"), guid, client));
  expectItems(r, {"!units", "!24h", "!l2", "!l3"});
  EXPECT_EQ(r.header("X-Velmo-Languages"), "[]");
  EXPECT_TRUE(
      logs.sink().contains("error adding model versions to search request, one is invalid: l2=l2-7, l3="));

  v.measurementSystem = "Metric";
  locale->change(v);
  Recorded metric = send(*factory->searchRequest(q, bag(), guid, client));
  EXPECT_EQ(item(metric, "units"), "SI");
}

TEST_F(RequestFactoryTest, ZeroKeywordRequestIsZkwUnlessTheQuerySaysOtherwise) {
  makeFactory();
  VORZeroKeywordRequest q;
  q.scale = 3.0;
  Recorded r = send(*factory->zeroKeywordRequest(q, bag(), guid, client));
  expectItems(r, {"qtype=zkw", "!q", "!card", "units=UK", "cc=GB"});
  expectHeaders(r, {"X-Velmo-UI-Scale: 3.0", "X-Velmo-GeoEnvironment: test"});
  EXPECT_TRUE(hasHeader(r, "X-Velmo-GeoSession"));

  q.queryItems = {VORQueryItem{}};
  q.queryItems[0].name = "qtype";
  q.queryItems[0].value = "zkw_news";
  Recorded own = send(*factory->zeroKeywordRequest(q, bag(), guid, client));
  EXPECT_EQ(item(own, "qtype"), "zkw_news");
}

TEST_F(RequestFactoryTest, MoreResultsKeepsALatLngOfItsURLAndThenStartsNoLocation) {
  location->setAuthorizationStatus(LocationProvider::kAuthorizedAlways);
  makeFactory();
  VORMoreResultsRequest q;
  auto raw = rawBag(Value::Array{"wifi"});
  raw["more_results_url"] = server.baseURL() + "/_echo?latlng=1.5,2.5";
  installBag(VORBag(raw, "Voyant/1"));
  const int starts = location->startCount();
  Recorded r = send(*factory->moreResultsRequest(q, VORBag(raw, "Voyant/1"), guid, client));
  assembly->locationManager->flushForTesting();
  EXPECT_EQ(location->startCount(), starts);
  expectItems(r, {"latlng=1.5,2.5", "key=corgipup2718", "!cc"});  // "cc" is not part of this kind
  EXPECT_EQ(r.header("X-Velmo-UserGuid"), guid.string());
  EXPECT_FALSE(hasHeader(r, "X-Velmo-GeoSession"));

  raw["more_results_url"] = server.baseURL() + "/_echo";
  send(*factory->moreResultsRequest(q, VORBag(raw, "Voyant/1"), guid, client));
  assembly->locationManager->flushForTesting();
  EXPECT_EQ(location->startCount(), starts + 1);
}

// Zero keyword, look-up and flight search start the location service whatever the bag lists and the user
// allows (a fix is still kept only when the bag accepts its source); search starts it only when both allow.
TEST_F(RequestFactoryTest, ZeroKeywordLookupAndFlightAlwaysStartLocation) {
  location->setAuthorizationStatus(LocationProvider::kDenied);
  makeFactory();
  const VORBag noSources = bag();
  auto startsFor = [&](auto build) {
    const int before = location->startCount();
    EXPECT_TRUE(build());
    assembly->locationManager->flushForTesting();
    return location->startCount() - before;
  };
  EXPECT_EQ(startsFor([&] { return factory->searchRequest({}, noSources, guid, client); }), 0);
  EXPECT_EQ(startsFor([&] { return factory->zeroKeywordRequest({}, noSources, guid, client); }), 1);
  EXPECT_EQ(startsFor([&] { return factory->lookupRequest({}, noSources, guid, client); }), 1);
  EXPECT_EQ(startsFor([&] { return factory->flightSearchRequest({}, noSources, guid, client); }), 1);
}

TEST_F(RequestFactoryTest, CardLookupAndFlightRequestsCarryTheirOwnSets) {
  makeFactory();
  factory->setAppWhitelistSignature(std::string("sig-1"));
  factory->subscriptionManagerDidUpdateStorefrontIdentifier(std::string("143444"));
  factory->subscriptionManagerDidUpdateSubscriptionDictionaries(
      Value::Array{Value::dict({{"provider", "tv"}})});

  VORCardRequest card;
  card.scale = 2.0;
  card.queryItems = {VORQueryItem{}};
  card.queryItems[0].name = "id";
  card.queryItems[0].value = "c42";
  Recorded c = send(*factory->cardRequest(card, bag(), guid, client));
  expectItems(c, {"id=c42", "kind=card", "storefront=143444", "cc=GB", "!card"});
  expectHeaders(c, {"X-Velmo-Whitelisted-App-Signature: sig-1",
                    R"(X-Velmo-Subscriptions: [{"provider":"tv"}])", "X-Velmo-GeoEnvironment: test"});
  EXPECT_NE(c.header("Accept"), "application/x-protobuf");

  VORLookupRequest lookup;
  lookup.queryString = "東京タワー";
  lookup.lookupContext = "Καλημέρα κόσμε";
  lookup.appBundleIdentifier = "org.example.reader";
  lookup.hintDomain = "places";
  lookup.lookupSelectionType = 2;
  Recorded l = send(*factory->lookupRequest(lookup, bag(), guid, client));
  expectItems(l, {"q=東京タワー", "context=org.example.reader", "ldomain=places", "ltype=hint", "qlang=ja",
                  "lctxlang=el", "storefront=143444"});
  EXPECT_FALSE(hasHeader(l, "X-Velmo-GeoEnvironment"));
  lookup.lookupSelectionType = 7;
  lookup.queryString = "weather";
  lookup.lookupContext = "как сегодня погода в москве и будет ли дождь вечером";
  Recorded l2 = send(*factory->lookupRequest(lookup, bag(), guid, client));
  // One Latin word: neither the identifier nor the script can tell its language.
  expectItems(l2, {"ltype=default", "!qlang", "lctxlang=ru"});

  VORFlightSearchRequest flight;
  flight.flightQuery = "VL-123";
  Recorded f = send(*factory->flightSearchRequest(flight, bag(), guid, client));
  expectItems(f, {"q=VL-123", "timestamp=1767225600", "!storefront"});
  expectHeaders(f, {"Accept: application/x-protobuf", "X-Velmo-Whitelisted-App-Signature: sig-1"});
}

TEST_F(RequestFactoryTest, ABagWithoutTheURLGivesNoRequest) {
  makeFactory();
  auto raw = rawBag();
  raw.erase("flight_url");
  raw["card_url"] = "not a url";
  VORFlightSearchRequest flight;
  EXPECT_FALSE(factory->flightSearchRequest(flight, VORBag(raw, "Voyant/1"), guid, client));
  EXPECT_FALSE(factory->cardRequest(VORCardRequest{}, VORBag(raw, "Voyant/1"), guid, client));
}

TEST_F(RequestFactoryTest, WarmDownloadAndUploadRequests) {
  makeFactory();
  auto warm = factory->warmRequest(server.baseURL() + "/_echo?w=1");
  ASSERT_TRUE(warm);
  EXPECT_EQ(warm->cachePolicy, HttpCachePolicy::ReloadIgnoringLocalCacheData);
  Recorded w = send(*warm);
  EXPECT_EQ(w.queryItems, (std::vector<std::pair<std::string, std::string>>{{"w", "1"}}));
  EXPECT_FALSE(hasHeader(w, "X-Velmo-UserGuid"));

  auto download = factory->fileDownloadRequest(server.baseURL() + "/_echo", std::string("v7"), true);
  ASSERT_TRUE(download);
  EXPECT_EQ(download->cachePolicy, HttpCachePolicy::UseProtocolCachePolicy);
  Recorded d = send(*download);
  EXPECT_EQ(d.queryItems, (std::vector<std::pair<std::string, std::string>>{{"key", "corgipup2718"}}));
  expectHeaders(d, {"If-None-Match: v7", "User-Agent: Vorlend/1.0 (TestDevice1,1; TestOS 1A100) Norvanta/1",
                    "!X-Velmo-FuzzedLatLong"});  // no location yet

  auto upload = factory->flusherUploadRequest(server.baseURL() + "/_echo", 300, "digest-abc");
  ASSERT_TRUE(upload);
  EXPECT_EQ(upload->timeoutSeconds, 300);
  EXPECT_EQ(upload->cachePolicy, HttpCachePolicy::ReloadIgnoringLocalCacheData);
  Recorded u = send(*upload);
  EXPECT_EQ(u.method, "POST");
  expectHeaders(u, {"Content-Encoding: deflate", "X-Velmo-Digest: digest-abc",
                    "User-Agent: Vorlend/1.0 (TestDevice1,1; TestOS 1A100) Vorlend/1.0"});
  expectItems(u, {"du_enabled=1", "cc=GB", "locale=en_GB"});

  restrictions->setDiagnosticSubmissionAllowed(false);
  Recorded noConsent = send(*factory->flusherUploadRequest(server.baseURL() + "/_echo", 300, "d"));
  EXPECT_FALSE(item(noConsent, "du_enabled"));
}

TEST_F(RequestFactoryTest, BagFetchAndBagCacheRequestsDifferOnlyInKeyHeadersAndAgentPlace) {
  assembly->userDefaults->set("VORDebugParameters", "dbg=1");
  makeFactory();
  UrlOnlyBagController controller(server.baseURL() + "/bag");
  const std::string agent = "Vorlend/1.0 (TestDevice1,1; TestOS 1A100) Vorlend/1.0";

  auto fetch = factory->bagFetchRequest(controller, agent, std::string("12"));
  ASSERT_TRUE(fetch);
  EXPECT_EQ(controller.lastCountry, "GB");
  EXPECT_EQ(fetch->cachePolicy, HttpCachePolicy::ReloadIgnoringLocalCacheData);
  Recorded f = send(*fetch);
  EXPECT_EQ(f.path, "/bag");
  EXPECT_EQ(f.header("User-Agent"), agent);
  EXPECT_EQ(f.header("X-Velmo-Languages"), R"(["en-GB","fr-FR","de"])");
  expectItems(f, {"quintara=0", "version=12", "dbg=1"});

  auto cache = factory->bagCacheRequest(controller, agent, std::string("12"));
  ASSERT_TRUE(cache);
  EXPECT_TRUE(cache->headers.empty());
  auto cacheItems = UrlComponents::parse(cache->url)->queryItems();
  std::vector<std::pair<std::string, std::string>> cacheList;
  for (const auto& i : cacheItems) cacheList.emplace_back(i.name, i.value.value_or(""));
  std::vector<std::pair<std::string, std::string>> expected;
  for (const auto& p : f.queryItems) {
    if (p.first != "key") expected.push_back(p);
  }
  expected.emplace_back("agent", agent);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(cacheList, expected);
  EXPECT_EQ(cache->url.substr(0, cache->url.find('?')), server.baseURL() + "/bag");

  // The identity follows the state: the alternate endpoint mode and the country code.
  assembly->userDefaults->set("VORUseQuintara", true);
  auto quintara = factory->bagCacheRequest(controller, agent, std::string("12"));
  EXPECT_NE(quintara->url, cache->url);
  EXPECT_NE(quintara->url.find("quintara=1"), std::string::npos);
  // So does a preference that another process changes.
  Preferences other(assembly->userDefaults->path().parent_path(), assembly->userDefaults->domain());
  other.set("VORDebugParameters", "dbg=2");
  EXPECT_NE(factory->bagCacheRequest(controller, agent, std::string("12"))->url.find("dbg=2"),
            std::string::npos);

  auto bad = UrlOnlyBagController("/relative/bag");
  EXPECT_FALSE(factory->bagFetchRequest(bad, agent, std::nullopt));
  EXPECT_FALSE(factory->bagCacheRequest(bad, agent, std::nullopt));
}

TEST_F(RequestFactoryTest, LocaleAndCountryChangesAskForABagRefresh) {
  makeFactory();
  std::vector<const void*> senders;
  auto token = assembly->notificationCenter->addObserver(
      kVORBagRefreshRequired, nullptr, [&](const Notification& n) { senders.push_back(n.sender); });
  UrlOnlyBagController controller(server.baseURL() + "/bag");
  std::string before = factory->bagCacheRequest(controller, std::nullopt, std::nullopt)->url;

  auto v = locale->values();
  v.localeIdentifier = "fr_FR";
  v.preferredLanguages = {"fr-FR"};
  v.effectiveSystemLanguage = "fr";
  locale->change(v);
  ASSERT_EQ(senders.size(), 1u);
  EXPECT_EQ(senders[0], factory.get());
  std::string afterLocale = factory->bagCacheRequest(controller, std::nullopt, std::nullopt)->url;
  EXPECT_NE(afterLocale, before);
  EXPECT_NE(afterLocale.find("locale=fr_FR"), std::string::npos);
  EXPECT_NE(afterLocale.find("esl=fr"), std::string::npos);

  geo->setCountryCode("FR");
  ASSERT_EQ(senders.size(), 2u);
  EXPECT_EQ(factory->bagCacheRequest(controller, std::nullopt, std::nullopt)->url.find("cc=GB"),
            std::string::npos);
  EXPECT_EQ(controller.lastCountry, "FR");
  // A country-code notification without a change of the code asks for nothing.
  assembly->notificationCenter->post(kPlatformCountryCodeDidChangeNotification);
  EXPECT_EQ(senders.size(), 2u);
}

TEST_F(RequestFactoryTest, RestrictionsOrAManagedAccountSendManagedMode) {
  makeFactory();
  auto mode = [&] { return item(send(*factory->zeroKeywordRequest({}, bag(), guid, client)), "mode"); };
  EXPECT_FALSE(mode());
  restrictions->setAppInstallationAllowed(false);
  EXPECT_EQ(mode(), "managed");
  restrictions->setAppInstallationAllowed(true);
  restrictions->setBookStoreSetting(DeviceRestrictions::kYes);
  EXPECT_FALSE(mode());
  restrictions->setBookStoreSetting(DeviceRestrictions::kNo);
  EXPECT_EQ(mode(), "managed");
  restrictions->setBookStoreSetting(DeviceRestrictions::kNotSet);
  EXPECT_FALSE(mode());
  restrictions->setManagedAccount(true);
  EXPECT_EQ(mode(), "managed");
}

// ---- Location context, driven through the fake location service
// ----------------------------------------------

LocationFix fix(int64_t type, double lat = 37.7749, double lng = -122.4194, double accuracy = 65) {
  return LocationFix{lat, lng, accuracy, type};
}

TEST_F(RequestFactoryTest, SourceBeforeAnyFixSaysWhetherLocationIsAllowed) {
  makeFactory();
  EXPECT_EQ(factory->locationStateForTesting().source, "userno");
  location->setAuthorizationStatus(LocationProvider::kAuthorizedWhenInUse);
  auto second = VORNetworkRequestFactory::create(*assembly);
  EXPECT_EQ(second->locationStateForTesting().source, "error.init");
}

TEST_F(RequestFactoryTest, AFixTheBagAcceptsIsUsedOncePerStart) {
  location->setAuthorizationStatus(LocationProvider::kAuthorizedAlways);
  makeFactory();
  installBag(bag(Value::Array{"wifi", "cell"}));
  EXPECT_EQ(location->startCount(), 1);
  EXPECT_TRUE(location->isUpdating());

  // A source the bag does not support: no location, the reason, and updates keep running.
  location->pushLocations({fix(1)});
  factory->flushContextAccessQueue();
  auto state = factory->locationStateForTesting();
  EXPECT_FALSE(state.latLng);
  EXPECT_EQ(state.source, "bagno.gps");
  EXPECT_TRUE(location->isUpdating());

  // The last fix of a list counts; an accepted one stops the updates.
  location->pushLocations({fix(1), fix(4, 48.8566, 2.3522, 30)});
  factory->flushContextAccessQueue();
  assembly->locationManager->flushForTesting();
  state = factory->locationStateForTesting();
  EXPECT_EQ(state.latLng, "48.856600,2.352200");
  EXPECT_EQ(state.source, "wifi,30.000000");
  EXPECT_EQ(state.lookupLatLng, "48.000000,2.000000");  // truncated toward zero
  EXPECT_FALSE(location->isUpdating());
  EXPECT_EQ(location->stopCount(), 1);

  // A later fix keeps the coarse look-up location; a performed search freezes the full one.
  location->pushLocations({fix(7, -33.8688, 151.2093, 1000)});
  factory->flushContextAccessQueue();
  state = factory->locationStateForTesting();
  EXPECT_EQ(state.source, "cell,1000.000000");
  EXPECT_EQ(state.lookupLatLng, "48.000000,2.000000");
  factory->setPerformedSearch();
  EXPECT_EQ(factory->locationStateForTesting().lookupLatLng, "-33.868800,151.209300");

  VORSearchRequest q;
  q.queryString = "cafe";
  Recorded r = send(*factory->searchRequest(q, bag(Value::Array{"wifi", "cell"}), guid, client));
  expectItems(r, {"latlng=-33.868800,151.209300", "geosrc=cell,1000.000000"});
  Recorded d = send(*factory->fileDownloadRequest(server.baseURL() + "/_echo", std::nullopt, true));
  EXPECT_EQ(d.header("X-Velmo-FuzzedLatLong"), "-33.868800,151.209300");
}

TEST_F(RequestFactoryTest, FailuresRefusalsAndABagWithoutSourcesClearTheLocation) {
  location->setAuthorizationStatus(LocationProvider::kAuthorizedAlways);
  makeFactory();
  installBag(bag(Value::Array{"gps"}));
  location->pushLocations({fix(9)});
  factory->flushContextAccessQueue();
  ASSERT_TRUE(factory->locationStateForTesting().latLng);

  {
    ScopedLogCapture logs;
    location->pushFailure("timed out");
    factory->flushContextAccessQueue();
    EXPECT_TRUE(logs.sink().contains("Location determination failed with error timed out"));
  }
  auto state = factory->locationStateForTesting();
  EXPECT_FALSE(state.latLng);
  EXPECT_FALSE(state.lookupLatLng);
  EXPECT_EQ(state.source, "error.fail");
  VORZeroKeywordRequest zkw;
  Recorded r = send(*factory->zeroKeywordRequest(zkw, bag(Value::Array{"gps"}), guid, client));
  expectItems(r, {"!latlng", "geosrc=error.fail"});  // the reason travels

  location->pushAuthorizationStatus(LocationProvider::kDenied);
  factory->flushContextAccessQueue();
  EXPECT_EQ(factory->locationStateForTesting().source, "userno");
  const int starts = location->startCount();
  location->pushAuthorizationStatus(LocationProvider::kAuthorizedAlways);
  assembly->locationManager->flushForTesting();
  EXPECT_EQ(location->startCount(), starts + 1);

  installBag(bag());
  EXPECT_EQ(factory->locationStateForTesting().source, "bagno.all");
  EXPECT_FALSE(location->isUpdating());
}

TEST_F(RequestFactoryTest, ANewBagSetsVisibilityAndTheProxyConfiguration) {
  makeFactory();
  auto raw = rawBag();
  raw["clients"] = Value::dict({{"news", Value::dict({{"enabled", false}})}});
  raw["quintara_configuration"] = Value::dict({{"appRule", "x"}});
  installBag(VORBag(raw, "Voyant/1"));
  ASSERT_TRUE(test::eventually(
      [&] { return restrictions->visibilitySetting("allowHashtagImagesInSystemSearch").has_value(); }));
  ASSERT_TRUE(test::eventually(
      [&] { return restrictions->visibilitySetting("allowNewsInSystemSearch").has_value(); }));
  EXPECT_EQ(restrictions->visibilitySetting("allowNewsInSystemSearch"), false);
  EXPECT_EQ(restrictions->visibilitySetting("allowHashtagImagesInSystemSearch"), true);
  EXPECT_EQ(factory->networkServiceProxyConfiguration(), (Value::Dict{{"appRule", "x"}}));

  installBag(bag());
  auto fallback = factory->networkServiceProxyConfiguration();
  ASSERT_TRUE(fallback);
  EXPECT_EQ(Value(*fallback),
            Value::dict({{"appRule", Value::dict({{"enable", Value::dict({{"Enabled", false}})}})}}));
}

}  // namespace
}  // namespace vorlen
