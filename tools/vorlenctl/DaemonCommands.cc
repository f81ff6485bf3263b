#include "DaemonCommands.h"

#include <chrono>

#include <fmt/format.h>

#include "FeedbackListing.h"
#include "JsonRecordReader.h"
#include "TypingSession.h"
#include "base/JsonValue.h"
#include "base/Utf8.h"
#include "model/QXFeedback.h"
#include "model/VORRequest.h"

namespace vorlen::ctl {

namespace {

using ojson = nlohmann::ordered_json;

// A short label for one result or suggestion of a search body.
std::string label(const nlohmann::json& item) {
  if (item.is_string()) return item.get<std::string>();
  if (item.is_object()) {
    for (const char* key : {"title", "suggestion", "text", "name", "identifier"}) {
      auto it = item.find(key);
      if (it != item.end() && it->is_string()) return it->get<std::string>();
    }
  }
  return item.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

DaemonCommands::DaemonCommands(const CtlOutput& out, VorlenClientOptions options, Identity identity)
    : out_(out), identity_(std::move(identity)), client_(VorlenClient::create(std::move(options))) {}

std::optional<ExitCode> DaemonCommands::connect(IpcEndpoint* endpoint) {
  VORSessionConfiguration configuration;
  configuration.identifier = identity_.identifier;
  configuration.userAgent = identity_.agent;
  ClientResult<IpcEndpoint> r = client_->configure(configuration);
  if (!r.ok()) {
    if (r.error->kind == ClientError::Kind::Unreachable)
      return out_.error(ExitCode::Unreachable, "vorlend is not reachable: " + r.error->message);
    return out_.clientError(*r.error);
  }
  if (endpoint) *endpoint = *r.value;
  return std::nullopt;
}

ExitCode DaemonCommands::status() {
  VORSessionConfiguration configuration;
  configuration.identifier = identity_.identifier;
  configuration.userAgent = identity_.agent;
  ClientResult<IpcEndpoint> r = client_->configure(configuration);
  const std::string socket = client_->socketPath().string();
  if (!r.ok() && r.error->kind != ClientError::Kind::MalformedReply &&
      r.error->kind != ClientError::Kind::InvalidArgument) {
    // The state is the answer, on stdout as for a running daemon; the reason goes to stderr.
    const bool stopped = r.error->kind == ClientError::Kind::Unreachable;
    out_.line(stopped ? "vorlend is not running" : "vorlend is not answering");
    out_.line("socket: " + socket);
    out_.document({{"running", false}, {"state", stopped ? "stopped" : "unresponsive"}, {"socket", socket}});
    return out_.error(ExitCode::Unreachable,
                      (stopped ? "vorlend is not reachable: " : "") + r.error->message);
  }
  if (!r.ok()) return out_.clientError(*r.error);
  out_.line("vorlend is running");
  out_.line("socket: " + socket);
  out_.line("client-state endpoint: " + r.value->path.string());
  out_.document(
      {{"running", true}, {"state", "running"}, {"socket", socket}, {"endpoint", r.value->path.string()}});
  return ExitCode::Ok;
}

ExitCode DaemonCommands::configure() {
  IpcEndpoint endpoint;
  if (auto failed = connect(&endpoint)) return *failed;
  out_.line(fmt::format("configured {} ({})", identity_.identifier, identity_.agent));
  out_.line("client-state endpoint: " + endpoint.path.string());
  out_.document({{"identifier", identity_.identifier},
                 {"agent", identity_.agent},
                 {"endpoint", endpoint.path.string()}});
  return ExitCode::Ok;
}

ExitCode DaemonCommands::search(const std::string& text) {
  if (auto failed = connect()) return *failed;
  VORSearchRequest request;
  // Fresh and growing from run to run: the daemon keeps only the newest search of a connection.
  request.queryId = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                              std::chrono::system_clock::now().time_since_epoch())
                                              .count());
  request.clientQueryId = request.queryId;
  request.queryString = text;
  ClientResult<RequestReply> r = client_->request(request);
  if (!r.ok()) return out_.clientError(*r.error);
  if (r.value->error) return out_.daemonError(*r.value->error);
  if (!r.value->reply) {
    // The daemon sends nothing for a query it does not search (shorter than the service's minimum, or
    // overtaken by a newer one): an empty answer, not a failure.
    out_.line(fmt::format("query {}: no results", r.value->queryId));
    out_.document({{"queryId", r.value->queryId}, {"results", ojson::array()}});
    return ExitCode::Ok;
  }

  const VORReply& reply = *r.value->reply;
  std::string body(reply.data.begin(), reply.data.end());
  nlohmann::json parsed = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  ojson doc = {{"queryId", r.value->queryId}, {"scale", reply.scale}, {"bytes", reply.data.size()}};
  if (!parsed.is_discarded())
    doc["body"] = ojson::parse(body);
  else if (isValidUtf8(body))
    doc["body"] = body;
  out_.document(doc);

