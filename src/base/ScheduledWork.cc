#include "base/ScheduledWork.h"

#include "base/Queue.h"

namespace vorlen {

ScheduledWork::ScheduledWork(std::shared_ptr<Queue> queue, std::function<void()> work)
    : queue_(std::move(queue)), work_(std::move(work)) {}

void ScheduledWork::cancel() {
  std::shared_ptr<Queue> queue;
  std::function<void()> work;
  {
    std::lock_guard lock(mu_);
    if (state_ != State::Pending) return;
    state_ = State::Cancelled;
    queue = std::move(queue_);
    work = std::move(work_);
  }
}

bool ScheduledWork::pending(std::shared_ptr<Queue>* queue) const {
  std::lock_guard lock(mu_);
  if (queue) *queue = queue_;
  return state_ == State::Pending;
}

void ScheduledWork::run() {
  std::shared_ptr<Queue> queue;
  std::function<void()> work;
  {
    std::lock_guard lock(mu_);
    if (state_ != State::Pending) return;
    state_ = State::Started;
    queue = std::move(queue_);
    work = std::move(work_);
  }
  work();
}

}  // namespace vorlen
