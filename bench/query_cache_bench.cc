// QueryCache lookup with 1,000 cached responses: what a client pays per keystroke before going to the
// network. The typed text is a prefix (1, 3 or 6 characters) of a cached query, so a short prefix walks many
// keys and a long one few. Each run reports the median over repetitions.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "cache/QueryCache.h"
#include "model/VORRequest.h"
#include "network/HttpRequest.h"
#include "platform/Assembly.h"
#include "support/TestPlatform.h"

namespace {

using namespace vorlen;

struct Fixture {
  Fixture() {
    Log::setThreshold(LogLevel::Error);  // the info line of every insertion is not what is measured
    char pattern[] = "/tmp/query_cache_bench.XXXXXX";
    root = mkdtemp(pattern);
    platform = test::platformForTesting(root / "root", Clock::system());
    assembly = std::make_shared<Assembly>(platform);
    assembly->notificationCenter = platform.notificationCenter;
    cache = QueryCache::create(*assembly);

    static const char* words[] = {"weather",
                                  "news",
                                  "new york",
                                  "restaurants",
                                  "near me",
                                  "how to",
                                  "recipe",
                                  "movie",
                                  "times",
                                  "score",
                                  "flight",
                                  "stock",
                                  "price",
                                  "best",
                                  "translate",
                                  "map",
                                  "hotel",
                                  "train",
                                  "football",
                                  "music",
                                  "lyrics",
                                  "d\xc3\xa9"
                                  "finition"};
    std::mt19937 rng(11);
    HttpRequest request;
    request.url = "https://search.example/search?q=x&qtype=web";
    request.headers["X-Velmo-UI-Scale"] = "2";
    std::set<std::string> seen;
    while (queries.size() < 1000) {
      std::string q = std::string(words[rng() % std::size(words)]) + " " + words[rng() % std::size(words)] +
                      " " + std::to_string(rng() % 100);
      if (!seen.insert(q).second) continue;
      nlohmann::json response = {{"query", q}, {"completion_score", (rng() % 100) / 100.0}};
      // 1,000 charges of 512 + 1024 stay inside the 2 MiB budget.
      cache->set(std::make_shared<CachedResultSet>(q.substr(0, 1), &request, response, Uuid::random(),
                                                   std::vector<uint8_t>(512, 'x'), Clock::system()->now()));
      queries.push_back(std::move(q));
    }
    std::shuffle(queries.begin(), queries.end(), rng);
    http.url = request.url;
  }
  ~Fixture() {
    cache.reset();
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }

  std::filesystem::path root;
  Platform platform;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<QueryCache> cache;
  std::vector<std::string> queries;
  HttpRequest http;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void BM_QueryCacheLookup(benchmark::State& state) {
  Fixture& f = fixture();
  const size_t len = static_cast<size_t>(state.range(0));
  VORSearchRequest request;
  request.scale = 2;
  size_t i = 0, hits = 0;
  for (auto _ : state) {
    request.queryString = f.queries[i++ % f.queries.size()].substr(0, len);
    auto entry = f.cache->getRequest(request, &f.http);
    hits += entry != nullptr;
    benchmark::DoNotOptimize(entry);
  }
  state.counters["entries"] = static_cast<double>(f.cache->count());
  state.counters["hit_rate"] = static_cast<double>(hits) / static_cast<double>(state.iterations());
}

}  // namespace

BENCHMARK(BM_QueryCacheLookup)
    ->Arg(1)
    ->Arg(3)
    ->Arg(6)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(7)
    ->ReportAggregatesOnly(true);
BENCHMARK_MAIN();
