// Session files: how fast events are appended with the daemon's own record coding, against the physical
// limit of the same bytes written with plain write calls in the same run; and what reading a full-size
// (2 MiB) session file back costs in time and in peak extra memory.
//
//   BM_AppendEvents     FileContainer::writeFeedback for a burst of events, until the storage queue has
//                       written them all (encoding included); items = events.
//   BM_RawWriteRecords  the same length-prefixed records with one write call each; items = records.
//   BM_ReadBack2MiB     FileContainer::read of a 2 MiB file into a session with its events; the counter
//                       peak_extra_kib is the largest growth of resident memory during a read (VmHWM after
//                       a reset, less the resident size before), to compare with the file's own size.
//
// Files live in a private folder under $TMPDIR (a real file system: the figures include the kernel's
// write path, and the group flush to disk that ends each burst).
//
// Run: session_file_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "BenchSupport.h"
#include "base/Archive.h"
#include "base/Log.h"
#include "base/ManualClock.h"
#include "base/Preferences.h"
#include "feedback/ClientSession.h"
#include "feedback/VorlenFeedback.h"
#include "model/QXFeedbackFactory.h"
#include "platform/Assembly.h"
#include "storage/VorlenPersistentStorage.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

using bench::DiscardingSink;

constexpr int kBurst = 5000;

VorlenFeedback event(int n) {
  return VorlenFeedback(QXFeedbackFactory::skipSearch(1, "weather in new york " + std::to_string(n)),
                        1000 + n, Uuid::random(), "Voyant/18.0 (bench)", static_cast<uint64_t>(n));
}

struct Folder {
  std::filesystem::path root;
  std::shared_ptr<Assembly> assembly;
  std::shared_ptr<VorlenPersistentStorage> storage;

  explicit Folder(int64_t sizeLimit) {
    Log::setSink(std::make_shared<DiscardingSink>());
    char pattern[] = "/tmp/vorlen-session-bench-XXXXXX";
    const char* made = ::mkdtemp(pattern);
    if (!made) {
      std::perror("mkdtemp");
      std::exit(1);
    }
    root = made;
    Platform platform = test::platformForTesting(root, std::make_shared<ManualClock>());
    assembly = std::make_shared<Assembly>(platform);
    assembly->userDefaults = std::make_shared<Preferences>(platform.paths.configDir, "com.velmo.vorlend");
    assembly->userDefaults->set("VORSessionSizeLimit", Value(sizeLimit));
    storage = VorlenPersistentStorage::create(*assembly, "Vorlend/1.0 (bench)");
    assembly->persistentStorage = storage;
  }
  ~Folder() {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }
};

void BM_AppendEvents(benchmark::State& state) {
  Folder folder(int64_t{1} << 30);
  std::vector<VorlenFeedback> events;
  for (int i = 0; i < kBurst; ++i) events.push_back(event(i));
  int64_t bytes = 0;
  for (auto _ : state) {
    auto container = folder.storage->createFileContainerForWriting();
    for (const auto& e : events) container->writeFeedback(e, {});
    folder.storage->queue()->sync([] {});
    state.PauseTiming();
    auto file = std::dynamic_pointer_cast<FileContainer>(container);
    bytes += static_cast<int64_t>(std::filesystem::file_size(file->fileUrl()));
    folder.storage->closeSessionWithFileContainer(container);
    for (auto& f : folder.storage->getAvailableSessionHandles())
      folder.storage->deleteSessionWithFileContainer(f);
    folder.storage->queue()->sync([] {});
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
  state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_AppendEvents)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RawWriteRecords(benchmark::State& state) {
  Folder folder(int64_t{1} << 30);
  std::vector<std::vector<uint8_t>> records;
  for (int i = 0; i < kBurst; ++i) {
    std::vector<uint8_t> payload = Archive::encodeBinary(event(i).toArchive());
    const uint64_t n = payload.size();
    std::vector<uint8_t> r(reinterpret_cast<const uint8_t*>(&n), reinterpret_cast<const uint8_t*>(&n) + 8);
    r.insert(r.end(), payload.begin(), payload.end());
    records.push_back(std::move(r));
  }
  const auto path = folder.root / "raw";
  for (auto _ : state) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    for (const auto& r : records) benchmark::DoNotOptimize(::write(fd, r.data(), r.size()));
    ::fdatasync(fd);
    ::close(fd);
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_RawWriteRecords)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReadBack2MiB(benchmark::State& state) {
  Folder folder(2097152);
  auto session = ClientSession::create(*folder.assembly, event(0));
  for (int i = 1; i < 20000; ++i) session->addFeedback(event(i));  // more than fit: the file fills up
  session->sessionComplete();
  auto file = folder.storage->getAvailableSessionHandles().at(0);
  const int64_t fileKib = static_cast<int64_t>(std::filesystem::file_size(file->fileUrl()) / 1024);
  session.reset();
  int64_t peak = 0;
  size_t events = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const int64_t before = bench::resetPeakRssKib();
    state.ResumeTiming();
    auto read = file->read(*folder.assembly);
    state.PauseTiming();
    events = read ? read->feedbackCount() : 0;
    peak = std::max(peak, bench::statusKib("VmHWM:") - before);
    read.reset();
    state.ResumeTiming();
  }
  state.counters["file_kib"] = static_cast<double>(fileKib);
  state.counters["events"] = static_cast<double>(events);
  state.counters["peak_extra_kib"] = static_cast<double>(peak);
}
BENCHMARK(BM_ReadBack2MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace vorlen

BENCHMARK_MAIN();
