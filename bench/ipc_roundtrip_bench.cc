// Round trip of a tiny call through libvorlen-client over a Unix socket, next to the floor set by the
// kernel: a raw socketpair echo of frames of the same sizes, measured in the same run.
//
// The client side is a blocking VorlenClient::listSessions() against the daemon's own service built
// in-process (VorlenService and ClientStateManager on a private folder, fake device properties), so the
// figure includes the daemon's argument checks, the state look-up and the reply encoding. The client is
// configured first, so the reply lists its one state, and the raw echo sends a reply of that size. The raw
// side writes a 4-byte-length frame of the call's encoded size to one end of a socketpair; a thread reads it
// and writes back a frame of the reply's encoded size.
//
// Run: ipc_roundtrip_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "RawEcho.h"
#include "base/Archive.h"
#include "base/Log.h"
#include "client/VorlenClient.h"
#include "ipc/IpcConnection.h"
#include "ipc/IpcExportedInterface.h"
#include "ipc/IpcListener.h"
#include "ipc/IpcRuntime.h"
#include "network/UserAgent.h"
#include "platform/Assembly.h"
#include "platform/DeviceProperties.h"
#include "service/ClientStateManager.h"
#include "service/VorlenService.h"
#include "support/PlatformFakes.h"
#include "support/TestPlatform.h"

namespace vorlen {
namespace {

// The encoded payload sizes of the call and of its reply, as the transport writes them.
size_t callPayloadSize() {
  IpcMessage call = IpcMessage::call("listSessions:");
  call.setSerial(1);
  return Archive::encodeBinary(call.toValue()).size();
}
constexpr const char* kIdentifier = "com.example.bench";
constexpr const char* kAgent = "Bench/1.0";

size_t replyPayloadSize() {
  Value entry = Value::dict({{"identifier", Value(kIdentifier)},
                             {"agent", Value(*createUserAgentString(kAgent, test::FakeDeviceProperties()))}});
  IpcMessage reply = IpcMessage::reply({Value(Value::Array{entry})});
  reply.setSerial(1);
  return Archive::encodeBinary(reply.toValue()).size();
}

void BM_ClientListSessions(benchmark::State& state) {
  Log::setThreshold(LogLevel::Error);
  char pattern[] = "/tmp/vorlen-bench-XXXXXX";
  const char* made = ::mkdtemp(pattern);
  if (!made) return state.SkipWithError("mkdtemp failed");
  std::filesystem::path dir(made);
  std::string error;
  Platform platform = test::platformForTesting(dir, Clock::system());
  auto assembly = std::make_shared<Assembly>(platform);
  assembly->notificationCenter = platform.notificationCenter;
  assembly->clientStateManager = ClientStateManager::create(assembly);
  auto service = VorlenService::create(assembly);
  auto listener = IpcListener::named(dir / "vorlend.sock", {}, &error);
  if (!listener) return state.SkipWithError(error.c_str());
  listener->setDelegate(service);
  listener->resume();

  VorlenClientOptions options;
  options.socketPath = listener->path();
  auto client = VorlenClient::create(options);
  VORSessionConfiguration configuration;
  configuration.identifier = kIdentifier;
  configuration.userAgent = kAgent;
  if (!client->configure(configuration).ok()) return state.SkipWithError("no answer from the service");
  auto first = client->listSessions();
  if (!first.ok() || first.value->size() != 1) return state.SkipWithError("unexpected session list");

  for (auto _ : state) {
    ClientResult<std::vector<SessionInfo>> r = client->listSessions();
    if (!r.ok()) {
      state.SkipWithError(r.errorText().c_str());
      break;
    }
    benchmark::DoNotOptimize(r);
  }
  state.counters["call_bytes"] = static_cast<double>(4 + callPayloadSize());
  state.counters["reply_bytes"] = static_cast<double>(4 + replyPayloadSize());
  client.reset();
  listener->invalidate();
  std::filesystem::remove_all(dir);
}
BENCHMARK(BM_ClientListSessions)->UseRealTime();

void BM_RawSocketEcho(benchmark::State& state) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
    return state.SkipWithError("socketpair");
  const std::vector<uint8_t> call = frame(callPayloadSize());
  const std::vector<uint8_t> reply = frame(replyPayloadSize());
  std::thread echo([fd = fds[1], &reply] {
    std::vector<uint8_t> buf;
    uint8_t header[4];
    // Reads one frame, answers with one frame, until the other end closes.
    while (readAll(fd, header, 4)) {
      buf.resize(frameLength(header));
      if (!readAll(fd, buf.data(), buf.size()) || !writeAll(fd, reply.data(), reply.size())) break;
    }
  });
  std::vector<uint8_t> in(reply.size());
  for (auto _ : state) {
    if (!writeAll(fds[0], call.data(), call.size()) || !readAll(fds[0], in.data(), 4) ||
        !readAll(fds[0], in.data() + 4, frameLength(in.data()))) {
      state.SkipWithError("echo failed");
      break;
    }
    benchmark::DoNotOptimize(in.data());
  }
  ::shutdown(fds[0], SHUT_RDWR);
  echo.join();
  ::close(fds[0]);
  ::close(fds[1]);
  state.counters["call_bytes"] = static_cast<double>(call.size());
  state.counters["reply_bytes"] = static_cast<double>(reply.size());
}
BENCHMARK(BM_RawSocketEcho)->UseRealTime();

}  // namespace
}  // namespace vorlen

BENCHMARK_MAIN();
