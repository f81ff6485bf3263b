// ScriptedDaemon: a test peer for libvorlen-client. A real named IpcListener on a private folder whose
// connections export the daemon's operation names with their argument counts and answer with scripted,
// protocol-correct replies (or scripted malformed ones). It records every call it serves, per connection,
// and can call the client back on any connection.
#pragma once

#include <fcntl.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ipc/IpcTestSupport.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "model/VORReply.h"

namespace vorlen::test {

class ScriptedDaemon {
 public:
  struct Call {
    size_t connection;  // order of acceptance, from 0
    std::string op;
    Value::Array args;
  };

  ScriptedDaemon(const std::filesystem::path& socket, const std::filesystem::path& endpointDir,
                 std::shared_ptr<IpcRuntime> runtime)
      : endpoint_{endpointDir / "client-state"}, state_(std::make_shared<State>()) {
    IpcListenerOptions o;
    o.connection.runtime = std::move(runtime);
    std::string error;
    server = TestServer::serve(
        IpcListener::named(socket, o, &error),
        [state = state_](const std::shared_ptr<IpcConnection>& c) { return makeInterface(state, c); });
    EXPECT_TRUE(server) << error;
    script("configure:reply:", {IpcEndpoint{endpoint_}.toValue()});
    script("bag:", {bagRecord(), Value()});
    script("request:reply:", Value::Array{});  // echo the query id with a small reply
    script("listSessions:",
           {Value::array({Value::dict({{"identifier", "com.example.a"}, {"agent", "A/1"}})})});
    script("getImageMap:", {Value::dict({{"lookup_hints_weekly", "https://x/weekly"}})});
    script("feedback:reply:", {Value(Value::Array{}), Value()});
    script("listenToFlusher:", {IpcEndpoint{endpointDir / "flusher"}.toValue()});
  }
  ~ScriptedDaemon() {
    if (server) server->stop();
  }

  static Value bagRecord() {
    return VORBag(Value::Dict{{"version", Value("42")}, {"enabled", Value(true)}}, "Test/1.0").toRecord();
  }

  // The reply arguments of `op` from now on. For request:reply: an empty array answers (the request's
  // queryId, a VORReply, Null).
  void script(const std::string& op, Value::Array args) {
    std::lock_guard lock(state_->mu);
    state_->replies[op] = std::move(args);
  }
  // Calls of `op` are never answered from now on.
  void neverAnswer(const std::string& op) {
    std::lock_guard lock(state_->mu);
    state_->replies[op] = std::nullopt;
  }
  // Unless scripted, fileHandleAndAttributesForResource:completion: answers with this file (opened
  // read-only), attributes {"version": "7"} and no error; an empty path answers (Null, Null, error 404).
  void serveResource(std::filesystem::path file) {
    std::lock_guard lock(state_->mu);
    state_->resource = std::move(file);
  }
  // Runs after each configure:reply: has been answered, on that connection's queue.
  void afterConfigure(std::function<void(IpcConnection&)> hook) {
    std::lock_guard lock(state_->mu);
    state_->afterConfigure = std::move(hook);
  }

  std::vector<Call> calls() const {
    std::lock_guard lock(state_->mu);
    return state_->calls;
  }
  std::vector<std::string> opsOn(size_t connection) const {
    std::vector<std::string> ops;
    for (const Call& c : calls())
      if (c.connection == connection) ops.push_back(c.op);
    return ops;
  }
  bool waitForCalls(size_t n) const {
    return eventually([&] { return calls().size() >= n; });
  }
  const IpcEndpoint& endpoint() const { return endpoint_; }

  std::shared_ptr<TestServer> server;

 private:
  struct State {
    mutable std::mutex mu;
    std::map<std::string, std::optional<Value::Array>> replies;
    std::filesystem::path resource;
    std::function<void(IpcConnection&)> afterConfigure;
    std::vector<Call> calls;
    size_t connections = 0;
  };

  static std::shared_ptr<IpcExportedInterface> makeInterface(const std::shared_ptr<State>& state,
                                                             const std::shared_ptr<IpcConnection>& c) {
    using Arg = IpcExportedInterface::Arg;
    size_t index;
    {
      std::lock_guard lock(state->mu);
      index = state->connections++;
    }
    std::weak_ptr<IpcConnection> weak = c;
    auto iface = std::make_shared<IpcExportedInterface>("VORDaemonIPC");
    auto scripted = [state, index, weak](const IpcMessage& m, IpcReplier reply) {
      std::optional<Value::Array> answer;
      std::function<void(IpcConnection&)> hook;
      std::filesystem::path resource;
      {
        std::lock_guard lock(state->mu);
        state->calls.push_back({index, m.op(), m.args()});
        if (auto it = state->replies.find(m.op()); it != state->replies.end()) answer = it->second;
        if (m.op() == "configure:reply:") hook = state->afterConfigure;
        resource = state->resource;
      }
      if (!reply) return;
      if (m.op() == "fileHandleAndAttributesForResource:completion:" && !answer) {
        IpcMessage out = IpcMessage::reply();
        if (resource.empty()) {
          out.args() = {Value(), Value(), VORError::make(404, "no such resource").toRecord()};
        } else {
          Value handle = out.attach(UniqueFd(::open(resource.c_str(), O_RDONLY | O_CLOEXEC)));
          out.args() = {handle, Value::dict({{"version", "7"}}), Value()};
        }
        reply.send(std::move(out));
        return;
      }
      if (m.op() == "request:reply:" && !answer) return;
      if (m.op() == "request:reply:" && answer->empty()) {
        // Empty script: answer with the request's own query id and a small reply.
        VORReply r;
        r.scale = 2.0;
        r.data = {'o', 'k'};
        answer = Value::Array{*m.arg(0).find("queryId"), r.toRecord(), Value()};
      }
      if (answer) reply(*answer);
      if (auto conn = weak.lock(); conn && hook) hook(*conn);
    };
    iface->add("configure:reply:", {Arg::any()}, scripted);
    iface->add("bag:", {}, scripted);
    iface->add("request:reply:", {Arg::any()}, scripted);
    iface->add("reportEvent:queryId:feedback:", {Arg::any(), Arg::any(), Arg::any()}, scripted);
    iface->add("feedback:reply:", {Arg::any()}, scripted);
    iface->add("listenToFlusher:", {}, scripted);
    iface->add("listSessions:", {}, scripted);
    iface->add("fileHandleAndAttributesForResource:completion:", {Arg::any()}, scripted);
    iface->add("clearEngagedCompletionsFromDate:toDate:", {Arg::any(), Arg::any()}, scripted);
    iface->add("addCompletion:forInput:", {Arg::any(), Arg::any()}, scripted);
    iface->add(
        "updateParameters:voyantLast1day:voyantLast1week:voyantLast1month:voyantAll:voyantMostRecent:"
        "minThresholdToSend:",
        std::vector<Arg>(7, Arg::any()), scripted);
    iface->add("getImageMap:", {}, scripted);
    return iface;
  }

  IpcEndpoint endpoint_;
  std::shared_ptr<State> state_;
};

}  // namespace vorlen::test
