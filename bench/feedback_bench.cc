// The feedback path, in one process on the real clock:
//
//   BM_ReportEventIntoOpenSession  libvorlen-client -> Unix socket -> client connection -> session manager
//                                  -> the open (shared) session's event list. One iteration is a batch of
//                                  1,000 reportEvent calls sent without waiting, then a listSessions: call
//                                  (the connection serves calls in order, so its answer means every event
//                                  was handed to the manager), then the manager's queue and the session's
//                                  queue are drained, so every event of the batch is in the session when the
//                                  iteration ends. items_per_second is events per second into the session;
//                                  cpu_us_per_event is the CPU time of the whole process (client library
//                                  and daemon side together) per event.
//   BM_SessionRecordJson           the JSON session record (privacy-filtered events, header keys) of a
//                                  session of range(0) events of a typing mix, then serialised to bytes, as
//                                  the flusher will do before compressing; ms per record.
//
// Log lines are formatted but written nowhere; the session files' storage slot is empty (events stay in
// memory).
//
// Run: feedback_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "BenchSupport.h"
#include "base/Counters.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "client/VorlenClient.h"
#include "feedback/ClientSession.h"
#include "feedback/ClientSessionManager.h"
#include "feedback/SessionProcessingHelper.h"
#include "ipc/IpcListener.h"
#include "model/QXFeedback.h"
#include "model/QXFeedbackFactory.h"
#include "model/QXSearchResult.h"
#include "model/VORSessionConfiguration.h"
#include "network/VorlenUserGUIDController.h"
#include "platform/Assembly.h"
#include "platform/Platform.h"
#include "service/ClientStateManager.h"
#include "service/VorlenService.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

constexpr const char* kAgent = "Voyant/5.0";

using bench::DiscardingSink;

