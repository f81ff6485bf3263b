#include "base/SystemClock.h"

#include "base/Queue.h"

namespace vorlen {

// The handle: cancels the work and drops it from the deadline list at once, so that a long timer re-armed
// often does not pile up dead entries. The clock outlives every handle: Clock::system() is never destroyed.
class SystemClock::Call final : public ScheduledCall {
 public:
  Call(SystemClock* clock, Key key, std::shared_ptr<ScheduledWork> work)
      : clock_(clock), key_(key), work_(std::move(work)) {}
  void cancel() override {
    work_->cancel();
    clock_->cancel(key_);
  }

 private:
  SystemClock* clock_;
  Key key_;
  std::shared_ptr<ScheduledWork> work_;
};

SystemClock::SystemClock() : thread_([this] { run(); }) {}

SystemClock::~SystemClock() {
  {
    std::lock_guard lock(mu_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

Time SystemClock::now() const {
  return std::chrono::system_clock::now();
}

std::shared_ptr<ScheduledCall> SystemClock::schedule(Time deadline, std::shared_ptr<Queue> queue,
                                                     std::function<void()> work) {
  auto steadyDeadline =
      std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                             deadline - std::chrono::system_clock::now());
  auto entry = std::make_shared<ScheduledWork>(std::move(queue), std::move(work));
  Key key;
  bool earliest;
  {
    std::lock_guard lock(mu_);
    key = Key(steadyDeadline, nextSeq_++);
    pending_.emplace(key, entry);
    earliest = steadyDeadline < wakeAt_;
  }
  if (earliest) changed_.notify_all();
  return std::make_shared<Call>(this, key, std::move(entry));
}

size_t SystemClock::pendingCount() const {
  std::lock_guard lock(mu_);
  return pending_.size();
}

void SystemClock::cancel(const Key& key) {
  std::shared_ptr<ScheduledWork> removed;  // released outside the lock
  std::lock_guard lock(mu_);
  auto it = pending_.find(key);
  if (it == pending_.end()) return;
  removed = std::move(it->second);
  pending_.erase(it);
}

void SystemClock::run() {
  std::unique_lock lock(mu_);
  while (!stopping_) {
    if (pending_.empty()) {
      wakeAt_ = std::chrono::steady_clock::time_point::max();
      changed_.wait(lock);
      wakeAt_ = std::chrono::steady_clock::time_point::min();
      continue;
    }
    auto deadline = pending_.begin()->first.first;
    if (std::chrono::steady_clock::now() < deadline) {
      wakeAt_ = deadline;
      changed_.wait_until(lock, deadline);
      wakeAt_ = std::chrono::steady_clock::time_point::min();
      continue;  // woken early, by a new earliest deadline, or due now: look again
    }
    std::shared_ptr<ScheduledWork> due = std::move(pending_.begin()->second);
    pending_.erase(pending_.begin());
    lock.unlock();
    std::shared_ptr<Queue> queue;
    if (due->pending(&queue)) {
      if (queue) {
        queue->async([due] { due->run(); });
      } else {
        due->run();
      }
    }
    due.reset();
    queue.reset();
    lock.lock();
  }
}

}  // namespace vorlen
