#include "base/SerialQueue.h"

namespace vorlen {

SerialQueue::SerialQueue(std::string label, QueuePriority priority, std::shared_ptr<Clock> clock,
                         std::shared_ptr<WorkerPool> pool)
    : Queue(std::move(label), priority, std::move(clock)), pool_(std::move(pool)) {}

void SerialQueue::async(Work work) {
  std::lock_guard lock(mu_);
  items_.push_back(Item{std::move(work), nullptr});
  if (state_ == State::Idle) scheduleLocked();
}

void SerialQueue::asyncOrRunHere(Work work) {
  if (!isCurrent()) {
    std::unique_lock lock(mu_);
    if (state_ == State::Idle) {
      state_ = State::Owned;
      lock.unlock();
      runOwned(work);
      return;
    }
  }
  async(std::move(work));
}

void SerialQueue::sync(const Work& work) {
  if (isCurrent()) fault("sync onto the queue that is already running on this thread would deadlock");
  {
    std::unique_lock lock(mu_);
    if (state_ == State::Idle) {
      state_ = State::Owned;
    } else {
      Waiter me;
      items_.push_back(Item{nullptr, &me});
      while (!me.granted) {
        if (state_ == State::Scheduled) {
          // The drain job is still in the pool; run the earlier items here rather than wait for a worker.
          state_ = State::Draining;
          ++ticket_;
          drainLocked(lock, &me);
        } else {
          changed_.wait(lock);
        }
      }
    }
  }
  runOwned(work);
}

void SerialQueue::runOwned(const Work& work) {
  // Let go of the queue even if the work throws.
  struct Release {
    SerialQueue* q;
    ~Release() {
      std::lock_guard lock(q->mu_);
      q->releaseLocked();
    }
  } release{this};
  CurrentScope scope(this);
  work();
}

void SerialQueue::runUntil(const std::function<bool()>& done) {
  if (isCurrent()) fault("runUntil on the queue that is already running on this thread would deadlock");
  std::unique_lock lock(mu_);
  ++helpers_;
  while (!done()) {
    if (state_ == State::Scheduled) {
      state_ = State::Draining;
      ++ticket_;  // a drain job already in the pool returns at once
      drainLocked(lock, nullptr);
    } else {
      changed_.wait(lock);
    }
  }
  --helpers_;
  // Items that were left for this helper, and that it did not wait for, go to the pool after all.
  if (state_ == State::Scheduled && helpers_ == 0) scheduleLocked();
}

size_t SerialQueue::pendingCountForTesting() const {
  std::lock_guard lock(mu_);
  return items_.size();
}

void SerialQueue::releaseLocked() {
  if (!items_.empty() && items_.front().waiter) {
    items_.front().waiter->granted = true;
    items_.pop_front();
    state_ = State::Owned;
    changed_.notify_all();
    return;
  }
  if (items_.empty()) {
    state_ = State::Idle;
    if (helpers_ > 0) changed_.notify_all();  // the sync work may have met a helper's condition
    return;
  }
  scheduleLocked();
}

void SerialQueue::scheduleLocked() {
  state_ = State::Scheduled;
  uint64_t ticket = ++ticket_;
  // A helper waiting in runUntil() drains the queue itself; otherwise a worker does. The job keeps the
  // queue alive until it has run.
  if (helpers_ == 0) {
    pool_->submit([self = std::static_pointer_cast<SerialQueue>(shared_from_this()), ticket] {
      self->drainJob(ticket);
    });
  }
  changed_.notify_all();  // a waiting sync caller or helper may take the queue before any job starts
}

void SerialQueue::drainJob(uint64_t ticket) {
  std::unique_lock lock(mu_);
  if (state_ != State::Scheduled || ticket != ticket_) return;  // a sync caller drained it already
  state_ = State::Draining;
  drainLocked(lock, nullptr);
}

void SerialQueue::drainLocked(std::unique_lock<std::mutex>& lock, Waiter* mine) noexcept {
  // A sync caller draining earlier items runs them as a worker would: its own chain is not current.
  CurrentScope scope(this, /*alone=*/true);
  for (int ran = 0;; ++ran) {
    if (items_.empty()) {
      state_ = State::Idle;
      return;
    }
    if (items_.front().waiter) {
      Waiter* next = items_.front().waiter;
      items_.pop_front();
      next->granted = true;
      state_ = State::Owned;
      if (next != mine) changed_.notify_all();
      return;
    }
    if (!mine && ran == kDrainBatch) {
      scheduleLocked();
      return;
    }
    Work work = std::move(items_.front().work);
    items_.pop_front();
    lock.unlock();
    work();
    work = nullptr;  // captures die outside the lock
    lock.lock();
    if (helpers_ > 0) changed_.notify_all();  // the item may have met a helper's condition
  }
}

}  // namespace vorlen
