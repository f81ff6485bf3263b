// The installed-apps signature with 2,000 installed desktop entries (real files in a private folder) and a
// 20,000-app allow-list, of which 1,000 are installed: the whole generation (registry scan + parse + bitmap
// + code + record), and its two halves. Then look-up filtering of an answer of 100 results, each with
// keyword and subject instructions.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

#include "BenchSupport.h"
#include "cache/LookupResultFilter.h"
#include "network/AppWhitelistSignature.h"
#include "platform/InstalledApplications.h"

namespace {

namespace fs = std::filesystem;

struct Fixture {
  fs::path root;
  std::string allowList;
  std::unique_ptr<vorlen::XdgInstalledApplications> apps;

  Fixture() {
    vorlen::Log::setSink(std::make_shared<vorlen::bench::DiscardingSink>());
    root = fs::temp_directory_path() / ("vorlen-bench-apps-" + std::to_string(::getpid()));
    fs::create_directories(root / "applications");
    for (int i = 0; i < 2000; ++i) {
      std::ofstream(root / "applications" / ("org.example.App" + std::to_string(i) + ".desktop"))
          << "[Desktop Entry]\nType=Application\nName=App " << i << "\nExec=app" << i
          << "\nVersion=1.5\nX-AppVersion=" << i << ".0\nCategories=Utility;\n";
    }
    apps = std::make_unique<vorlen::XdgInstalledApplications>(std::vector<fs::path>{root}, nullptr);
    // Every other installed app (1,000) is listed, among 19,000 that are not installed.
    nlohmann::json map = nlohmann::json::object();
    std::vector<int> ids(20000);
    for (int i = 0; i < 20000; ++i) ids[i] = i;
    std::shuffle(ids.begin(), ids.end(), std::mt19937(3));
    for (int i = 0; i < 20000; ++i) {
      std::string id =
          i < 1000 ? "org.example.App" + std::to_string(2 * i) : "com.vendor.listed" + std::to_string(i);
      map[id] = nlohmann::json::array(
          {nlohmann::json{{"since", "2026-01-01"}}, nlohmann::json{{"encoding_id", ids[i]}}});
    }
    nlohmann::json inner{{"version", "00000000000000000a1b"}, {"apps", map}};
    allowList = nlohmann::json{{"apps", inner.dump()}, {"compression", "RLE"}, {"encoding", "bitmap"}}.dump();
  }
  ~Fixture() {
    std::error_code ec;
    fs::remove_all(root, ec);
  }
  std::span<const uint8_t> bytes() const {
    return {reinterpret_cast<const uint8_t*>(allowList.data()), allowList.size()};
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void BM_SignatureGeneration(benchmark::State& state) {
  Fixture& f = fixture();
  for (auto _ : state) {
    auto signature = vorlen::processWhitelist(f.bytes(), f.apps->installedApplications());
    if (!signature) state.SkipWithError("no signature");
    benchmark::DoNotOptimize(signature);
  }
}
BENCHMARK(BM_SignatureGeneration)->Unit(benchmark::kMillisecond);

void BM_InstalledApplicationsScan(benchmark::State& state) {
  Fixture& f = fixture();
  for (auto _ : state) benchmark::DoNotOptimize(f.apps->installedApplications());
}
BENCHMARK(BM_InstalledApplicationsScan)->Unit(benchmark::kMillisecond);

void BM_AllowListSignatureOnly(benchmark::State& state) {
  Fixture& f = fixture();
  auto installed = f.apps->installedApplications();
  for (auto _ : state) benchmark::DoNotOptimize(vorlen::processWhitelist(f.bytes(), installed));
}
BENCHMARK(BM_AllowListSignatureOnly)->Unit(benchmark::kMillisecond);

void BM_LookupFilter100Results(benchmark::State& state) {
  vorlen::Log::setSink(std::make_shared<vorlen::bench::DiscardingSink>());
  nlohmann::json results = nlohmann::json::array();
  for (int i = 0; i < 100; ++i) {
    results.push_back(nlohmann::json{{"title", "result " + std::to_string(i)},
                                     {"lookup_instructions",
                                      {{"min_keywords_score", 0.5},
                                       {"completion", i % 3 ? "york" : "jersey"},
                                       {"keywords",
                                        {{{"word", "weather"}, {"weight", 0.3}},
                                         {{"word", "forecast"}, {"weight", 0.3}},
                                         {{"word", "new"}, {"weight", 0.2}},
                                         {{"word", "rain"}, {"weight", 0.1}},
                                         {{"word", "york"}, {"weight", 0.2}}}},
                                       {"min_subject_score", 0.5},
                                       {"subject", "new york weather " + std::to_string(i % 4)}}}});
  }
  nlohmann::json answer = nlohmann::json::array({nlohmann::json{{"results", results}}});
  vorlen::LookupResultFilter filter("en_US");
  // The filter works on the answer in place (the daemon moves its parsed answer in); the copy each round
  // needs is made outside the timed part.
  for (auto _ : state) {
    state.PauseTiming();
    nlohmann::json copy = answer;
    state.ResumeTiming();
    benchmark::DoNotOptimize(filter.filter("weather forecast in new york", std::move(copy)));
  }
}
BENCHMARK(BM_LookupFilter100Results)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
