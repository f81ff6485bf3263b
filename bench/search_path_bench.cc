// The typing path end to end, in one process on the real clock: libvorlen-client -> Unix socket -> the
// daemon's service (client connection, client state, bag check, local completion lookup, request factory,
// query cache, HTTP engine) -> reply, against the reference service on loopback. Each figure sits next to
// its floor, measured in the same run:
//
//   BM_SearchCacheHit          a search answered from the client's query cache ("new" after "ne" cached
//                              "news"), one client;
//   BM_RawEchoCacheHitSizes    a raw Unix-socket echo of frames of the same sizes as that call and reply;
//   BM_SearchCacheHit8Clients  the same cache hit from 8 clients at once, each on its own connection with
//                              its own client identifier and its own warmed cache (throughput);
//   BM_RawEcho8Pairs           8 raw echo pairs at once, same frame sizes;
//   BM_SearchNetwork           a search that misses the cache (each carries a query item of its own) and
//                              goes to the reference service over HTTP;
//   BM_DirectHttp              the same HTTP request (URL, headers) sent directly with libcurl on a reused
//                              easy handle, so on a kept-alive connection.
//
// Per-call round trips are recorded and reported as median_us and p99_us; the 8-client runs report
// searches per second as items_per_second. Log lines are formatted but written nowhere.
//
// Run: search_path_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "RawEcho.h"
#include "base/Archive.h"
#include "base/Counters.h"
#include "base/Log.h"
#include "base/Preferences.h"
#include "cache/EngagedCompletionCache.h"
#include "client/VorlenClient.h"
#include "ipc/IpcListener.h"
#include "ipc/IpcMessage.h"
#include "model/VORRequest.h"
#include "network/HttpSessions.h"
#include "network/VORNetworkRequestFactory.h"
#include "network/VorlenBagController.h"
#include "network/VorlenUserGUIDController.h"
#include "platform/Assembly.h"
#include "platform/Platform.h"
#include "service/ClientStateManager.h"
#include "service/VorlenService.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using Micros = std::chrono::duration<double, std::micro>;

constexpr const char* kAgent = "Voyant/5.0";  // the browser's agent: the bag enables search and completions

using bench::DiscardingSink;

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * double(v.size())))];
}

void reportLatencies(benchmark::State& state, const std::vector<double>& micros) {
  state.counters["median_us"] = percentile(micros, 0.5);
  state.counters["p99_us"] = percentile(micros, 0.99);
}

