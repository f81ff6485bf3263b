// Feedback upload: how fast a session record is compressed on its way to the temporary file, against
// plain zlib deflating the same bytes at the same level in the same run; and what uploading a 2 MiB
// session costs the process in peak extra memory.
//
//   BM_CompressedOutputStream  the serialised record written in 8192-byte pieces through
//                              CompressedOutputStream (raw DEFLATE, 4096-byte buffer, SHA-512) into a
//                              NullStream; bytes = uncompressed bytes.
//   BM_RawDeflate              the same bytes, same pieces, through deflate() alone (no digest) into the
//                              same 4096-byte buffer, discarded; the reference the stream is held to
//                              (target: at least 0.8x its MB/s).
//   BM_Upload2MiBSession       UploadManager::uploadJSONFeedback of a record of about 2 MiB (serialised
//                              straight into the compressing stream over a temporary file) and its POST
//                              over loopback to an in-process reference service, until the upload ends.
//                              peak_extra_kib is the largest growth of resident memory during one upload
//                              (VmHWM after a reset, less the resident size before); the record itself
//                              exists before and is not counted. The server side answers on /_echo, which
//                              keeps only the compressed body, so its share is that body's size.
//
// Run: upload_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "BenchSupport.h"
#include "base/Counters.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "network/HttpSessions.h"
#include "network/VORNetworkRequestFactory.h"
#include "platform/Assembly.h"
#include "storage/CompressedOutputStream.h"
#include "storage/NullStream.h"
#include "storage/UploadManager.h"
#include "support/TestPlatform.h"
#include "vorlen-refserver/RefServer.h"

namespace vorlen {
namespace {

using Json = nlohmann::ordered_json;

// A session record of search-start events, about `bytes` long when serialised.
Json sessionRecord(size_t bytes) {
  Json fb = Json::array();
  size_t size = 0;
  for (size_t i = 0; size < bytes; ++i) {
    Json event = {{"trigger_event", "new_character"},
                  {"input", "weather in city number " + std::to_string(i * 7919 % 100000)},
                  {"uuid", "1B4E28BA-2FA1-41D2-883F-" + std::to_string(100000000000 + i * 104729)},
                  {"query_id", 1000 + i},
                  {"client_query_id", i},
                  {"type", "search_start"},
                  {"timestamp", i * 137}};
    size += event.dump().size() + 1;
    fb.push_back(std::move(event));
  }
  return Json{{"fb", fb},
              {"agent", "Vorlend/1.0 (bench) Voyant/1"},
              {"user_guid", "1B4E28BA-2FA1-41D2-883F-0016D3CCA427"},
              {"resource_versions", Json::object()},
              {"first_use", true},
              {"base_time", 1767268800},
              {"previous_session_end_reason", "no previous session"}};
}

const std::string& serialisedSession() {
  static const std::string text = sessionRecord(2u << 20).dump();
  return text;
}

constexpr size_t kPiece = 8192;

void BM_CompressedOutputStream(benchmark::State& state) {
  const std::string& text = serialisedSession();
  for (auto _ : state) {
    CompressedOutputStream stream(std::make_shared<NullStream>());
    stream.open();
    for (size_t at = 0; at < text.size(); at += kPiece) {
      stream.write(reinterpret_cast<const uint8_t*>(text.data() + at), std::min(kPiece, text.size() - at));
    }
    stream.close();
    benchmark::DoNotOptimize(stream.dataDigestForStream());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_CompressedOutputStream)->Unit(benchmark::kMillisecond);

void BM_RawDeflate(benchmark::State& state) {
  const std::string& text = serialisedSession();
  std::array<uint8_t, CompressedOutputStream::kBufferBytes> out{};
  size_t compressed = 0;
  for (auto _ : state) {
    z_stream s{};
    deflateInit2(&s, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    compressed = 0;
    for (size_t at = 0; at <= text.size(); at += kPiece) {
      const bool last = at + kPiece >= text.size();
      s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data() + at));
      s.avail_in = static_cast<uInt>(std::min(kPiece, text.size() - at));
      int rc;
      do {
        s.next_out = out.data();
        s.avail_out = out.size();
        rc = deflate(&s, last ? Z_FINISH : Z_NO_FLUSH);
        compressed += out.size() - s.avail_out;
        benchmark::DoNotOptimize(out.data());
      } while (last ? rc != Z_STREAM_END : s.avail_in > 0);
      if (last) break;
    }
    deflateEnd(&s);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.counters["ratio"] = static_cast<double>(text.size()) / static_cast<double>(compressed);
}
BENCHMARK(BM_RawDeflate)->Unit(benchmark::kMillisecond);

void BM_Upload2MiBSession(benchmark::State& state) {
  Log::setSink(std::make_shared<bench::DiscardingSink>());
  char pattern[] = "/tmp/vorlen-upload-bench-XXXXXX";
  const char* made = ::mkdtemp(pattern);
  if (!made) {
    std::perror("mkdtemp");
    std::exit(1);
  }
  const std::filesystem::path root(made);
  RefServer server;
  if (!server.start()) std::exit(1);
  auto clock = std::make_shared<ManualClock>();
  auto assembly = std::make_shared<Assembly>(test::platformForTesting(root, clock));
  assembly->platform.paths.create();
  assembly->userDefaults = std::make_shared<Preferences>(assembly->platform.paths.configDir, kServiceName);
  assembly->notificationCenter = assembly->platform.notificationCenter;
  assembly->requestFactory = VORNetworkRequestFactory::create(*assembly);
  assembly->httpSessions =
      std::make_shared<HttpSessions>(assembly->userDefaults, clock, assembly->platform.paths.tempDir);
  Counters::install(assembly->platform.counters);
  auto manager = UploadManager::create(*assembly);
  manager->setFeedbackEndpoint(server.baseURL() + "/_echo");
  const Json record = sessionRecord(2u << 20);
  int64_t peak = 0;
  off_t compressedBytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const int64_t before = bench::resetPeakRssKib();
    state.ResumeTiming();
    auto file = manager->uploadJSONFeedback(record, UploadManager::kFeedbackEndpoint);
    if (!file || !manager->waitForUploadsToEnd(std::chrono::seconds(60)))
      state.SkipWithError("upload failed");
    state.PauseTiming();
    peak = std::max(peak, bench::statusKib("VmHWM:") - before);
    if (file) compressedBytes = file->size();
    state.ResumeTiming();
  }
  state.counters["peak_extra_kib"] = static_cast<double>(peak);
  state.counters["record_kib"] = static_cast<double>(record.dump().size() / 1024);
  state.counters["compressed_kib"] = static_cast<double>(compressedBytes / 1024);
  state.counters["sent"] =
      static_cast<double>(assembly->platform.counters->value("com.velmo.vorlend.feedbacksent"));
  Counters::install(nullptr);
  manager.reset();
  server.stop();
  std::filesystem::remove_all(root);
}
BENCHMARK(BM_Upload2MiBSession)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace vorlen

BENCHMARK_MAIN();
