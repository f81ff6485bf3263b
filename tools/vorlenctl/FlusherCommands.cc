#include "FlusherCommands.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

#include <fmt/format.h>

#include "base/RawInflater.h"
#include "client/VorlenFlusherClient.h"

namespace vorlen::ctl {

namespace {

using Intent = VorlenFlusherClient::Intent;

std::atomic<bool> interrupted{false};

void onSignal(int) {
  interrupted.store(true);
}

// The client's own part of a daemon-built agent ("Vorlend/1.0 (<device>) Voyant/5.0" -> "Voyant/5.0").
std::string shortAgent(const std::string& agent) {
  size_t at = agent.rfind(") ");
  return at == std::string::npos ? agent : agent.substr(at + 2);
}

// What one endpoint conversation collected; filled on the flusher client's queue.
struct Collected {
  std::mutex mu;
  std::condition_variable changed;
  std::vector<Value::Data> payloads;
  size_t workDone = 0;
  bool closed = false;
};

// Handlers that gather the dump's payloads and count `workDone` calls into `collected`.
VorlenFlusherClient::Handlers collectingHandlers(const std::shared_ptr<Collected>& collected) {
  VorlenFlusherClient::Handlers handlers;
  handlers.flushedData = [collected](std::vector<Value::Data> payloads) {
    std::lock_guard lock(collected->mu);
    for (auto& p : payloads) collected->payloads.push_back(std::move(p));
    collected->changed.notify_all();
  };
  handlers.workDone = [collected] {
    std::lock_guard lock(collected->mu);
    ++collected->workDone;
    collected->changed.notify_all();
  };
  return handlers;
}

}  // namespace

std::string FlusherCommands::watchLine(const std::string& description) {
  nlohmann::json event = nlohmann::json::parse(description, nullptr, false);
  if (!event.is_object()) return description;
  std::string summary;
  for (const char* key : {"input", "completed_query", "reason", "query", "title"}) {
    if (auto it = event.find(key); it != event.end() && it->is_string() && !it->get<std::string>().empty()) {
      summary = fmt::format("{}={}", key, it->get<std::string>());
      break;
    }
  }
  if (summary.size() > 80) summary = summary.substr(0, 77) + "...";
  std::string queryId = event.contains("query_id") ? event["query_id"].dump() : "-";
  return fmt::format("{:<24} {:<16} q={:<6} {}", event.value("type", "?"),
                     shortAgent(event.value("agent", "?")), queryId, summary);
}

std::optional<ExitCode> FlusherCommands::endpoint(IpcEndpoint* endpoint) {
  if (auto failed = daemon_.connect()) return failed;
  ClientResult<IpcEndpoint> r = daemon_.client()->listenToFlusher();
  if (!r.ok()) return out_.clientError(*r.error);
  *endpoint = *r.value;
  return std::nullopt;
}

ExitCode FlusherCommands::watch() {
  IpcEndpoint where;
  if (auto failed = endpoint(&where)) return *failed;
  auto collected = std::make_shared<Collected>();
  const bool json = out_.json();
  VorlenFlusherClient::Handlers handlers;
  handlers.receivedFeedbackDescription = [json](const std::string& description) {
    fmt::print("{}\n", json ? description : watchLine(description));
    std::fflush(stdout);
  };
  handlers.closed = [collected] {
    std::lock_guard lock(collected->mu);
    collected->closed = true;
  };
  std::string error;
  auto tool = VorlenFlusherClient::connect(where, std::move(handlers), &error);
  if (!tool) return out_.error(ExitCode::Unreachable, "cannot reach the flusher endpoint: " + error);
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
  tool->initiateConnectionWithIntent(Intent::kReceivingStream);
  if (!json) {
    fmt::print(stderr, "watching feedback events as clients report them; Ctrl-C ends\n");
  }
  // The service connection is closed by the daemon after a minute of silence; the endpoint connection is
  // what keeps the stream.
  while (!interrupted.load()) {
    {
      std::lock_guard lock(collected->mu);
      if (collected->closed) {
        fmt::print(stderr, "vorlenctl: the daemon closed the flusher endpoint connection\n");
        return ExitCode::Unreachable;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  tool->close();
  return ExitCode::Ok;
}

ExitCode FlusherCommands::pause() {
  IpcEndpoint where;
  if (auto failed = endpoint(&where)) return *failed;
  auto collected = std::make_shared<Collected>();
  std::string error;
  auto tool = VorlenFlusherClient::connect(where, collectingHandlers(collected), &error);
  if (!tool) return out_.error(ExitCode::Unreachable, "cannot reach the flusher endpoint: " + error);
  tool->initiateConnectionWithIntent(Intent::kStopFlushing);
  std::unique_lock lock(collected->mu);
  if (!collected->changed.wait_for(lock, std::chrono::seconds(10), [&] { return collected->workDone > 0; }))
    return out_.error(ExitCode::Unreachable, "the daemon did not confirm the pause within 10 s");
  out_.line("scheduled uploads paused until the next `vorlenctl feedback flush`");
  out_.document({{"paused", true}});
  return ExitCode::Ok;
}

ExitCode FlusherCommands::flush() {
  IpcEndpoint where;
  if (auto failed = endpoint(&where)) return *failed;
  auto collected = std::make_shared<Collected>();
  std::string error;
  auto tool = VorlenFlusherClient::connect(where, collectingHandlers(collected), &error);
  if (!tool) return out_.error(ExitCode::Unreachable, "cannot reach the flusher endpoint: " + error);
  // The dump tool is the sending-stream listener for the whole dump, even when another tool was before.
  tool->initiateConnectionWithIntent(Intent::kSendingStream);
  tool->initiateConnectionWithIntent(Intent::kDump);
  std::vector<Value::Data> payloads;
  {
    std::unique_lock lock(collected->mu);
    if (!collected->changed.wait_for(lock, std::chrono::seconds(60), [&] { return collected->workDone > 0; }))
      return out_.error(ExitCode::Unreachable, "the dump did not end within 60 s");
    // With a session per client every flushed client ends in a drain of its own: take what follows the
    // first within a short quiet time.
    for (size_t seen = collected->payloads.size() + collected->workDone;;) {
      collected->changed.wait_for(lock, std::chrono::milliseconds(300));
      size_t now = collected->payloads.size() + collected->workDone;
      if (now == seen) break;
      seen = now;
    }
    payloads = std::move(collected->payloads);
  }
  tool->close();

  std::string destination = "the feedback endpoint";
  if (auto bag = daemon_.client()->bag(); bag.ok() && bag.value->bag) {
    if (auto url = bag.value->bag->feedbackURL()) destination = *url;
  }
  size_t events = 0, bytes = 0;
  nlohmann::ordered_json sessions = nlohmann::ordered_json::array();
  for (const Value::Data& payload : payloads) {
    bytes += payload.size();
    // A payload is one compressed session; the bound only keeps a broken one from exhausting memory.
    constexpr size_t kMaxSessionBytes = size_t{64} << 20;
    std::string_view compressed(reinterpret_cast<const char*>(payload.data()), payload.size());
    nlohmann::json record = nlohmann::json::parse(
        RawInflater::inflate(compressed, kMaxSessionBytes).value_or(""), nullptr, false);
    const size_t n = record.is_object() && record["fb"].is_array() ? record["fb"].size() : 0;
    events += n;
    const std::string agent = record.is_object() ? record.value("agent", "?") : "?";
    out_.line(fmt::format("  {:<20} {:>4} event{} {:>8} bytes", shortAgent(agent), n, n == 1 ? " " : "s",
                          payload.size()));
    sessions.push_back({{"agent", agent}, {"events", n}, {"compressed_bytes", payload.size()}});
  }
  if (payloads.empty())
    return out_.error(ExitCode::Failed,
                      "nothing was sent: no client session and no stored session held feedback");
  out_.line(fmt::format("sent {} session{}, {} event{}, {} bytes compressed, to {}", payloads.size(),
                        payloads.size() == 1 ? "" : "s", events, events == 1 ? "" : "s", bytes, destination));
  out_.document({{"sessions", sessions},
                 {"session_count", payloads.size()},
                 {"events", events},
                 {"compressed_bytes", bytes},
                 {"destination", destination}});
  return ExitCode::Ok;
}

}  // namespace vorlen::ctl
