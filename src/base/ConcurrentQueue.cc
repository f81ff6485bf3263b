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
  });
}

void ConcurrentQueue::sync(const Work& work) {
  CurrentScope scope(this);
  work();
}

}  // namespace vorlen
