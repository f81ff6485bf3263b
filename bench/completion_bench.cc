// Local completion lookup on the typing path: EngagedCompletionCache::completionForInput against a real
// SQLite file of 10,000 and 100,000 engagements, with the real clock, measured per call from the caller's
// side (with the connection free, the query runs on the calling thread) against the 5 ms budget.
//
// Rows look like a month of history: query-like completions, each engaged several times at dates spread
// over the last 30 days, typed inputs that are prefixes of them, mostly from the browser client. Lookups
// use 1 to 4 typed characters of a stored completion, as typing does.
//
// The lookup's time-out is raised for the run so that every query's true duration is seen; "over_budget"
// is the share of lookups that the default 5 ms budget would have cut off. Log lines are formatted as in
// production but written nowhere, so log I/O is not part of the figure.
//
// Run: completion_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <vector>

#include "BenchSupport.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "cache/EngagedCompletionCache.h"

namespace vorlen {
namespace {

using bench::DiscardingSink;

const char* const kWords[] = {"weather",  "news",  "new york",  "restaurants", "near me", "how to",
                              "recipe",   "movie", "times",     "score",       "flight",  "stock",
                              "price",    "best",  "translate", "map",         "hotel",   "train",
                              "football", "music", "lyrics"};

struct Database {
  std::filesystem::path root;
  std::shared_ptr<EngagedCompletionCache> cache;
  std::vector<std::string> completions;
  std::string error;

  ~Database() {
    cache.reset();
    std::error_code ec;
    if (!root.empty()) std::filesystem::remove_all(root, ec);
  }
};

// A database of `rows` engagements, written in one transaction next to a live cache.
std::unique_ptr<Database> makeDatabase(size_t rows) {
  auto db = std::make_unique<Database>();
  char pattern[] = "/tmp/vorlen-completion-bench-XXXXXX";
  if (!::mkdtemp(pattern)) {
    db->error = "mkdtemp failed";
    return db;
  }
  db->root = pattern;
  auto prefs = std::make_shared<Preferences>(db->root / "config", "com.velmo.vorlend");
  db->cache = EngagedCompletionCache::create(db->root, Clock::system(), prefs);
  db->cache->setEnabled(true);
  db->cache->setSearchTimeout(10000);

  std::mt19937 rng(11);
  const size_t distinct = std::max<size_t>(rows / 5, 1);
  for (size_t i = 0; i < distinct; ++i)
    db->completions.push_back(std::string(kWords[rng() % std::size(kWords)]) + " " +
                              kWords[rng() % std::size(kWords)] + " " + std::to_string(rng() % 10000));

  sqlite3* handle = nullptr;
  if (sqlite3_open(db->cache->databasePath().c_str(), &handle) != SQLITE_OK) {
    db->error = "cannot open the database";
    sqlite3_close(handle);
    return db;
  }
  sqlite3_exec(handle, "BEGIN;", nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(handle, "INSERT INTO completion_cache_engagement VALUES (?, ?, ?, ?, ?);", -1, &insert,
                     nullptr);
  const int64_t now = static_cast<int64_t>(toUnixSeconds(Clock::system()->now()));
  for (size_t i = 0; i < rows; ++i) {
    const std::string& completion = db->completions[rng() % distinct];
    std::string input = completion.substr(0, 1 + rng() % std::min<size_t>(completion.size(), 6));
    sqlite3_bind_text(insert, 1, completion.data(), int(completion.size()), SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 2, input.data(), int(input.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(insert, 3, now - static_cast<int64_t>(rng() % 2592000));
    sqlite3_bind_text(insert, 4, rng() % 4 ? "se" : "3d", -1, SQLITE_STATIC);
    sqlite3_bind_int64(insert, 5, rng() % 8 ? 1 : 2);
    sqlite3_step(insert);
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  if (sqlite3_exec(handle, "COMMIT;", nullptr, nullptr, nullptr) != SQLITE_OK)
    db->error = "cannot write rows";
  sqlite3_close(handle);
  return db;
}

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * double(v.size())))];
}

void BM_CompletionLookup(benchmark::State& state) {
  auto previousSink = Log::setSink(std::make_shared<DiscardingSink>());
  const LogLevel previousThreshold = Log::threshold();
  Log::setThreshold(LogLevel::Info);  // the daemon's default threshold: every line is formatted
  auto db = makeDatabase(static_cast<size_t>(state.range(0)));
  if (!db->error.empty()) {
    Log::setSink(previousSink);
    return state.SkipWithError(db->error.c_str());
  }

  std::mt19937 rng(5);
  std::vector<double> micros;
  size_t found = 0;
  for (auto _ : state) {
    const std::string& completion = db->completions[rng() % db->completions.size()];
    std::string typed = completion.substr(0, 1 + rng() % 4);
    auto start = std::chrono::steady_clock::now();
    auto hit = db->cache->completionForInput(typed, 1);
    auto end = std::chrono::steady_clock::now();
    micros.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    if (hit) ++found;
  }
  state.counters["median_us"] = percentile(micros, 0.5);
  state.counters["p99_us"] = percentile(micros, 0.99);
  state.counters["over_budget"] =
      double(std::count_if(micros.begin(), micros.end(), [](double us) { return us > 5000; })) /
      double(std::max<size_t>(micros.size(), 1));
  state.counters["found"] = double(found) / double(std::max<size_t>(micros.size(), 1));
  db.reset();
  Log::setThreshold(previousThreshold);
  Log::setSink(previousSink);
}

}  // namespace
}  // namespace vorlen

BENCHMARK(vorlen::BM_CompletionLookup)
    ->Arg(100)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();
BENCHMARK_MAIN();
