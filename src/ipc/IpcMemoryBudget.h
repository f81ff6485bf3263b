// IpcMemoryBudget: what the transport holds for all connections together, beside each connection's own
// limits. Two sums:
//
//   incoming  bytes read from sockets whose messages have not been served yet, half-received frames
//             included. Past the limit no connection reads more: each waits (parked) until serving or a
//             closed connection makes room. A parked connection in the middle of a frame makes no progress
//             and is closed by its stall rule, so a peer that sends half frames cannot hold the budget.
//   outgoing  bytes queued for peers and not yet written. A message that would take the sum past the limit
//             is not queued and its connection is closed: under that pressure the peers that do not read
//             are the ones that hold it.
//
// The process shares one budget (shared()); tests pass their own small one through IpcConnectionOptions.
//
// Threading: every method is safe from any thread. Wake-ups run on the thread that made room, outside
// the budget's lock; they must only post work.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace vorlen {

class IpcMemoryBudget {
 public:
  static constexpr size_t kDefaultMaxIncomingBytes = size_t{64} << 20;
  static constexpr size_t kDefaultMaxOutgoingBytes = size_t{128} << 20;

  IpcMemoryBudget(size_t maxIncomingBytes, size_t maxOutgoingBytes)
      : maxIncoming_(maxIncomingBytes), maxOutgoing_(maxOutgoingBytes) {}
  // The process's budget, with the default limits.
  static const std::shared_ptr<IpcMemoryBudget>& shared();

  void addIncoming(size_t bytes) { incoming_ += bytes; }
  // Wakes every parked reader when this brought the sum back under the limit.
  void removeIncoming(size_t bytes);
  bool incomingFull() const { return incoming_.load() >= maxIncoming_; }
  // Runs `wake` once there is room: at once (on this thread) when there is room now.
  void waitForIncomingRoom(std::function<void()> wake);

  // False, and nothing added, when `bytes` more would pass the limit.
  bool tryAddOutgoing(size_t bytes);
  void removeOutgoing(size_t bytes) { outgoing_ -= bytes; }

  size_t incomingBytes() const { return incoming_.load(); }
  size_t outgoingBytes() const { return outgoing_.load(); }
  size_t maxIncomingBytes() const { return maxIncoming_; }
  size_t maxOutgoingBytes() const { return maxOutgoing_; }

 private:
  const size_t maxIncoming_;
  const size_t maxOutgoing_;
  std::atomic<size_t> incoming_{0};
  std::atomic<size_t> outgoing_{0};
  std::mutex mu_;  // guards parked_
  std::vector<std::function<void()>> parked_;
};

}  // namespace vorlen
