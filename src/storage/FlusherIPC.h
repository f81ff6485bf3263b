// FlusherIPC: the role of the flusher endpoint, as the rest of the service calls it: it forwards copies of
// what the flushers send, and of every event as it arrives, to a connected diagnostics tool. The Assembly
// slot stays empty while no endpoint is built, and every caller tolerates that.
//
// Threading: every method is safe from any thread and returns at once.
#pragma once

#include <optional>
#include <vector>

#include "base/MappedFile.h"
#include "feedback/VorlenFeedback.h"
#include "ipc/IpcEndpoint.h"

namespace vorlen {

class FlusherIPC {
 public:
  virtual ~FlusherIPC() = default;

  // The compressed payloads a flusher sent, for the tool listening to the sending stream.
  virtual void sendDataToSendingStreamListener(std::vector<MappedFile> payloads) = 0;
  // One event as a client reported it, before any filtering, for the tool listening to the receiving
  // stream. Costs one atomic load while no tool listens; never waits for a tool.
  virtual void sendDataToReceivingStreamListener(const VorlenFeedback& feedback) = 0;
  // Where a tool connects; nothing when the endpoint could not be set up.
  virtual std::optional<IpcEndpoint> endpoint() const = 0;
};

}  // namespace vorlen
