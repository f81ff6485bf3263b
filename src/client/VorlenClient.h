// VorlenClient: a connection to vorlend for an application: configure, ask (bag, requests, sessions,
// resource files, ...), report feedback, and receive the daemon's calls (bag loaded, resource downloaded
// or deleted). The wire protocol is docs/PROTOCOL.md; this class speaks its VORDaemonIPC and
// VOREndpointIPC operations and exports VORClientIPC.
//
// Every operation has two forms:
//   - callback form: returns at once; the callback runs exactly once, on queue(), with the outcome;
//   - blocking form (same name, no callback): waits for that outcome and returns it.
// An outcome is a ClientResult: the decoded answer or a ClientError. Every call has a time-out
// (options.callTimeout, 10 s): a call unanswered by then ends with TimedOut, "timed out after 10 s", and
// a reply arriving later is dropped. A call whose connection closes first ends with ConnectionLost; a
// socket that cannot be connected ends the call with Unreachable; a reply that breaks the protocol ends it
// with MalformedReply (after one error line). Nothing the daemon sends can crash the client.
// Operations without a reply (reportEvent, clearEngagedCompletions, addCompletion, updateParameters)
// end with Sent once the message is handed to the transport.
//
// Connection: made lazily by the first call. The configuration given to configure() is remembered: when
// the connection has gone (the daemon restarted, or closed it after 60 s of silence), the next call opens
// a new one and sends configure:reply: on it first, then the call; the daemon serves one connection's
// calls in order, so the call finds the client configured. A connection idle for
// options.reconnectAfterIdle (50 s, under the daemon's 60 s) is replaced before the next call, so that a
// call does not cross the daemon's idle close on the wire. A call sent at the moment the daemon goes away
// is not retried; it ends with ConnectionLost.
//
// Callbacks from the daemon (onBagDidLoad, onDidDownloadResource, onDidDeleteResource) run on queue().
// Set them before the first call to be sure not to miss the bag that follows configure().
//
// This header and the ones it includes are the installed client API: they need nothing of the
// transport or the queue runtime (VorlenClientCore holds those).
//
// Threading: every method is safe from any thread. Callbacks run on queue(), one at a time.
// REQUIRES: a blocking form is never called on queue() (it would wait for itself; it aborts instead).
// Destroying the client closes its connections; callbacks of calls still waiting then run with
// ConnectionLost "client closed".
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "base/Value.h"
#include "client/ClientReplies.h"
#include "client/ClientResult.h"
#include "ipc/IpcEndpoint.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"

namespace vorlen {

class IpcRuntime;
class Queue;
class VorlenClientCore;

struct VorlenClientOptions {
  // The service socket; empty: Paths::fromEnvironment().serviceSocket (the daemon's own rule).
  std::filesystem::path socketPath;
  // Time-out of every call, in both forms.
  Duration callTimeout = seconds(10);
  // A connection that has sent nothing for this long is replaced before the next call.
  Duration reconnectAfterIdle = seconds(50);
  // Null: the process's IPC runtime.
  std::shared_ptr<IpcRuntime> runtime;
  // The serial queue of callbacks and connection work. Null: a fresh serial queue.
  std::shared_ptr<Queue> queue;
  // Times the time-outs and the idle rule. Null: the system clock.
  std::shared_ptr<Clock> clock;
};

class VorlenClient {
 public:
  template <class T>
  using Callback = std::function<void(ClientResult<T>)>;

  // The seven values of updateParameters:..., in the operation's order.
  struct CompletionParameters {
    double voyantLast1hour = 0;
    double voyantLast1day = 0;
    double voyantLast1week = 0;
    double voyantLast1month = 0;
    double voyantAll = 0;
    double voyantMostRecent = 0;
    double minThresholdToSend = 0;
  };

  static std::shared_ptr<VorlenClient> create(VorlenClientOptions options = {});
  ~VorlenClient();
  VorlenClient(const VorlenClient&) = delete;
  VorlenClient& operator=(const VorlenClient&) = delete;

