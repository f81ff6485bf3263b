// SerialQueue: the serial Queue. Items run one at a time in submission order, on the pool or, for `sync`,
// on the caller's thread.
//
// The queue is in one of four states: Idle (nothing pending), Scheduled (a drain job is in the pool but no
// thread runs the queue yet), Draining (some thread is running its items) and Owned (a `sync` caller is
// running its work). A sync caller that finds the queue busy leaves a marker in the item list. Whoever
// drains the queue and reaches a marker hands the queue to that caller and stops. A caller that finds
// the queue Scheduled does not wait for a worker: it drains the earlier items itself on its own thread.
// So no thread ever waits for a free worker, and a pool of any size cannot deadlock through sync chains.
//
// A thread in runUntil() is a helper: while one waits, a newly scheduled queue is not handed to the pool
// but to the helper, which drains it on its own thread; a helper that leaves with items still waiting
// hands them to the pool. Items run by anyone else wake the helpers to check their condition.
//
// A worker drains at most kDrainBatch items in a row, then puts the queue back at the end of the pool's
// list so that one busy queue cannot hold a worker for ever.
//
// Threading: async/sync are safe from any thread. REQUIRES: the queue is owned by a std::shared_ptr.
// Internal header of the queue runtime; create queues with Queue::serial().
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>

#include "base/Queue.h"

namespace vorlen {

class SerialQueue final : public Queue {
 public:
  SerialQueue(std::string label, QueuePriority priority, std::shared_ptr<Clock> clock,
              std::shared_ptr<WorkerPool> pool);

  void async(Work work) override;
  void sync(const Work& work) override;
  void asyncOrRunHere(Work work) override;
  void runUntil(const std::function<bool()>& done) override;

  // Items not yet started plus sync callers waiting in line.
  size_t pendingCountForTesting() const;

 private:
  static constexpr int kDrainBatch = 32;

  enum class State { Idle, Scheduled, Draining, Owned };
  struct Waiter {
    bool granted = false;
  };
  struct Item {
    Work work;
    Waiter* waiter = nullptr;  // non-null: the marker of a waiting sync caller
  };

  // Called with mu_ held when the current holder lets go: grants a waiting sync caller at the front,
  // or schedules a drain job, or goes Idle.
  void releaseLocked();
  // Runs `work` on the calling thread, which owns the queue (state Owned), then lets go of it.
  void runOwned(const Work& work);
  void scheduleLocked();
  // Runs items with mu_ held on entry and exit (released while an item runs). Stops when the list is
  // empty, at a marker (handing the queue over) or, for a worker (`mine` null), after kDrainBatch items.
  // An item that throws ends the process wherever it runs, as it would on a worker.
  void drainLocked(std::unique_lock<std::mutex>& lock, Waiter* mine) noexcept;
  void drainJob(uint64_t ticket);

  std::shared_ptr<WorkerPool> pool_;
  mutable std::mutex mu_;
  std::condition_variable changed_;  // a marker was granted, the queue became Scheduled, or an item ran
  int helpers_ = 0;                  // threads in runUntil()
  std::deque<Item> items_;
  State state_ = State::Idle;
  uint64_t ticket_ = 0;  // identifies the one drain job that may run; older ones return at once
};

}  // namespace vorlen
