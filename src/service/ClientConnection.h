// ClientConnection: the daemon's side of one client connection on the service socket. It exports
// VORDaemonIPC to the client, holds the client's VORClientIPC callbacks (calls sent on the same
// connection), binds the client's ClientState once a valid configuration arrives, and forwards queries to
// that state, feedback to the state's session manager and completion-cache commands to the engaged
// completion cache.
//
// Rules it keeps:
//   - Only the newest search is answered with a result: a search whose query id is not above the highest
//     one accepted so far is answered at once with no reply and no error, and a search overtaken while it
//     was in flight has its result dropped the same way. Other query kinds have no such ordering.
//   - A request of a class the daemon does not serve is never answered.
//   - A connection that sends nothing for the idle time-out (60 s) is closed; every message restarts it.
//   - A connection that has not been configured within the configure time-out (10 s) of opening is closed,
//     whatever it sends meanwhile: without a state it can do little but cost.
//   - Its fault lines ("configuration must not be nil" and the like) are written once; repeats are
//     counted and written as one line when the connection object goes.
//   - A configuration that leaves no state (no identifier, empty agent) closes the connection after an
//     error feedback; the reply is not called. Operations that need a state and find none send nothing.
//
// Configuration: the state is asked for the bag first (its answer, a bag or the time-out error, goes out
// with bagDidLoad:error:), then the configure reply carries the endpoint. Bag changes: from the
// configuration on, every "VORBagChangeNotification" whose user information holds a VORBag record under
// "bag" is forwarded with bagDidLoad:error: from a background queue; a client never hears an older bag
// after a newer one. Resource
// notifications ("identifier" in the user information) are forwarded with didDownloadResource: and
// didDeleteResource:.
//
// Trace events (when tracing is on): start and end of searches, cards, zero-keyword and look-up queries,
// and of each reported feedback event.
//
// Threading: calls from the client run on the IPC connection's serial queue. currentQueryId is atomic
// because state replies arrive on other queues. Notification forwarding runs on a background queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "base/Clock.h"
#include "base/LogRepeatFilter.h"
#include "base/NotificationCenter.h"
#include "ipc/IpcEndpoint.h"
#include "model/QXFeedback.h"
#include "model/VORBag.h"
#include "model/VORError.h"
#include "model/VORRequest.h"
#include "model/VORSessionConfiguration.h"

namespace vorlen {

class Assembly;
class ClientState;
class ClientStateManager;
class IpcConnection;
class IpcExportedInterface;
class IpcMessage;
class IpcReplier;
class Queue;
class Timer;
class Transaction;

struct ClientConnectionOptions {
  Duration idleTimeout = seconds(60);
  Duration configureTimeout = seconds(10);
};

class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
 public:
  // Makes the connection's handler: sets the exported interface and invocation hook on `connection`
  // (which must still be suspended). REQUIRES: assembly->clientStateManager is set.
  static std::shared_ptr<ClientConnection> create(std::shared_ptr<Assembly> assembly,
                                                  std::shared_ptr<IpcConnection> connection,
                                                  ClientConnectionOptions options = {});
  ~ClientConnection();

  const std::shared_ptr<IpcConnection>& connection() const { return connection_; }
  std::shared_ptr<ClientState> state() const;
  std::optional<std::string> userAgent() const;
  uint64_t currentQueryId() const { return currentQueryId_.load(); }

  // Asks the session manager to end or mark the client's session for a closed connection; `callback`
  // gets true when the session was flushed. Runs `callback` with false at once when there is no state or
  // no session manager.
  void flushSessionInvalidation(std::function<void(bool flushed)> callback);

  // Ends the client's open feedback session (a dump of the flusher endpoint); `completion` runs once it is
  // written, or at once when there is no state or no session manager.
  void flushSession(std::function<void()> completion);

  // The client query id a feedback event refers to (0 when its class carries none).
  static uint64_t clientQueryIdForFeedback(const QXFeedback& feedback);

 private:
  ClientConnection(std::shared_ptr<Assembly> assembly, std::shared_ptr<IpcConnection> connection,
                   ClientConnectionOptions options);
  void start();
  static std::shared_ptr<const IpcExportedInterface> makeInterface(std::weak_ptr<ClientConnection> weak);

  // VORDaemonIPC, on the connection's queue.
  void configure(VORSessionConfiguration configuration, IpcReplier reply);
  void bag(IpcReplier reply);
  // Has the bag fetched now and answers with it as this client sees it, or with the fetch's error. A
  // second call while the first still waits is answered at once with an error.
  void refreshBag(IpcReplier reply);
  void request(std::shared_ptr<VORRequest> request, IpcReplier reply);
  void search(std::shared_ptr<const VORSearchRequest> request, IpcReplier reply);
  void reportEvent(const QXFeedback& feedback, uint64_t queryId);
  void _reportEvent(const QXFeedback& feedback, uint64_t queryId);
  void feedback(IpcReplier reply);
  void listenToFlusher(IpcReplier reply);
  void listSessions(IpcReplier reply);
  void fileHandleAndAttributesForResource(const std::string& identifier, IpcReplier reply);
  void getImageMap(IpcReplier reply);

  // Binds the state for the current configuration; idempotent.
  void _ensureState();
  void _setEngagedCompletionCacheValues(const VORBag& bag);
  // Sends bagDidLoad:error: and applies the bag's completion settings, unless a bag numbered later was
  // sent already. REQUIRES: bagSendMu_ is held.
  void _sendBagInOrder(uint64_t number, const std::optional<VORBag>& bag,
                       const std::optional<VORError>& error);
  void _resultEngagementExtras(const ClientState& state, const QXFeedback& feedback);
  void _reportErrorAsVorlendFeedback(const VORError& error);
  void _reportErrorAsFeedbackSession(const std::string& reason);
  void _observeBagChanges();
  void bagChangeNotification(const Notification& notification);
  void forwardResourceNotification(const Notification& notification, const char* op);

  const std::shared_ptr<Assembly> assembly_;
  const std::shared_ptr<ClientStateManager> clientStateManager_;
  const std::shared_ptr<IpcConnection> connection_;
  const ClientConnectionOptions options_;
  std::atomic<uint64_t> currentQueryId_{0};
  // One refreshBag: waits at a time per connection: a client cannot pile up waiting replies.
  std::atomic<bool> refreshPending_{false};

  mutable std::mutex mu_;  // guards the fields below
  std::optional<VORSessionConfiguration> configuration_;
  std::shared_ptr<ClientState> state_;
  std::optional<std::string> userAgent_;
  std::unique_ptr<NotificationCenter::Token> bagObserver_;
  // Bags reach the client in the order they were had: the configuration's bag is numbered when it is read
  // and each change when it is announced, and a bag is sent only when nothing numbered later was sent
  // before it. Recursive: a change announced on the thread that is reading the configuration's bag is
  // numbered at once.
  std::recursive_mutex bagSendMu_;
  uint64_t bagSendsNumbered_ = 0;  // guarded by bagSendMu_
  uint64_t bagSendsDone_ = 0;      // guarded by bagSendMu_

  std::shared_ptr<Queue> notifyQueue_;
  // Serial, background priority: bag changes are sent from here, never on the thread that announced them.
  std::shared_ptr<Queue> bagQueue_;
  std::shared_ptr<Timer> idleTimer_;
  std::shared_ptr<Timer> configureTimer_;
  LogRepeatFilter repeatedLines_;
  std::unique_ptr<NotificationCenter::Token> downloadObserver_;
  std::unique_ptr<NotificationCenter::Token> deleteObserver_;
  std::unique_ptr<Transaction> transaction_;
};

}  // namespace vorlen
