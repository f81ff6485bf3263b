// One 20 MB resource download by VorlenDownloadManager from the in-process reference server: the bag
// change, the 60 s delay (passed on a manual clock), the transfer into a temporary file, the move into the
// resources folder and the completion notification. Each iteration serves a new version, so every bag
// change is an update.
//
// What it shows is memory, not speed: the transfer streams to disk, so the process's resident set must
// not grow by the size of the file. Counters: rss_growth_MB is the peak resident set during the iteration
// above the resident set before it (the peak is reset through /proc/self/clear_refs first); file_MB is
// the size of the stored file. Server and daemon side share the process, so the figure bounds both.
//
// Run: download_bench --benchmark_repetitions=3
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "BenchSupport.h"
#include "base/Counters.h"
#include "base/JsonValue.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "download/VorlenDownloadManager.h"
#include "model/Constants.h"
#include "model/VORBag.h"
#include "network/HttpSessions.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/RefServer.h"
#include "vorlen-refserver/ResourceFiles.h"

namespace vorlen {
namespace {

constexpr uint64_t kFileBytes = 20u << 20;

void BM_Download20MB(benchmark::State& state) {
  auto previousSink = Log::setSink(std::make_shared<bench::DiscardingSink>());
  char pattern[] = "/tmp/vorlen-bench-XXXXXX";
  const char* made = ::mkdtemp(pattern);
  if (!made) return state.SkipWithError("mkdtemp failed");
  std::filesystem::path dir(made);
  {
    RefServer server;
    if (!server.start()) return state.SkipWithError("the reference server did not start");
    auto clock = std::make_shared<ManualClock>();
    auto assembly = std::make_shared<Assembly>(test::platformForTesting(dir, clock));
    Counters::install(assembly->platform.counters);
    assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
    assembly->notificationCenter = assembly->platform.notificationCenter;
    assembly->httpSessions =
        std::make_shared<HttpSessions>(assembly->userDefaults, clock, assembly->platform.paths.tempDir);
    assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
    auto manager = VorlenDownloadManager::create(assembly);

    std::mutex mu;
    std::condition_variable cv;
    int stored = 0;
    auto token = assembly->notificationCenter->addObserver(kVORFileDownloadCompletedNotification, nullptr,
                                                           [&](const Notification&) {
                                                             std::lock_guard lock(mu);
                                                             ++stored;
                                                             cv.notify_all();
                                                           });
    const char* id = "installed_app_whitelist";
    for (const char* hints : {"lookup_hints_weekly", "lookup_hints_monthly"}) {
      auto c = *server.resources().control(hints);
      c.listed = false;
      server.resources().setControl(hints, c);
    }
    int64_t growthKb = 0;
    int version = 0;
    for (auto _ : state) {
      state.PauseTiming();
      auto c = *server.resources().control(id);
      c.size = kFileBytes;
      c.version = std::to_string(++version);
      server.resources().setControl(id, c);
      std::string error;
      auto raw = JsonValue::toValue(nlohmann::json::parse(server.bagBody()), &error);
      Notification n;
      n.name = kVORBagChangeNotification;
      n.object = std::make_shared<const VORBag>(*raw->getDict(), "bench/1");
      const int64_t before = bench::resetPeakRssKib();
      state.ResumeTiming();

      assembly->notificationCenter->post(n);
      manager->resourceForKey(id);  // the reconciliation has run
      clock->advance(std::chrono::seconds(60));
      std::unique_lock lock(mu);
      cv.wait(lock, [&] { return stored == version; });

      state.PauseTiming();
      growthKb = std::max(growthKb, bench::statusKib("VmHWM:") - before);
      state.ResumeTiming();
    }
    state.counters["rss_growth_MB"] = static_cast<double>(growthKb) / 1024.0;
    state.counters["file_MB"] =
        static_cast<double>(std::filesystem::file_size(manager->resourcesFolder() / id)) / (1 << 20);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFileBytes));
    token.reset();
    Counters::install(nullptr);
  }
  std::filesystem::remove_all(dir);
  Log::setSink(previousSink);
}
BENCHMARK(BM_Download20MB)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace
}  // namespace vorlen

BENCHMARK_MAIN();
