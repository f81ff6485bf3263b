// Crit-bit tree against std::map on 100,000 query-like keys: insert, find, and prefix walks of what a
// user has typed (1 to 10 characters), which is the query cache's access pattern.
//
// Both sides do the same work per operation: find hands back a copy of the stored shared_ptr (what
// objectForKey returns), and a prefix walk hands each key to the same block as a string_view, without
// building std::string copies, and stops after 20 keys.
#include <benchmark/benchmark.h>

#include <map>
#include <random>

#include "cache/CritbitTree.h"

namespace {

const std::vector<std::string>& keys() {
  static const std::vector<std::string> k = [] {
    static const char* words[] = {"weather",  "news",  "new york",  "restaurants", "near me", "how to",
                                  "recipe",   "movie", "times",     "score",       "flight",  "stock",
                                  "price",    "best",  "translate", "map",         "hotel",   "train",
                                  "football", "music", "lyrics",    "définition",  "café"};
    std::mt19937 rng(7);
    std::vector<std::string> out;
    out.reserve(100000);
    while (out.size() < 100000) {
      std::string s = words[rng() % std::size(words)];
      s += ' ';
      s += words[rng() % std::size(words)];
      s += ' ' + std::to_string(rng() % 5000);
      out.push_back(std::move(s));
    }
    return out;
  }();
  return k;
}

void BM_CritbitInsert(benchmark::State& state) {
  for (auto _ : state) {
    vorlen::CritbitTree<int> t;
    auto v = std::make_shared<int>(1);
    for (auto& k : keys()) t.setObject(v, k);
    benchmark::DoNotOptimize(t.count());
  }
  state.SetItemsProcessed(state.iterations() * keys().size());
}

void BM_MapInsert(benchmark::State& state) {
  for (auto _ : state) {
    std::map<std::string, std::shared_ptr<int>> m;
    auto v = std::make_shared<int>(1);
    for (auto& k : keys()) m[k] = v;
    benchmark::DoNotOptimize(m.size());
  }
  state.SetItemsProcessed(state.iterations() * keys().size());
}

void BM_CritbitFind(benchmark::State& state) {
  vorlen::CritbitTree<int> t;
  auto v = std::make_shared<int>(1);
  for (auto& k : keys()) t.setObject(v, k);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(t.objectForKey(keys()[i++ % keys().size()]));
}

void BM_MapFind(benchmark::State& state) {
  std::map<std::string, std::shared_ptr<int>> m;
  auto v = std::make_shared<int>(1);
  for (auto& k : keys()) m[k] = v;
  size_t i = 0;
  for (auto _ : state) {
    auto it = m.find(keys()[i++ % keys().size()]);
    std::shared_ptr<int> found = it == m.end() ? nullptr : it->second;
    benchmark::DoNotOptimize(found);
  }
}

// The block both walks call for each key: looks at the key (its length) and stops after 20 keys.
struct CountingBlock {
  int n = 0;
  size_t bytes = 0;
  void operator()(std::string_view key, bool& stop) {
    bytes += key.size();
    stop = ++n >= 20;
  }
};

// Walks the first 20 keys under a typed prefix, as a lookup does before picking the shortest extension.
void BM_CritbitPrefixWalk(benchmark::State& state) {
  vorlen::CritbitTree<int> t;
  auto v = std::make_shared<int>(1);
  for (auto& k : keys()) t.setObject(v, k);
  size_t i = 0, len = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    std::string prefix = keys()[i++ % keys().size()].substr(0, len);
    CountingBlock block;
    t.keysMatchingPrefix(prefix, block);
    benchmark::DoNotOptimize(block.bytes);
  }
}

void BM_MapPrefixWalk(benchmark::State& state) {
  std::map<std::string, std::shared_ptr<int>> m;
  auto v = std::make_shared<int>(1);
  for (auto& k : keys()) m[k] = v;
  size_t i = 0, len = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    std::string prefix = keys()[i++ % keys().size()].substr(0, len);
    CountingBlock block;
    bool stop = false;
    for (auto it = m.lower_bound(prefix);
         !stop && it != m.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it)
      block(std::string_view(it->first), stop);
    benchmark::DoNotOptimize(block.bytes);
  }
}

}  // namespace

BENCHMARK(BM_CritbitInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MapInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CritbitFind);
BENCHMARK(BM_MapFind);
BENCHMARK(BM_CritbitPrefixWalk)->Arg(1)->Arg(2)->Arg(4)->Arg(10);
BENCHMARK(BM_MapPrefixWalk)->Arg(1)->Arg(2)->Arg(4)->Arg(10);
BENCHMARK_MAIN();