  out_.line(fmt::format("query {}: {} bytes", r.value->queryId, reply.data.size()));
  bool listed = false;
  if (parsed.is_object()) {
    for (const char* key : {"results", "suggestions"}) {
      auto it = parsed.find(key);
      if (it == parsed.end() || !it->is_array()) continue;
      listed = true;
      out_.line(fmt::format("{} ({}):", key, it->size()));
      for (const auto& item : *it) out_.line("  " + label(item));
    }
  }
  if (!listed && !parsed.is_discarded())
    out_.line(parsed.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
  else if (!listed && isValidUtf8(body))
    out_.line(body);
  return ExitCode::Ok;
}

ExitCode DaemonCommands::type(const std::string& text, const std::optional<std::string>& refserver,
                              int delayMs) {
  if (auto failed = connect()) return *failed;
  TypingSession session(out_, client_, refserver ? std::optional<ServiceProbe>(*refserver) : std::nullopt);
  return session.typeLetters(text, delayMs);
}

ExitCode DaemonCommands::interactive(const std::optional<std::string>& refserver) {
  if (auto failed = connect()) return *failed;
  TypingSession session(out_, client_, refserver ? std::optional<ServiceProbe>(*refserver) : std::nullopt);
  return session.interactive();
}

ExitCode DaemonCommands::bag(bool refresh) {
  if (auto failed = connect()) return *failed;
  ClientResult<BagReply> r = refresh ? client_->refreshBag() : client_->bag();
  if (!r.ok()) return out_.clientError(*r.error);
  if (r.value->error) return out_.daemonError(*r.value->error);
  if (!r.value->bag) return out_.error(ExitCode::Failed, "vorlend has no bag");
  const Value::Dict& raw = r.value->bag->rawBag();
  out_.document({{"userAgent", r.value->bag->userAgent()}, {"bag", JsonValue::toJson(Value(raw))}});
  for (const auto& [key, value] : raw) {
    if (key.find("version") != std::string::npos)
      out_.line(fmt::format("{}: {}", key, value.isString() ? *value.getString() : value.describe()));
  }
  out_.line(fmt::format("{} keys", raw.size()));
  return ExitCode::Ok;
}

ExitCode DaemonCommands::sessions() {
  if (auto failed = connect()) return *failed;
  ClientResult<std::vector<SessionInfo>> r = client_->listSessions();
  if (!r.ok()) return out_.clientError(*r.error);
  ojson list = ojson::array();
  for (const SessionInfo& s : *r.value) {
    out_.line(fmt::format("{}\t{}", s.identifier, s.agent));
    list.push_back({{"identifier", s.identifier}, {"agent", s.agent}});
  }
  out_.document(list);
  return ExitCode::Ok;
}

ExitCode DaemonCommands::report(const std::string& eventJson, uint64_t queryId) {
  nlohmann::json parsed = nlohmann::json::parse(eventJson, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded() || !parsed.is_object())
    return out_.error(ExitCode::Usage, "the event must be a JSON object with \"$class\" and its fields");
  std::string why;
  std::optional<Value> record = JsonRecordReader::read(parsed, QXFeedback::kClassName, &why);
  if (!record) return out_.error(ExitCode::Usage, "bad event: " + why);
  if (auto failed = connect()) return *failed;
  ClientResult<Sent> sent = client_->reportEvent("vorlenctl", queryId, *record);
  if (!sent.ok()) return out_.clientError(*sent.error);
  // The daemon serves a connection's calls in order: once a later call is answered, the event has been
  // received and handled, and the process may exit without losing it in a send buffer.
  ClientResult<std::vector<SessionInfo>> barrier = client_->listSessions();
  if (!barrier.ok()) return out_.clientError(*barrier.error);
  std::string className(record->className());
  out_.line("reported " + className);
  out_.document({{"reported", className}, {"queryId", queryId}, {"event", JsonValue::toJson(*record)}});
  return ExitCode::Ok;
}

ExitCode DaemonCommands::feedbackCurrent() {
  if (auto failed = connect()) return *failed;
  ClientResult<FeedbackReply> r = client_->feedback();
  if (!r.ok()) return out_.clientError(*r.error);
  if (r.value->error) return out_.daemonError(*r.value->error);
  const auto& events = r.value->events;
  out_.line(events.empty() ? "no events in the open session"
                           : fmt::format("{} event{} in the open session", events.size(),
                                         events.size() == 1 ? "" : "s"));
  ojson list = ojson::array();
  for (const Value::Dict& event : events) {
    out_.line(FeedbackListing::line(event));
    list.push_back(JsonValue::toJson(Value(event)));
  }
  out_.document({{"events", list}});
  return ExitCode::Ok;
}

}  // namespace vorlen::ctl
