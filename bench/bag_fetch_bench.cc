// One bag fetch by VorlenBagController over loopback to the in-process reference server: the request
// built by the request factory, a fresh TCP connection (the server closes each bag connection), the JSON
// parse, the private keys, the atomic 0600 write of bag.plist, the install and its change notification.
// Each iteration starts one fetch through the single-flight gate and waits for its completion.
//
// BM_BagFetch writes the disk cache as the daemon does; BM_BagFetchNoDiskCache leaves it out, so the
// difference is the cost of the disk write (fsync included).
//
// Run: bag_fetch_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "base/Counters.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "network/HttpSessions.h"
#include "network/VORNetworkRequestFactory.h"
#include "network/VorlenBagController.h"
#include "platform/Assembly.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

void runBagFetch(benchmark::State& state, bool diskCache) {
  Log::setThreshold(LogLevel::Error);
  char pattern[] = "/tmp/vorlen-bench-XXXXXX";
  const char* made = ::mkdtemp(pattern);
  if (!made) return state.SkipWithError("mkdtemp failed");
  std::filesystem::path dir(made);
  {
    RefServer server;
    if (!server.start()) return state.SkipWithError("the reference server did not start");
    auto assembly = std::make_shared<Assembly>(test::platformForTesting(dir, Clock::system()));
    assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
    assembly->userDefaults->set(VorlenBagController::kBagURLPreference, server.baseURL() + "/bag");
    assembly->notificationCenter = assembly->platform.notificationCenter;
    assembly->httpSessions = std::make_shared<HttpSessions>(assembly->userDefaults, Clock::system(),
                                                            assembly->platform.paths.tempDir);
    assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
    assembly->diskBagCacheEnabled = diskCache;
    auto controller = VorlenBagController::create(assembly);

    std::mutex mu;
    std::condition_variable cv;
    bool failed = false;
    for (auto _ : state) {
      bool done = false;
      bool started = controller->fetchBagStateForTesting(std::nullopt, [&](const auto& bag, const auto&) {
        std::lock_guard lock(mu);
        done = true;
        failed = failed || !bag;
        cv.notify_all();
      });
      if (!started) {
        state.SkipWithError("a fetch was already in flight");
        break;
      }
      std::unique_lock lock(mu);
      cv.wait(lock, [&] { return done; });
      lock.unlock();
      // The gate reopens right after the completion; the next iteration must not be dropped by it.
      while (controller->isFetchInProgress()) std::this_thread::yield();
    }
    if (failed) state.SkipWithError("a bag fetch failed");
    state.counters["bag_requests"] = double(server.requestCount("/bag"));
  }
  std::filesystem::remove_all(dir);
}

void BM_BagFetch(benchmark::State& state) {
  runBagFetch(state, true);
}
void BM_BagFetchNoDiskCache(benchmark::State& state) {
  runBagFetch(state, false);
}

BENCHMARK(BM_BagFetch)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_BagFetchNoDiskCache)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
}  // namespace vorlen

BENCHMARK_MAIN();
