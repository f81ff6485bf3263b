#include "base/ManualClock.h"

#include <algorithm>

#include "base/Queue.h"
#include "base/ScheduledWork.h"

namespace vorlen {

ManualClock::ManualClock(Time start) : now_(start) {}

Time ManualClock::now() const {
  std::lock_guard lock(mu_);
  return now_;
}

std::shared_ptr<ScheduledCall> ManualClock::schedule(Time deadline, std::shared_ptr<Queue> queue,
                                                     std::function<void()> work) {
  auto entry = std::make_shared<ScheduledWork>(std::move(queue), std::move(work));
  std::lock_guard lock(mu_);
  pending_.emplace(std::make_pair(deadline, nextSeq_++), entry);
  return entry;
}

void ManualClock::advance(Duration by) {
  Time target;
  {
    std::lock_guard lock(mu_);
    target = now_ + by;
  }
  set(target);
}

void ManualClock::set(Time to) {
  std::unique_lock lock(mu_);
  for (;;) {
    if (pending_.empty() || pending_.begin()->first.first > to) break;
    auto first = pending_.begin();
    now_ = std::max(now_, first->first.first);
    std::shared_ptr<ScheduledWork> due = std::move(first->second);
    pending_.erase(first);
    lock.unlock();
    std::shared_ptr<Queue> queue;
    if (due->pending(&queue)) {
      if (queue) {
        queue->sync([&] { due->run(); });
      } else {
        due->run();
      }
    }
    due.reset();
    queue.reset();
    lock.lock();
  }
  now_ = std::max(now_, to);
}

size_t ManualClock::pendingCountForTesting() const {
  std::lock_guard lock(mu_);
  return static_cast<size_t>(
      std::count_if(pending_.begin(), pending_.end(), [](const auto& e) { return e.second->pending(); }));
}

}  // namespace vorlen