double processCpuSeconds() {
  timespec ts{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// The daemon's object graph for feedback: client states, the service (which adds the GUID controller and
// the shared session manager) and the listener, on a private folder. No bag controller: feedback is then
// never switched off.
class Stack {
 public:
  Stack() {
    previousSink_ = Log::setSink(std::make_shared<DiscardingSink>());
    char pattern[] = "/tmp/vorlen-feedback-bench-XXXXXX";
    if (!::mkdtemp(pattern)) {
      error = "mkdtemp failed";
      return;
    }
    dir_ = pattern;
    platform_ = test::platformForTesting(dir_ / "root", Clock::system());
    Counters::install(platform_.counters);
    assembly = std::make_shared<Assembly>(platform_);
    assembly->userDefaults = std::make_shared<Preferences>(platform_.paths.configDir, "com.velmo.vorlend");
    assembly->notificationCenter = platform_.notificationCenter;
    assembly->clientStateManager = ClientStateManager::create(assembly);
    service_ = VorlenService::create(assembly);
    listener_ = IpcListener::named(dir_ / "vorlend.sock", {}, &error);
    if (!listener_) return;
    listener_->setDelegate(service_);
    listener_->resume();
  }
  ~Stack() {
    if (listener_) listener_->invalidate();
    Counters::install(nullptr);
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    Log::setSink(previousSink_);
  }
  bool ok() const { return error.empty() && listener_; }

  std::shared_ptr<VorlenClient> client() {
    VorlenClientOptions options;
    options.socketPath = listener_->path();
    auto c = VorlenClient::create(options);
    VORSessionConfiguration configuration;
    configuration.identifier = "com.example.bench";
    configuration.userAgent = kAgent;
    return c->configure(configuration).ok() ? c : nullptr;
  }
  std::shared_ptr<ClientSessionManager> manager() const {
    return std::dynamic_pointer_cast<ClientSessionManager>(assembly->clientSessionManager);
  }

  std::shared_ptr<Assembly> assembly;
  std::string error;

 private:
  std::shared_ptr<LogSink> previousSink_;
  std::filesystem::path dir_;
  Platform platform_;
  std::shared_ptr<VorlenService> service_;
  std::shared_ptr<IpcListener> listener_;
};

QXSearchResult result(uint64_t i) {
  QXSearchResult r;
  r.identifier = "result-" + std::to_string(i % 50);
  r.type = 1;
  r.title = "new york marathon " + std::to_string(i);
  r.queryId = i;
  r.userInput = "new y";
  r.completedQuery = "new york marathon";
  r.sectionBundleIdentifier = "com.velmo.vorlen.suggestions";
  return r;
}

// A typing mix: search starts, network starts and ends, visible results and an engagement now and then.
QXFeedback typingEvent(uint64_t i) {
  switch (i % 5) {
    case 0: {
      QXFeedback f("QXStartSearchFeedback");
      f.set("queryId", Value(i));
      f.set("input", Value("new yo"));
      return f;
    }
    case 1:
      return QXFeedbackFactory::startNetworkSearch("new yo", "https://search.example/search?q=new+yo",
                                                   {{"User-Agent", kAgent}}, 1, 6);
    case 2:
      return QXFeedbackFactory::endNetworkSearch(typingEvent(1), 2048, 200, {});
    case 3: {
      QXFeedback f("QXVisibleResultsFeedback");
      Value::Array results;
      for (uint64_t k = 0; k < 5; ++k) results.push_back(result(i + k).toRecord());
      f.set("results", Value(std::move(results)));
      return f;
    }
    default: {
      QXFeedback f("QXResultEngagementFeedback");
      f.set("result", result(i).toRecord());
      return f;
    }
  }
}

void BM_ReportEventIntoOpenSession(benchmark::State& state) {
  constexpr int kBatch = 1000;
  Stack stack;
  if (!stack.ok()) return state.SkipWithError(stack.error.c_str());
  auto client = stack.client();
  auto manager = stack.manager();
  if (!client || !manager) return state.SkipWithError("configure failed");
  QXFeedback start("QXStartSearchFeedback");
  start.set("queryId", Value(uint64_t{1}));
  start.set("input", Value("new"));
  const Value record = start.toRecord();

  size_t total = 0;
  const double cpuBefore = processCpuSeconds();
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) client->reportEvent("start", 1, record, [](ClientResult<Sent>) {});
    if (!client->listSessions().ok()) return state.SkipWithError("barrier call failed");
    manager->currentState();  // the manager's queue has handled every envelope handed to it
    auto session = manager->session();
    if (!session) return state.SkipWithError("no open session");
    total += kBatch;
    size_t held = 0;
    session->enumerateSessions([&](ClientSession& s, bool) { held += s.feedbackCount(); });
    if (held < total) return state.SkipWithError("events missing from the session");
  }
  const double cpu = processCpuSeconds() - cpuBefore;
  state.SetItemsProcessed(int64_t(total));
  state.counters["cpu_us_per_event"] = total ? cpu * 1e6 / double(total) : 0;
}
BENCHMARK(BM_ReportEventIntoOpenSession)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

void BM_SessionRecordJson(benchmark::State& state) {
  Stack stack;
  if (!stack.ok()) return state.SkipWithError(stack.error.c_str());
  const auto events = uint64_t(state.range(0));
  auto session =
      ClientSession::create(*stack.assembly, VorlenFeedback(typingEvent(0), 1, Uuid::random(), kAgent));
  for (uint64_t i = 1; i < events; ++i)
    session->addFeedback(VorlenFeedback(typingEvent(i), int64_t(i), session->userGuid(), kAgent, i));
  if (session->feedbackCount() != events) return state.SkipWithError("session incomplete");
  size_t bytes = 0;
  for (auto _ : state) {
    SessionProcessingHelper helper;
    std::string json = session->getFeedbacksToSend(helper).dump();
    bytes = json.size();
    benchmark::DoNotOptimize(json);
  }
  state.counters["record_bytes"] = double(bytes);
}
BENCHMARK(BM_SessionRecordJson)->Arg(2000)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace
}  // namespace vorlen

BENCHMARK_MAIN();