  const std::filesystem::path& socketPath() const;
  const std::shared_ptr<Queue>& queue() const;
  // The client-state endpoint of the last successful configure:reply:, if any.
  std::optional<IpcEndpoint> endpoint() const;
  // True while a service connection is open (as far as this side knows).
  bool isConnected() const;
  // Calls waiting for their outcome.
  size_t pendingCallCount() const;

  // --- VORClientIPC: calls from the daemon, on queue(). A bag or error that fails the record check is
  // dropped after one error line.
  void onBagDidLoad(std::function<void(std::optional<VORBag>, std::optional<VORError>)> handler);
  void onDidDownloadResource(std::function<void(const std::string& identifier)> handler);
  void onDidDeleteResource(std::function<void(const std::string& identifier)> handler);

  // --- VORDaemonIPC.
  // configure:reply: -> the client-state endpoint. Remembered and re-sent on every new connection.
  // A configuration without identifier or user agent is refused here (InvalidArgument): the daemon would
  // close the connection without a reply.
  void configure(VORSessionConfiguration configuration, Callback<IpcEndpoint> done);
  ClientResult<IpcEndpoint> configure(VORSessionConfiguration configuration);

  void bag(Callback<BagReply> done);
  ClientResult<BagReply> bag();
  // refreshBag: -> the bag the daemon fetched for this call (or the fetch in flight ended with), seen
  // with this client's agent, or the fetch's error. Waits for the network, up to the call time-out.
  void refreshBag(Callback<BagReply> done);
  ClientResult<BagReply> refreshBag();

  // Any VORRequest subclass. The daemon never answers a request of a class it does not serve: such a
  // call ends with TimedOut.
  void request(const VORRequest& request, Callback<RequestReply> done);
  ClientResult<RequestReply> request(const VORRequest& request);

  // reportEvent:queryId:feedback: with a QXFeedback-family record (QXFeedback::toRecord(), or built by
  // hand). The record is checked before sending; a bad one ends with InvalidArgument.
  void reportEvent(std::string eventName, uint64_t queryId, Value feedbackRecord, Callback<Sent> done);
  ClientResult<Sent> reportEvent(std::string eventName, uint64_t queryId, Value feedbackRecord);

  // feedback:reply: -> the events of the client's current session.
  void feedback(Callback<FeedbackReply> done);
  ClientResult<FeedbackReply> feedback();

  // listenToFlusher: -> the flusher endpoint.
  void listenToFlusher(Callback<IpcEndpoint> done);
  ClientResult<IpcEndpoint> listenToFlusher();

  void listSessions(Callback<std::vector<SessionInfo>> done);
  ClientResult<std::vector<SessionInfo>> listSessions();

  // fileHandleAndAttributesForResource:completion:. The descriptor (read-only) belongs to the caller.
  void fileHandleForResource(std::string identifier, Callback<ResourceFile> done);
  ClientResult<ResourceFile> fileHandleForResource(std::string identifier);

  void clearEngagedCompletions(Time from, Time to, Callback<Sent> done);
  ClientResult<Sent> clearEngagedCompletions(Time from, Time to);

  void addCompletion(std::string completion, std::string input, Callback<Sent> done);
  ClientResult<Sent> addCompletion(std::string completion, std::string input);

  void updateParameters(const CompletionParameters& parameters, Callback<Sent> done);
  ClientResult<Sent> updateParameters(const CompletionParameters& parameters);

  // getImageMap: -> resource identifier to URL.
  void getImageMap(Callback<Value::Dict> done);
  ClientResult<Value::Dict> getImageMap();

  // --- VOREndpointIPC: request:configuration:reply: on a connection of its own to `endpoint` (the
  // daemon serves only more-results and card requests there). The connection closes with the outcome.
  void requestViaEndpoint(const IpcEndpoint& endpoint, const VORRequest& request,
                          const VORSessionConfiguration& configuration, Callback<RequestReply> done);
  ClientResult<RequestReply> requestViaEndpoint(const IpcEndpoint& endpoint, const VORRequest& request,
                                                const VORSessionConfiguration& configuration);

 private:
  explicit VorlenClient(std::shared_ptr<VorlenClientCore> core);

  // Queued work holds the core, not this object, so callbacks still waiting when the client is destroyed
  // end as the contract above says.
  const std::shared_ptr<VorlenClientCore> core_;
};

}  // namespace vorlen
