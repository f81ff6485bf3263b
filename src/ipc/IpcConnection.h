// IpcConnection: one end of a framed Unix-socket connection (protocol in docs/PROTOCOL.md). It sends calls
// and replies, delivers what the peer sends on its own serial queue, and reports its end once.
//
// Life cycle: a connection is made by adopt() (a socket accepted by an IpcListener) or connect(). It
// starts suspended: set the exported interface and handlers, then resume() to start receiving. Sending is
// possible at once. A resumed connection keeps itself alive until it closes, which happens when the peer
// closes or resets the socket, when invalidate() is called, or when the peer breaks a rule of the
// transport; each rule break is logged as one error line naming the peer, and affects no other
// connection:
//   - a frame announcing more than maxFrameBytes, a payload that is not a binary property list with a
//     dictionary root, or a dictionary that is neither a call nor a reply (see IpcMessage);
//   - a frame left half-sent, or our data left unread, for stallTimeout;
//   - more than maxOutgoingBytes queued for the peer.
// A call of an unknown operation, or with arguments of the wrong count or type, is logged as one error
// line and ignored; the connection stays open. The same line again from the same connection is only
// counted, and the count written when the connection object goes.
//
// Delivery: incoming calls and replies run on queue() in the order they arrived, each preceded by the
// invocation hook. At most maxIncomingBacklogMessages (and maxIncomingBacklogBytes) wait to be served;
// past that the connection stops reading the socket until the queue has worked off half of it, so a fast
// sender is slowed down instead of growing a queue. Messages the peer sent before it closed are still
// delivered, except calls that want a reply: once the peer has hung up (or the connection closed) nobody can
// read their answer, so they are dropped without running. After invalidate() nothing more is delivered. Then,
// once, on the queue: the interruption handler (only when the peer closed or reset the connection), then the
// invalidation handler; afterwards every handler is released, so handlers may hold their owner strongly.
//
// Replies: call() with a reply handler runs that handler on the queue when the reply arrives. A call whose
// connection closes before its reply comes is never answered: its reply handler is dropped without being
// called, and the proxy error handler (if set) runs instead, once per such call.
//
// Threading: every public method is safe from any thread. Socket work happens on the IpcRuntime's I/O
// thread, with one exception: a frame without descriptors is written straight from the sending thread
// when nothing waits to be written before it (it saves a thread hop per message); whatever that write
// cannot finish goes to the I/O thread, in order. Nothing user-supplied ever runs on the I/O thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "base/LogRepeatFilter.h"
#include "base/Queue.h"
#include "base/UniqueFd.h"
#include "ipc/IpcConnectionOptions.h"
#include "ipc/IpcEndpoint.h"
#include "ipc/IpcExportedInterface.h"
#include "ipc/IpcFrameDecoder.h"
#include "ipc/IpcMessage.h"
#include "ipc/IpcPeer.h"
#include "ipc/IpcReplier.h"

namespace vorlen {

class IpcListener;

class IpcConnection : public std::enable_shared_from_this<IpcConnection> {
 public:
  enum class CloseReason {
    Open,              // not closed yet
    Invalidated,       // invalidate() on this side
    PeerClosed,        // the peer closed or reset the socket
    ProtocolError,     // the peer sent something the protocol does not allow
    Stalled,           // no progress on a half-received frame or on our queued data
    OutgoingOverflow,  // the peer does not read what we send
    IoError,           // the socket failed otherwise
  };

  using ReplyHandler = std::function<void(const IpcMessage& reply)>;
  using CallHandler = std::function<void(const IpcMessage& call, IpcReplier reply)>;

  // Takes a connected Unix stream socket. REQUIRES: `socket` is valid.
  static std::shared_ptr<IpcConnection> adopt(UniqueFd socket, IpcConnectionOptions options = {});
  // Connects to the listener at `path`; null with the reason in *error on failure.
  static std::shared_ptr<IpcConnection> connect(const std::filesystem::path& path,
                                                IpcConnectionOptions options = {},
                                                std::string* error = nullptr);
  static std::shared_ptr<IpcConnection> connect(const IpcEndpoint& endpoint,
                                                IpcConnectionOptions options = {},
                                                std::string* error = nullptr);

  ~IpcConnection();
  IpcConnection(const IpcConnection&) = delete;
  IpcConnection& operator=(const IpcConnection&) = delete;

  // Incoming calls go to the exported interface, or, without one, to the call handler; with neither they
  // are logged and ignored.
  void setExportedInterface(std::shared_ptr<const IpcExportedInterface> exported);
  void setCallHandler(CallHandler handler);
  void setInvalidationHandler(std::function<void()> handler);
  void setInterruptionHandler(std::function<void()> handler);
  // Runs on the queue before every incoming call or reply is served.
  void setInvocationHook(std::function<void(const IpcMessage&)> hook);
  // Runs on the queue with a reason for each call that will never be answered, and for each message that
  // could not be sent because the connection is closed.
  void setProxyErrorHandler(std::function<void(const std::string& reason)> handler);

  // Starts receiving. Idempotent.
  void resume();
  // Closes the connection from this side. Idempotent.
  void invalidate();

  // Sends a call that wants no reply, or a reply. Returns false when the message was not queued (closed
  // connection, message over the frame limit, too many descriptors, or the peer not reading).
  bool send(IpcMessage message);
  bool send(std::string op, Value::Array args) {
    return send(IpcMessage::call(std::move(op), std::move(args)));
  }
  // Sends a call; `onReply` runs on the queue with the reply. A null `onReply` is send().
  bool call(IpcMessage message, ReplyHandler onReply);
  bool call(std::string op, Value::Array args, ReplyHandler onReply) {
    return call(IpcMessage::call(std::move(op), std::move(args)), std::move(onReply));
  }

