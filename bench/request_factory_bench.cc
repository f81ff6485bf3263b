// Building one search request with a full context: locale, languages, country, a known location, the
// suggestion strings, debug parameters from the preferences, the geo headers. This is what every keystroke of
// a type-ahead search pays before the network. Reported as the median over repetitions (microseconds).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>

#include "base/Paths.h"
#include "base/Preferences.h"
#include "model/Constants.h"
#include "network/LocationManager.h"
#include "network/VORNetworkRequestFactory.h"
#include "network/VORRequestContext.h"
#include "platform/Assembly.h"
#include "platform/LocationProvider.h"
#include "support/PlatformFakes.h"
#include "support/TestPlatform.h"

namespace {

using namespace vorlen;

struct Fixture {
  Fixture() {
    char templ[] = "/tmp/vorlen-bench-XXXXXX";
    root = mkdtemp(templ);
    assembly = std::make_shared<Assembly>(test::platformForTesting(root, Clock::system()));
    assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
    assembly->userDefaults->set("VORDebugParameters", "exp=1&bucket=7");
    assembly->notificationCenter = assembly->platform.notificationCenter;
    auto location = std::static_pointer_cast<test::FakeLocationProvider>(assembly->platform.location);
    location->setAuthorizationStatus(LocationProvider::kAuthorizedAlways);
    assembly->locationManager = LocationManager::create(*assembly);
    factory = VORNetworkRequestFactory::create(*assembly);
    bag = VORBag(Value::Dict{{"enabled", true},
                             {"search_url", "https://search.vorlen.velmo.com/search?v=2"},
                             {"l2_version", "l2-7"},
                             {"l3_version", "l3-9"},
                             {"send_geo_environment_header", true},
                             {"supported_geo_location_sources", Value::array({"wifi"})}},
                 "Voyant/1");
    Notification n;
    n.name = kVORBagChangeNotification;
    n.userInfo = Value::dict({{kVORBagKey, bag->toRecord()}});
    assembly->notificationCenter->post(n);
    factory->flushContextAccessQueue();
    assembly->locationManager->flushForTesting();
    location->pushLocations({LocationFix{48.8566, 2.3522, 65, 4}});
    factory->flushContextAccessQueue();

    query.queryString = "weather in paris";
    query.triggerEvent = 21;
    query.scale = 2.0;
    query.keyboardInputMode = "en_US";
    query.topTopics = Value::array({"sports", "news"});
    QXSearchSuggestion s;
    s.suggestion = "weather";
    s.type = 5;
    s.topicIdentifier = "T1";
    s.score = 0.5;
    query.engagedSuggestion = s;
  }
  ~Fixture() {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }

  std::filesystem::path root;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<VORNetworkRequestFactory> factory;
  std::optional<VORBag> bag;
  VORSearchRequest query;
  VORRequestClient client{std::string("Vorlend/1.0 (Bench1,1; BenchOS 1) Voyant/1"), 10};
  Uuid guid = Uuid::random();
};

void BM_SearchRequest(benchmark::State& state) {
  static Fixture f;
  for (auto _ : state) {
    auto request = f.factory->searchRequest(f.query, *f.bag, f.guid, f.client);
    benchmark::DoNotOptimize(request);
  }
}
BENCHMARK(BM_SearchRequest)->Unit(benchmark::kMicrosecond)->Repetitions(9)->ReportAggregatesOnly(true);

// The language of a query ("qlang"): the identifier for short texts, then the script rule. Texts a user
// types: a sentence the identifier is sure of, and a single word it is not (the script rule then answers).
void BM_QueryLanguage(benchmark::State& state) {
  static const std::string texts[] = {"wie spät ist es heute abend in berlin", "weather", "東京タワー"};
  const std::string& text = texts[state.range(0)];
  for (auto _ : state) {
    auto language = VORRequestContext::detectLanguage(text);
    benchmark::DoNotOptimize(language);
  }
}
BENCHMARK(BM_QueryLanguage)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

// A whole look-up request, which carries "qlang" and "lctxlang".
void BM_LookupRequest(benchmark::State& state) {
  static Fixture f;
  VORLookupRequest lookup;
  lookup.queryString = "serendipity";
  lookup.lookupContext = "It was pure serendipity that we met in the old bookshop by the river.";
  lookup.keyboardInputMode = "en_US";
  for (auto _ : state) {
    auto request = f.factory->lookupRequest(lookup, *f.bag, f.guid, f.client);
    benchmark::DoNotOptimize(request);
  }
}
BENCHMARK(BM_LookupRequest)->Unit(benchmark::kMicrosecond)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
