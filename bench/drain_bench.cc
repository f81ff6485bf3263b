// The background drain end to end: 100 stored sessions of 200 events each, read back from their files,
// deleted, encoded as JSON session records, compressed and uploaded one POST each to the reference service
// on loopback (which inflates, checks the digest and validates every record). One iteration is one whole
// drain, timed until the server holds every record and every upload has ended.
//
//   BM_Drain100Sessions  counters: sessions_per_s; the iteration time is the drain's total seconds.
//
// Run: drain_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <future>

#include "BenchSupport.h"
#include "base/Counters.h"
#include "base/Preferences.h"
#include "feedback/ClientSession.h"
#include "feedback/VorlenFeedback.h"
#include "model/Constants.h"
#include "model/QXFeedbackFactory.h"
#include "network/HttpSessions.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "storage/BackgroundActivitiesManager.h"
#include "storage/UploadManager.h"
#include "storage/VorlenPersistentStorage.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/FeedbackInbox.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

constexpr int kSessions = 100;
constexpr int kEventsPerSession = 200;

void BM_Drain100Sessions(benchmark::State& state) {
  Log::setSink(std::make_shared<bench::DiscardingSink>());
  char pattern[] = "/tmp/vorlen-drain-bench-XXXXXX";
  if (!::mkdtemp(pattern)) {
    std::perror("mkdtemp");
    std::exit(1);
  }
  const std::filesystem::path root = pattern;
  RefServer server;
  if (!server.start()) {
    state.SkipWithError("reference service did not start");
    return;
  }
  auto assembly = std::make_shared<Assembly>(test::platformForTesting(root, Clock::system()));
  assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
  assembly->notificationCenter = assembly->platform.notificationCenter;
  assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
  assembly->httpSessions = std::make_shared<HttpSessions>(assembly->userDefaults, Clock::system(),
                                                          assembly->platform.paths.tempDir);
  Counters::install(assembly->platform.counters);
  auto uploads = UploadManager::create(*assembly);
  assembly->uploadManager = uploads;
  auto storage = VorlenPersistentStorage::create(*assembly, "Vorlend/1.0 (bench) Vorlend/1.0");
  assembly->persistentStorage = storage;
  auto manager = BackgroundActivitiesManager::create(assembly);
  Notification bag;
  bag.name = kVORBagChangeNotification;
  bag.userInfo =
      Value::dict({{kVORBagKey, VORBag(Value::Dict{{"enabled", true},
                                                   {"feedback_enabled", true},
                                                   {"feedback_url", server.baseURL() + "/feedback"}},
                                       "Vorlend/1.0 (bench)")
                                    .toRecord()}});
  assembly->notificationCenter->post(bag);

  for (auto _ : state) {
    state.PauseTiming();
    server.feedbackInbox().clear();
    for (int s = 0; s < kSessions; ++s) {
      std::shared_ptr<ClientSession> session;
      for (int i = 0; i < kEventsPerSession; ++i) {
        VorlenFeedback f(QXFeedbackFactory::skipSearch(1, "weather in new york " + std::to_string(i)),
                         1000 + i, Uuid::parse("7a3b1c2d-0000-4000-8000-000000000001"), "Voyant/18.0 (bench)",
                         static_cast<uint64_t>(i));
        if (!session)
          session = ClientSession::create(*assembly, std::move(f));
        else
          session->addFeedback(std::move(f));
      }
      session->sessionComplete();
    }
    if (storage->getAvailableSessionHandles().size() != kSessions) {
      state.SkipWithError("sessions were not stored");
      break;
    }
    const uint64_t before = server.feedbackInbox().receivedCount();
    state.ResumeTiming();

    std::promise<void> drained;
    manager->insertFlushActivity([&] { drained.set_value(); });
    drained.get_future().get();
    server.feedbackInbox().waitForReceived(before + kSessions, std::chrono::minutes(5));
    uploads->waitForUploadsToEnd(std::chrono::minutes(5));
  }
  size_t valid = 0;
  for (const auto& r : server.feedbackInbox().received()) valid += r.valid ? 1 : 0;
  if (valid != kSessions) state.SkipWithError("the server did not get every record valid");
  state.SetItemsProcessed(state.iterations() * kSessions);
  state.counters["sessions_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations() * kSessions), benchmark::Counter::kIsRate);
  manager.reset();
  server.stop();
  Counters::install(nullptr);
  std::filesystem::remove_all(root);
}
BENCHMARK(BM_Drain100Sessions)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(3);

}  // namespace
}  // namespace vorlen

BENCHMARK_MAIN();
