// VorlenClientCoreCore: the working half of VorlenClientCore (client/VorlenClientCore.h, whose comment is the
// contract): the service connection, the pending calls with their time-outs, the configuration re-sent
// on a new connection, and the daemon's callbacks. Kept out of the public header so that an application
// needs neither the transport nor the queue types of this project.
//
// Threading: as VorlenClientCore: every method is safe from any thread; callbacks run on queue().
// REQUIRES: a blocking form is never called on queue() (it aborts instead).
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "base/Queue.h"
#include "base/Value.h"
#include "client/ClientReplyDecoder.h"
#include "client/ClientResult.h"
#include "client/VorlenClient.h"
#include "ipc/IpcConnection.h"
#include "ipc/IpcEndpoint.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"

namespace vorlen {

class IpcExportedInterface;

class VorlenClientCore : public std::enable_shared_from_this<VorlenClientCore> {
 public:
  template <class T>
  using Callback = std::function<void(ClientResult<T>)>;

  using CompletionParameters = VorlenClient::CompletionParameters;

  static std::shared_ptr<VorlenClientCore> create(VorlenClientOptions options = {});
  ~VorlenClientCore();
  VorlenClientCore(const VorlenClientCore&) = delete;
  VorlenClientCore& operator=(const VorlenClientCore&) = delete;

  const std::filesystem::path& socketPath() const { return socketPath_; }
  const std::shared_ptr<Queue>& queue() const { return queue_; }
  // The client-state endpoint of the last successful configure:reply:, if any.
  std::optional<IpcEndpoint> endpoint() const;
  // True while a service connection is open (as far as this side knows).
  bool isConnected() const { return connected_.load(); }
  // Calls waiting for their outcome.
  size_t pendingCallCount() const { return pendingCount_.load(); }

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
  // The raw reply of a call, or why there is none.
  using Finish = std::function<void(ClientResult<IpcMessage>)>;
  struct Pending {
    uint64_t connectionId = 0;
    std::string op;
    std::shared_ptr<ScheduledCall> timer;
    Finish finish;
  };
  struct Handlers {
    std::function<void(std::optional<VORBag>, std::optional<VORError>)> bagDidLoad;
    std::function<void(const std::string&)> didDownloadResource;
    std::function<void(const std::string&)> didDeleteResource;
  };

  explicit VorlenClientCore(VorlenClientOptions options);
  void exportCallbacks();

  // Queue: the service connection, opened (and configured, when `autoConfigure` and a configuration is
  // remembered) as needed; null with the error when the socket cannot be connected.
  std::shared_ptr<IpcConnection> ensureConnected(bool autoConfigure, ClientError* error);
  // Queue: a new connection to `path` whose end fails its pending calls.
  std::shared_ptr<IpcConnection> openConnection(const std::filesystem::path& path, uint64_t* id,
                                                ClientError* error);
  // Queue: sends a call wanting a reply on `connection` and tracks it until reply, time-out or close.
  void issue(const std::shared_ptr<IpcConnection>& connection, uint64_t connectionId, std::string op,
             Value::Array args, Finish finish);
  // Queue: sends configure:reply: and remembers the endpoint it answers with.
  void sendConfigure(const std::shared_ptr<IpcConnection>& connection, uint64_t connectionId,
                     const VORSessionConfiguration& configuration, Callback<IpcEndpoint> done);
  // Queue: ends a pending call once; later endings of the same call are ignored.
  void complete(uint64_t token, ClientResult<IpcMessage> outcome);
  void connectionEnded(uint64_t connectionId);

  // Any thread: runs `work` on the queue; at once when a blocking form issues it from this thread.
  void post(Queue::Work work);
  // Any thread: runs `start` on the queue with `done`.
  template <class T>
  void callService(std::string op, Value::Array args, ClientResult<T> (*decode)(const IpcMessage&),
                   Callback<T> done);
  void sendService(std::string op, Value::Array args, Callback<Sent> done);
  // Any thread but the queue: runs the callback form and waits for its outcome.
  template <class T, class Start>
  ClientResult<T> wait(const char* op, Start start);

  const std::filesystem::path socketPath_;
  const Duration callTimeout_;
  const Duration reconnectAfterIdle_;
  const std::shared_ptr<IpcRuntime> runtime_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<Clock> clock_;
  std::shared_ptr<const IpcExportedInterface> exported_;

  // Queue only.
  std::shared_ptr<IpcConnection> connection_;
  uint64_t connectionId_ = 0;
  uint64_t nextConnectionId_ = 1;
  Time lastSent_{};
  std::optional<VORSessionConfiguration> configuration_;
  std::map<uint64_t, Pending> pending_;
  uint64_t nextToken_ = 1;

  std::atomic<bool> connected_{false};
  std::atomic<size_t> pendingCount_{0};

  mutable std::mutex mu_;  // guards handlers_ and endpoint_
  Handlers handlers_;
  std::optional<IpcEndpoint> endpoint_;
};

}  // namespace vorlen