// The daemon's object graph as the daemon builds it for searching, on a private folder, with the reference
// service as its search service and bag source.
class Stack {
 public:
  Stack() {
    previousSink_ = Log::setSink(std::make_shared<DiscardingSink>());
    char pattern[] = "/tmp/vorlen-search-bench-XXXXXX";
    if (!::mkdtemp(pattern)) {
      error = "mkdtemp failed";
      return;
    }
    dir_ = pattern;
    if (!server.start()) {
      error = "the reference service did not start";
      return;
    }
    auto clock = Clock::system();
    platform_ = test::platformForTesting(dir_ / "root", clock);
    Counters::install(platform_.counters);
    assembly = std::make_shared<Assembly>(platform_);
    assembly->userDefaults = std::make_shared<Preferences>(platform_.paths.configDir, "com.velmo.vorlend");
    assembly->userDefaults->set("VORBagURL", Value(server.baseURL() + "/bag"));
    assembly->notificationCenter = platform_.notificationCenter;
    assembly->httpSessions =
        std::make_shared<HttpSessions>(assembly->userDefaults, clock, platform_.paths.tempDir);
    assembly->engagedCompletionCache =
        EngagedCompletionCache::create(platform_.paths.cachesDir, clock, assembly->userDefaults);
    assembly->guidController = VorlenUserGUIDController::create(*assembly);
    assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
    bags_ = VorlenBagController::create(assembly);
    assembly->bagController = bags_;
    bags_->currentBag();
    for (int i = 0; i < 1000 && !bags_->cachedBagState(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!bags_->cachedBagState()) {
      error = "no bag";
      return;
    }
    assembly->clientStateManager = ClientStateManager::create(assembly);
    service_ = VorlenService::create(assembly);
    listener_ = IpcListener::named(dir_ / "vorlend.sock", {}, &error);
    if (!listener_) return;
    listener_->setDelegate(service_);
    listener_->resume();
  }

  ~Stack() {
    if (listener_) listener_->invalidate();
    server.stop();
    Counters::install(nullptr);
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    Log::setSink(previousSink_);
  }

  bool ok() const { return error.empty() && listener_; }

  // A configured client with an identifier of its own. Waits until the configuration has switched the
  // local completions on, as it does for the browser, so every search pays for that lookup as it would.
  std::shared_ptr<VorlenClient> client(const std::string& identifier) {
    VorlenClientOptions options;
    options.socketPath = listener_->path();
    auto c = VorlenClient::create(options);
    VORSessionConfiguration configuration;
    configuration.identifier = identifier;
    configuration.userAgent = kAgent;
    if (!c->configure(configuration).ok()) return nullptr;
    for (int i = 0; i < 500 && !assembly->engagedCompletionCache->enabled(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return c;
  }

  RefServer server;
  std::shared_ptr<Assembly> assembly;
  std::string error;

 private:
  std::shared_ptr<LogSink> previousSink_;
  std::filesystem::path dir_;
  Platform platform_;
  std::shared_ptr<VorlenBagController> bags_;
  std::shared_ptr<VorlenService> service_;
  std::shared_ptr<IpcListener> listener_;
};

VORSearchRequest searchRequest(uint64_t queryId, std::string text) {
  VORSearchRequest r;
  r.queryId = queryId;
  r.queryString = std::move(text);
  return r;
}

// One search; false with a reason when it did not come back with a result.
bool searchOnce(VorlenClient& client, const VORSearchRequest& request, std::string* why,
                RequestReply* out = nullptr) {
  auto r = client.request(request);
  if (!r.ok()) {
    *why = r.errorText();
    return false;
  }
  if (!r.value->reply || r.value->error) {
    *why = "search answered without a result";
    return false;
  }
  if (out) *out = std::move(*r.value);
  return true;
}

// One search per benchmark iteration, each made by `next()`, timed from the caller's side; the first that
// fails ends the run with its reason.
template <class Next>
std::vector<double> timeSearches(benchmark::State& state, VorlenClient& client, Next next) {
  std::vector<double> micros;
  std::string why;
  for (auto _ : state) {
    VORSearchRequest r = next();
    auto start = std::chrono::steady_clock::now();
    bool ok = searchOnce(client, r, &why);
    micros.push_back(Micros(std::chrono::steady_clock::now() - start).count());
    if (!ok) {
      state.SkipWithError(why.c_str());
      break;
    }
  }
  return micros;
}

// Payload sizes, as the transport writes them, of a search call and of its reply.
size_t callPayloadSize(const VORSearchRequest& request) {
  IpcMessage call = IpcMessage::call("request:reply:", {request.toRecord()});
  call.setSerial(request.queryId);
  return Archive::encodeBinary(call.toValue()).size();
}
size_t replyPayloadSize(const RequestReply& reply) {
  IpcMessage m =
      IpcMessage::reply({Value(reply.queryId), reply.reply ? reply.reply->toRecord() : Value(), Value()});
  m.setSerial(reply.queryId);
  return Archive::encodeBinary(m.toValue()).size();
}

// Warms `client`'s query cache with "ne" (answered "news") and checks that "new" is then a cache hit.
// Returns the sizes of the hit's call and reply payloads.
bool warmCache(Stack& stack, VorlenClient& client, uint64_t* queryId, size_t* callBytes, size_t* replyBytes,
               std::string* why) {
  if (!searchOnce(client, searchRequest(++*queryId, "ne"), why)) return false;
  const size_t before = stack.server.requestCount("/search");
  RequestReply hit;
  VORSearchRequest probe = searchRequest(++*queryId, "new");
  if (!searchOnce(client, probe, why, &hit)) return false;
  if (stack.server.requestCount("/search") != before) {
    *why = "\"new\" after \"ne\" was not answered from the query cache";
    return false;
  }
  *callBytes = callPayloadSize(probe);
  *replyBytes = replyPayloadSize(hit);
  return true;
}

// Frame sizes of the cache-hit call and reply, found once per process for the echo benches.
std::atomic<size_t> gHitCallBytes{0}, gHitReplyBytes{0};

// range(0) = 1: local completions switched off by "VORDisableLocalCompletions", to show their share.
void BM_SearchCacheHit(benchmark::State& state) {
  Stack stack;
  if (!stack.ok()) return state.SkipWithError(stack.error.c_str());
  if (state.range(0) == 1) stack.assembly->userDefaults->set("VORDisableLocalCompletions", Value(true));
  auto client = stack.client("com.example.bench.0");
  if (!client) return state.SkipWithError("configure failed");
  uint64_t queryId = 0;
  size_t callBytes = 0, replyBytes = 0;
  std::string why;
  if (!warmCache(stack, *client, &queryId, &callBytes, &replyBytes, &why))
    return state.SkipWithError(why.c_str());
  gHitCallBytes = callBytes;
  gHitReplyBytes = replyBytes;

  const size_t networkBefore = stack.server.requestCount("/search");
  std::vector<double> micros = timeSearches(state, *client, [&] { return searchRequest(++queryId, "new"); });
  if (stack.server.requestCount("/search") != networkBefore) state.SkipWithError("a search missed the cache");
  reportLatencies(state, micros);
  state.counters["call_bytes"] = double(4 + callBytes);
  state.counters["reply_bytes"] = double(4 + replyBytes);
}
BENCHMARK(BM_SearchCacheHit)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(2.0);

void BM_SearchCacheHit8Clients(benchmark::State& state) {
  constexpr int kClients = 8;
  constexpr int kSearchesPerRound = 200;
  Stack stack;
  if (!stack.ok()) return state.SkipWithError(stack.error.c_str());
  std::vector<std::shared_ptr<VorlenClient>> clients;
  std::vector<uint64_t> queryIds(kClients, 0);
  std::string why;
  for (int i = 0; i < kClients; ++i) {
    auto c = stack.client("com.example.bench." + std::to_string(i));
    size_t callBytes = 0, replyBytes = 0;
    if (!c || !warmCache(stack, *c, &queryIds[i], &callBytes, &replyBytes, &why))
      return state.SkipWithError(c ? why.c_str() : "configure failed");
    clients.push_back(std::move(c));
  }
  const size_t networkBefore = stack.server.requestCount("/search");
  std::vector<double> micros;
  std::atomic<bool> failed{false};
  for (auto _ : state) {
    std::vector<std::vector<double>> perClient(kClients);
    auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
      threads.emplace_back([&, i] {
        std::string reason;
        perClient[i].reserve(kSearchesPerRound);
        for (int n = 0; n < kSearchesPerRound && !failed; ++n) {
          auto t0 = std::chrono::steady_clock::now();
          if (!searchOnce(*clients[i], searchRequest(++queryIds[i], "new"), &reason)) failed = true;
          perClient[i].push_back(Micros(std::chrono::steady_clock::now() - t0).count());
        }
      });
    }
    for (auto& t : threads) t.join();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    for (auto& v : perClient) micros.insert(micros.end(), v.begin(), v.end());
    if (failed) {
      state.SkipWithError("a search failed");
      break;
    }
  }
  if (stack.server.requestCount("/search") != networkBefore) state.SkipWithError("a search missed the cache");
  state.SetItemsProcessed(state.iterations() * kClients * kSearchesPerRound);
  reportLatencies(state, micros);
}
BENCHMARK(BM_SearchCacheHit8Clients)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

// ---- raw Unix-socket echo of the same frame sizes ----

// One socketpair with an echo thread that answers each call frame with one reply frame.
class EchoPair {
 public:
  EchoPair(size_t callBytes, size_t replyBytes) : call_(frame(callBytes)), reply_(frame(replyBytes)) {
    ok_ = ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) == 0;
    if (!ok_) return;
    echo_ = std::thread([this] {
      std::vector<uint8_t> buf;
      uint8_t header[4];
      while (readAll(fds_[1], header, 4)) {
        buf.resize(frameLength(header));
        if (!readAll(fds_[1], buf.data(), buf.size()) || !writeAll(fds_[1], reply_.data(), reply_.size()))
          break;
      }
    });
    in_.resize(reply_.size());
  }
  ~EchoPair() {
    if (!ok_) return;
    ::shutdown(fds_[0], SHUT_RDWR);
    echo_.join();
    ::close(fds_[0]);
    ::close(fds_[1]);
  }
  bool ok() const { return ok_; }
  bool roundTrip() {
    return writeAll(fds_[0], call_.data(), call_.size()) && readAll(fds_[0], in_.data(), 4) &&
           readAll(fds_[0], in_.data() + 4, frameLength(in_.data()));
  }

 private:
  std::vector<uint8_t> call_, reply_, in_;
  int fds_[2] = {-1, -1};
  bool ok_ = false;
  std::thread echo_;
};

// The frame sizes of the cache-hit search; measured by BM_SearchCacheHit when it ran first, else here.
bool hitFrameSizes(size_t* callBytes, size_t* replyBytes, std::string* why) {
  if (gHitCallBytes == 0) {
    Stack stack;
    if (!stack.ok()) {
      *why = stack.error;
      return false;
    }
    auto client = stack.client("com.example.bench.sizes");
    uint64_t queryId = 0;
    size_t c = 0, r = 0;
    if (!client || !warmCache(stack, *client, &queryId, &c, &r, why)) return false;
    gHitCallBytes = c;
    gHitReplyBytes = r;
  }
  *callBytes = gHitCallBytes;
  *replyBytes = gHitReplyBytes;
  return true;
}

void BM_RawEchoCacheHitSizes(benchmark::State& state) {
  size_t callBytes = 0, replyBytes = 0;
  std::string why;
  if (!hitFrameSizes(&callBytes, &replyBytes, &why)) return state.SkipWithError(why.c_str());
  EchoPair pair(callBytes, replyBytes);
  if (!pair.ok()) return state.SkipWithError("socketpair failed");
  std::vector<double> micros;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    bool ok = pair.roundTrip();
    micros.push_back(Micros(std::chrono::steady_clock::now() - start).count());
    if (!ok) {
      state.SkipWithError("echo failed");
      break;
    }
  }
  reportLatencies(state, micros);
  state.counters["call_bytes"] = double(4 + callBytes);
  state.counters["reply_bytes"] = double(4 + replyBytes);
}
BENCHMARK(BM_RawEchoCacheHitSizes)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(2.0);

