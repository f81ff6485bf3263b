// IpcConnectionOptions: the limits and collaborators of one IPC connection. Plain settings with the
// production defaults; tests shrink the limits and pass a ManualClock.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "base/Clock.h"
#include "base/Queue.h"
#include "ipc/IpcFraming.h"

namespace vorlen {

class IpcRuntime;
class IpcMemoryBudget;

struct IpcConnectionOptions {
  // Largest payload accepted or sent; a peer announcing more is disconnected.
  size_t maxFrameBytes = IpcFraming::kDefaultMaxPayloadBytes;
  // Bytes queued for a peer that does not read; going past it closes the connection.
  size_t maxOutgoingBytes = size_t{32} << 20;
  // Received bytes whose messages have not been served yet; past it the connection stops reading until
  // its queue catches up (the peer is slowed down, not disconnected).
  size_t maxIncomingBacklogBytes = size_t{32} << 20;
  // Calls and replies received but not served yet; at this many the connection stops reading in the same
  // way, so one peer can never queue more work than this on the daemon.
  size_t maxIncomingBacklogMessages = 64;
  // Descriptors kept per received message; extra ones are closed.
  size_t maxDescriptorsPerMessage = 16;
  // A peer that leaves a frame half-sent, or stops reading while we have data for it, for this long is
  // disconnected.
  Duration stallTimeout = seconds(30);
  // Times the stall rule. Null: the system clock.
  std::shared_ptr<Clock> clock;
  // Null: IpcRuntime::shared().
  std::shared_ptr<IpcRuntime> runtime;
  // What all connections together may hold. Null: IpcMemoryBudget::shared().
  std::shared_ptr<IpcMemoryBudget> budget;
  // The serial queue that delivers calls, replies and handlers. Null: a fresh queue with this label.
  std::shared_ptr<Queue> queue;
  std::string queueLabel = "com.velmo.vorlend.ipc.connection";
};

}  // namespace vorlen
