// ConcurrentQueue: the concurrent Queue. Each async item is its own pool job, so items may run in
// parallel and finish in any order; `sync` runs the work inline on the caller's thread (also when the
// caller already runs on this queue). Barrier writes are the user's std::shared_mutex, not the queue's.
//
// Threading: async/sync are safe from any thread. REQUIRES: the queue is owned by a std::shared_ptr.
// Internal header of the queue runtime; create queues with Queue::concurrent() or Queue::global().
#pragma once

#include <condition_variable>
#include <mutex>

#include "base/Queue.h"

namespace vorlen {

class ConcurrentQueue final : public Queue {
 public:
  ConcurrentQueue(std::string label, QueuePriority priority, std::shared_ptr<Clock> clock,
                  std::shared_ptr<WorkerPool> pool);

  void async(Work work) override;
  void sync(const Work& work) override;
  // Waits without running anything itself: items run on the pool and wake the waiter as they finish.
  void runUntil(const std::function<bool()>& done) override;

 private:
  std::shared_ptr<WorkerPool> pool_;
  std::mutex waitMu_;
  std::condition_variable itemRan_;
  int waiters_ = 0;  // guarded by waitMu_
};

}  // namespace vorlen