void BM_RawEcho8Pairs(benchmark::State& state) {
  constexpr int kPairs = 8;
  constexpr int kRoundTripsPerRound = 200;
  size_t callBytes = 0, replyBytes = 0;
  std::string why;
  if (!hitFrameSizes(&callBytes, &replyBytes, &why)) return state.SkipWithError(why.c_str());
  std::vector<std::unique_ptr<EchoPair>> pairs;
  for (int i = 0; i < kPairs; ++i) {
    pairs.push_back(std::make_unique<EchoPair>(callBytes, replyBytes));
    if (!pairs.back()->ok()) return state.SkipWithError("socketpair failed");
  }
  std::atomic<bool> failed{false};
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < kPairs; ++i)
      threads.emplace_back([&, i] {
        for (int n = 0; n < kRoundTripsPerRound && !failed; ++n)
          if (!pairs[i]->roundTrip()) failed = true;
      });
    for (auto& t : threads) t.join();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    if (failed) {
      state.SkipWithError("echo failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kPairs * kRoundTripsPerRound);
}
BENCHMARK(BM_RawEcho8Pairs)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

// ---- network path ----

// A search whose own query item keeps it out of the query cache, so it always goes to the service.
VORSearchRequest uncachedSearch(uint64_t queryId, uint64_t sequence) {
  VORSearchRequest r = searchRequest(queryId, "weather");
  VORQueryItem item;
  item.name = "bench_seq";
  item.value = std::to_string(sequence);
  r.queryItems.push_back(std::move(item));
  return r;
}

void BM_SearchNetwork(benchmark::State& state) {
  Stack stack;
  if (!stack.ok()) return state.SkipWithError(stack.error.c_str());
  auto client = stack.client("com.example.bench.network");
  if (!client) return state.SkipWithError("configure failed");
  uint64_t queryId = 0;
  std::string why;
  // The first search opens the connection to the service; it is not measured.
  ++queryId;
  if (!searchOnce(*client, uncachedSearch(queryId, queryId), &why)) return state.SkipWithError(why.c_str());
  size_t before = stack.server.requestCount("/search");
  std::vector<double> micros = timeSearches(state, *client, [&] {
    ++queryId;
    return uncachedSearch(queryId, queryId);
  });
  if (stack.server.requestCount("/search") != before + micros.size())
    state.SkipWithError("a search did not reach the service");
  reportLatencies(state, micros);
}
BENCHMARK(BM_SearchNetwork)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(3.0);

size_t discardBody(char*, size_t size, size_t count, void*) {
  return size * count;
}

void BM_DirectHttp(benchmark::State& state) {
  // The daemon's own request, captured at the service: the same URL and header fields, sent again directly.
  Stack stack;
  if (!stack.ok()) return state.SkipWithError(stack.error.c_str());
  auto client = stack.client("com.example.bench.direct");
  std::string why;
  if (!client || !searchOnce(*client, uncachedSearch(1, 1), &why)) return state.SkipWithError("no search");
  RefServer::RecordedRequest captured;
  for (const auto& r : stack.server.requests())
    if (r.path == "/search") captured = r;
  const std::string marker = "bench_seq=1";
  const size_t at = captured.rawQuery.find(marker);
  if (at == std::string::npos) return state.SkipWithError("the captured request lacks its query item");
  const std::string head =
      stack.server.baseURL() + captured.path + "?" + captured.rawQuery.substr(0, at) + "bench_seq=";
  const std::string tail = captured.rawQuery.substr(at + marker.size());

  CURL* easy = curl_easy_init();
  curl_slist* headers = nullptr;
  for (const auto& [name, value] : captured.headers) {
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
    // Fields that libcurl writes itself (Accept-Encoding through CURLOPT_ACCEPT_ENCODING, as the daemon's
    // engine sets it).
    if (lower == "host" || lower == "accept-encoding" || lower == "connection" || lower == "content-length")
      continue;
    headers = curl_slist_append(headers, (name + ": " + value).c_str());
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discardBody);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  uint64_t sequence = 1;
  std::vector<double> micros;
  bool first = true;
  for (auto _ : state) {
    std::string url = head + std::to_string(++sequence) + tail;
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    auto start = std::chrono::steady_clock::now();
    CURLcode rc = curl_easy_perform(easy);
    double us = Micros(std::chrono::steady_clock::now() - start).count();
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    if (rc != CURLE_OK || status != 200) {
      state.SkipWithError("direct request failed");
      break;
    }
    if (!first) micros.push_back(us);  // the first one opens the connection
    first = false;
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
  reportLatencies(state, micros);
}
BENCHMARK(BM_DirectHttp)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(3.0);

}  // namespace
}  // namespace vorlen

BENCHMARK_MAIN();
