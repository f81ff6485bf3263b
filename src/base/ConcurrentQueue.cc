#include "base/ConcurrentQueue.h"

namespace vorlen {

ConcurrentQueue::ConcurrentQueue(std::string label, QueuePriority priority, std::shared_ptr<Clock> clock,
                                 std::shared_ptr<WorkerPool> pool)
    : Queue(std::move(label), priority, std::move(clock)), pool_(std::move(pool)) {}

void ConcurrentQueue::async(Work work) {
  pool_->submit([self = shared_from_this(), work = std::move(work)]() mutable {
    {
      CurrentScope scope(self.get());
      work();
    }
    work = nullptr;  // captures die while the queue is still alive
    auto* queue = static_cast<ConcurrentQueue*>(self.get());
    std::lock_guard lock(queue->waitMu_);
    if (queue->waiters_ > 0) queue->itemRan_.notify_all();
  });
}

void ConcurrentQueue::runUntil(const std::function<bool()>& done) {
  if (isCurrent()) fault("runUntil on the queue that is already running on this thread would deadlock");
  std::unique_lock lock(waitMu_);
  ++waiters_;
  itemRan_.wait(lock, done);
  --waiters_;
}

void ConcurrentQueue::sync(const Work& work) {
  CurrentScope scope(this);
  work();
}

}  // namespace vorlen
