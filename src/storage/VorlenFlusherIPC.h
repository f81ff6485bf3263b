// VorlenFlusherIPC: the flusher endpoint, the Assembly's flusherIPCListener. A developer or diagnostics
// tool connects to its anonymous listener (the endpoint that listenToFlusher: hands out), exports
// VORFlusherListenerIPC (flushedData:, receivedFeedbackDescription:, workDone) and sends
// initiateConnectionWithIntent: with
//   0  become the sending-stream listener: a copy of every payload the flushers send (flushedData:);
//   1  become the receiving-stream listener: every event as a client reports it, before any filtering
//      (receivedFeedbackDescription:, one JSON object text per event);
//   2  stop scheduled flushing until the next dump, then workDone;
//   3  dump: the calling tool becomes the sending-stream listener unless one exists, every client's
//      session is flushed (only the first connection's when one session is shared by all clients), then
//      storage is drained; stopFlushing is cleared and the tool hears workDone after each drain.
// Any other intent logs "Unsupported command yet: <n>" and changes nothing. There is one sending and one
// receiving listener at a time; a later tool replaces an earlier one, and a tool that goes away is removed.
//
// A tool never slows the service: both streams are sent asynchronously from the endpoint's own queue.
// While no receiving listener exists, an event costs one atomic load. At most kMaxPendingDescriptions
// events wait on the queue for the receiving listener, and at most kMaxToolOutgoingBytes wait in the
// socket for a tool that does not read (or it stalls for the transport's stall time-out); past either the
// tool is cut off with one error line and the stream is gone until a tool asks again.
//
// Threading: every public method is safe from any thread. Listener fields live on the serial queue
// "com.velmo.vorlend.flusherIPCQueue"; tool calls arrive on each tool connection's own queue.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/Queue.h"
#include "ipc/IpcListenerDelegate.h"
#include "storage/FlusherIPC.h"

namespace vorlen {

class Assembly;
class IpcConnection;
class IpcListener;

// One client connection as the dump sees it: its agent (for the log) and how to end its session.
struct FlusherClientConnection {
  std::string userAgent;
  // Ends the connection's feedback session; the completion runs once it is written (or at once when the
  // connection has nothing to flush).
  std::function<void(std::function<void()> completion)> flushSession;
};

class VorlenFlusherIPC final : public FlusherIPC,
                               public IpcListenerDelegate,
                               public std::enable_shared_from_this<VorlenFlusherIPC> {
 public:
  using GetClientConnections = std::function<std::vector<FlusherClientConnection>()>;

  static constexpr size_t kMaxPendingDescriptions = 1024;
  static constexpr size_t kMaxToolOutgoingBytes = size_t{4} << 20;
  static constexpr size_t kMaxToolConnections = 8;

  // Starts the anonymous listener in the runtime folder (a listener that cannot be set up is logged, and
  // endpoint() is then empty). `getClientConnections` may be empty. Holds the Assembly weakly.
  static std::shared_ptr<VorlenFlusherIPC> create(const std::shared_ptr<Assembly>& assembly,
                                                  GetClientConnections getClientConnections);
  ~VorlenFlusherIPC() override;

  // FlusherIPC.
  void sendDataToSendingStreamListener(std::vector<MappedFile> payloads) override;
  void sendDataToReceivingStreamListener(const VorlenFeedback& feedback) override;
  std::optional<IpcEndpoint> endpoint() const override;

  // IpcListenerDelegate: accepts every tool (up to kMaxToolConnections at once).
  bool shouldAcceptNewConnection(IpcListener& listener,
                                 const std::shared_ptr<IpcConnection>& connection) override;

  const std::shared_ptr<Queue>& queue() const { return flusheripcQueue_; }

 private:
  VorlenFlusherIPC(const std::shared_ptr<Assembly>& assembly, GetClientConnections getClientConnections);
  void start();
  // On the queue.
  void initiateConnectionWithIntent(uint64_t intent, const std::shared_ptr<IpcConnection>& tool);
  void _dump(const std::shared_ptr<IpcConnection>& tool);
  void _removeProxy(const std::shared_ptr<IpcConnection>& proxy);
  void _setReceiving(std::shared_ptr<IpcConnection> tool);
  // Any thread: clears stopFlushing and tells `tool` workDone from the queue.
  void _workDone(const std::weak_ptr<IpcConnection>& tool);

  const std::weak_ptr<Assembly> assembly_;
  const GetClientConnections getClientConnections_;
  const std::shared_ptr<Queue> flusheripcQueue_;
  std::shared_ptr<IpcListener> listener_;

  // flusheripcQueue_ only.
  std::shared_ptr<IpcConnection> remoteObject_;
  std::shared_ptr<IpcConnection> sendingStreamListener_;
  std::shared_ptr<IpcConnection> receivingStreamListener_;

  // Read on the event path without a hop: whether a receiving listener exists, and how many events wait
  // on the queue for it.
  std::atomic<bool> hasReceivingListener_{false};
  std::atomic<size_t> pendingDescriptions_{0};
  // Changes whenever the receiving listener does (written on the queue).
  std::atomic<uint64_t> receivingGeneration_{0};
};

}  // namespace vorlen