  bool isValid() const { return !invalidated_.load(); }
  CloseReason closeReason() const { return static_cast<CloseReason>(closeReason_.load()); }
  const IpcPeer& peer() const { return peer_; }
  const std::shared_ptr<Queue>& queue() const { return queue_; }
  const IpcConnectionOptions& options() const { return options_; }
  // Calls sent with a reply handler whose reply has not come yet.
  size_t pendingReplyCount() const;
  // Messages received and not served yet.
  size_t incomingBacklog() const { return backlogMessages_.load(); }
  // Counts one more message as unserved until the returned hold is released (from any thread). A handler
  // that hands its message's work on to another queue takes one, so that work still limits what the peer
  // may send next: past the backlog limits the connection stops reading, as for messages queued here.
  // The hold is never null.
  std::shared_ptr<void> holdIncomingBacklog();
  // Calls that wanted a reply and were dropped unrun because the peer had gone.
  size_t droppedCallCount() const { return droppedCalls_.load(); }

  static const char* closeReasonName(CloseReason reason);

 private:
  friend class IpcListener;
  struct Io;
  struct OutFrame;
  struct Handlers {
    std::shared_ptr<const IpcExportedInterface> exported;
    CallHandler callHandler;
    std::function<void()> invalidation;
    std::function<void()> interruption;
    std::function<void(const IpcMessage&)> hook;
    std::function<void(const std::string&)> proxyError;
  };

  IpcConnection(UniqueFd socket, IpcConnectionOptions options);

  // For the listener that accepted this connection: runs once, on the I/O thread, when it closes (or from
  // the destructor when it never did).
  void setCloseObserver(std::function<void()> observer);

  // Any thread: records the reason and has the I/O thread close the socket.
  void closeSoon(CloseReason reason, bool stopDelivery);
  // I/O thread.
  void startOnIo();
  void armRead();
  void onReadable();
  void queueFrameOnIo(IpcRawFrame&& frame);
  // Hands complete frames from the decoder to the queue until the backlog is full, then pauses reading.
  // False when the connection closed (a frame broke the protocol).
  bool takeFramesOnIo();
  bool backlogFull() const;
  bool backlogHalfEmpty() const;
  void resumeReadingOnIo();
  // Any thread: one unserved message fewer (of `bytes` received bytes); resumes reading when that made room.
  void releaseBacklog(size_t bytes);
  // I/O thread: stops reading until the process budget has room again.
  void parkForBudgetOnIo();
  void resumeFromBudgetOnIo();
  // Any thread: `bytes` of queued outgoing frames are written or discarded.
  void dropOutgoing(size_t bytes);
  void enqueueOnIo(const std::shared_ptr<OutFrame>& frame);
  void flushWrites();
  void updateStallWatch();
  void scheduleStallCheck(Time deadline);
  void onStallCheck();
  void closeOnIo(CloseReason reason);
  // Any thread: writes `frame` now when nothing is queued before it, else hands it to the I/O thread.
  void writeOrQueue(const std::shared_ptr<OutFrame>& frame);
  // Any thread: encodes and queues a message for the I/O thread. *closed tells a closed connection apart
  // from the other refusals (which are logged here). The message's arguments are moved into the frame;
  // its summary() stays right for the caller's error line.
  bool enqueue(IpcMessage& message, bool* closed);
  // Queue.
  void serveFrame(IpcRawFrame& frame);
  // True when a reply to a call served now could never be read: the connection closed, or the peer hung up
  // (one poll() without waiting: a fraction of a microsecond beside the call itself).
  bool peerGoneOnQueue();
  void finishOnQueue();
  void reportProxyError(std::string reason);

  std::string describePeer() const;

  IpcConnectionOptions options_;
  std::shared_ptr<IpcRuntime> runtime_;
  std::shared_ptr<IpcMemoryBudget> budget_;
  std::shared_ptr<Clock> clock_;
  std::shared_ptr<Queue> queue_;
  IpcPeer peer_;
  uint64_t id_;

  std::atomic<bool> invalidated_{false};   // closed, or closing
  std::atomic<bool> stopDelivery_{false};  // nothing more is served on the queue
  std::atomic<int> closeReason_{static_cast<int>(CloseReason::Open)};
  std::atomic<bool> resumed_{false};
  std::atomic<size_t> outgoingBytes_{0};
  std::atomic<size_t> backlogBytes_{0};
  std::atomic<size_t> backlogMessages_{0};
  std::atomic<size_t> droppedCalls_{0};
  std::atomic<bool> readPaused_{false};

  mutable std::mutex mu_;  // guards handlers_, pending_, closeObserver_
  Handlers handlers_;
  std::unordered_map<uint64_t, ReplyHandler> pending_;
  std::function<void()> closeObserver_;
  std::atomic<uint64_t> nextSerial_{1};
  LogRepeatFilter rejectedCalls_;

  std::mutex writeMu_;     // guards the three below; held across a direct write
  int directFd_ = -1;      // the socket for direct writes; -1 once the I/O thread closed it
  size_t framesOnIo_ = 0;  // frames handed to the I/O thread and not yet fully written

  std::unique_ptr<Io> io_;  // I/O-thread state; last, so that the socket closes first
};

}  // namespace vorlen
