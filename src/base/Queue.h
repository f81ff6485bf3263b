// Queue: named serial and concurrent queues on a worker pool (the shared pool unless one is given).
//
// Serial queue: work items run one at a time, in submission order. `sync` runs its work on the caller's
// thread once every earlier item has finished: the thread that drains the queue hands it over to the
// caller at the caller's place in line, or, when no thread is draining it yet, the caller runs the earlier
// items itself. So no caller ever waits for a free worker, and nested sync chains across different queues
// cannot starve the pool, however small. Calling `sync` on a queue the caller is already running on
// (directly or through a sync chain) is a programming error: it logs a fault naming the queue and aborts.
//
// Concurrent queue: items may run in parallel; `sync` runs inline on the caller's thread. Components that
// need barrier writes pair a concurrent queue with a std::shared_mutex.
//
// isCurrent() is true while work of this queue runs on the calling thread, including work run by `sync`
// and work run by a sync chain that started on this queue (items a sync caller drains on its own thread
// see only their own queue as current, as they would on a worker).
//
// The priority is kept for callers to read; the pool runs jobs first-in first-out whatever their queue's
// priority.
//
// Queues are shared_ptr-owned; pending work keeps its queue alive until it has run.
//
// Threading: every method is safe from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Clock.h"
#include "base/WorkerPool.h"

namespace vorlen {

enum class QueuePriority { Background, Utility, Default, UserInitiated };

class Queue : public std::enable_shared_from_this<Queue> {
 public:
  using Work = std::function<void()>;

  // A serial queue. `clock` times after(); null means the system clock. `pool` null means the shared pool.
  static std::shared_ptr<Queue> serial(std::string label, QueuePriority priority = QueuePriority::Default,
                                       std::shared_ptr<Clock> clock = nullptr,
                                       std::shared_ptr<WorkerPool> pool = nullptr);
  static std::shared_ptr<Queue> concurrent(std::string label, QueuePriority priority = QueuePriority::Default,
                                           std::shared_ptr<Clock> clock = nullptr,
                                           std::shared_ptr<WorkerPool> pool = nullptr);
  // The process-wide concurrent queue of a priority (the "global queues").
  static std::shared_ptr<Queue> global(QueuePriority priority = QueuePriority::Default);

  virtual ~Queue() = default;

  virtual void async(Work work) = 0;
  virtual void sync(const Work& work) = 0;
  // Like async(), but a serial queue that is idle (nothing pending, nobody running it) and not current on
  // the calling thread runs `work` right here, before returning, instead of waking a worker for it. For
  // work handed off after the caller's answer has gone out: it saves a thread hand-off per item and never
  // waits for the queue. Concurrent queues always hand the work off.
  virtual void asyncOrRunHere(Work work) { async(std::move(work)); }
  // Blocks the calling thread until `done()` returns true. Meanwhile a serial queue runs its own items on
  // the calling thread (as a sync caller drains a queue that no worker has started), so work that the
  // caller waits for does not wait for a worker to wake first. `done` is checked after every item of the
  // queue, on whatever thread it ran, and must become true through such an item (or before the call).
  // REQUIRES: the caller does not run on this queue.
  virtual void runUntil(const std::function<bool()>& done) = 0;
  // Runs `work` on this queue once `delay` has passed on the queue's clock.
  void after(Duration delay, Work work);

  bool isCurrent() const;
  const std::string& label() const { return label_; }
  QueuePriority priority() const { return priority_; }
  // The clock given at creation; null means after() uses the system clock.
  const std::shared_ptr<Clock>& clock() const { return clock_; }

  // Aborts with a fault naming the queue unless isCurrent(). Use on the first line of queue-bound methods.
  void assertCurrent() const;

 protected:
  Queue(std::string label, QueuePriority priority, std::shared_ptr<Clock> clock);

  // Marks `queue` as current on the calling thread for the scope's lifetime (the thread's stack of current
  // queues is what isCurrent() reads). `alone` hides the queues that were current until the scope ends:
  // items that a sync caller drains for a busy queue are not part of the caller's sync chain.
  class CurrentScope {
   public:
    explicit CurrentScope(const Queue* queue, bool alone = false);
    ~CurrentScope();
    CurrentScope(const CurrentScope&) = delete;
    CurrentScope& operator=(const CurrentScope&) = delete;

   private:
    bool alone_;
    std::vector<const Queue*> hidden_;
  };

  // Logs a fault naming this queue, then aborts.
  [[noreturn]] void fault(std::string_view what) const;

 private:
  std::string label_;
  QueuePriority priority_;
  std::shared_ptr<Clock> clock_;
};

}  // namespace vorlen
