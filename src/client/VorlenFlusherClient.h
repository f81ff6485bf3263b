// VorlenFlusherClient: a diagnostics tool's connection to the daemon's flusher endpoint (the endpoint that
// listenToFlusher: hands out). It exports VORFlusherListenerIPC and sends initiateConnectionWithIntent:
// (0 sending stream, 1 receiving stream, 2 stop scheduled flushing, 3 dump; docs/PROTOCOL.md).
//
// Handlers run on the connection's serial queue, one at a time, in the order the daemon sent: flushedData
// with the compressed payloads of one send, receivedFeedbackDescription with one event's JSON text,
// workDone after a stop or a dump, closed once when the connection ends (the daemon went away or cut the
// tool off). A call with arguments of the wrong type is dropped after one error line.
//
// Threading: every method is safe from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/Value.h"
#include "ipc/IpcEndpoint.h"

namespace vorlen {

class IpcConnection;

class VorlenFlusherClient {
 public:
  enum Intent : uint64_t { kSendingStream = 0, kReceivingStream = 1, kStopFlushing = 2, kDump = 3 };

  struct Handlers {
    std::function<void(std::vector<Value::Data> payloads)> flushedData;
    std::function<void(const std::string& description)> receivedFeedbackDescription;
    std::function<void()> workDone;
    std::function<void()> closed;
  };

  // Null with the reason in *error when the endpoint cannot be reached.
  static std::shared_ptr<VorlenFlusherClient> connect(const IpcEndpoint& endpoint, Handlers handlers,
                                                      std::string* error = nullptr);
  ~VorlenFlusherClient();

  // False when the message could not be handed to the transport (the connection is gone).
  bool initiateConnectionWithIntent(uint64_t intent);
  bool isConnected() const;
  void close();

 private:
  explicit VorlenFlusherClient(std::shared_ptr<IpcConnection> connection);
  const std::shared_ptr<IpcConnection> connection_;
};

}  // namespace vorlen
