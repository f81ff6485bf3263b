// ManualClock: virtual time for tests. Time stands still until advance() or set() moves it; every timer
// that falls due is then fired in deadline order (ties in scheduling order) on the advancing thread, via
// queue->sync, so its work is complete when advance() returns. While a timer fires, now() reads its
// deadline, so work that schedules new timers relative to now() gets the times it would get in real life;
// those that fall due within the advanced span fire in the same call. A timer scheduled at or before now()
// fires at the next advance()/set(), advance(0) included.
//
// Threading: safe from any thread, but advance() must not be called from a queue that a due timer targets.
#pragma once

#include <map>
#include <mutex>

#include "base/Clock.h"

namespace vorlen {

class ScheduledWork;

class ManualClock final : public Clock {
 public:
  // Starts at `start` (default: 2026-01-01T00:00:00Z, a fixed instant so tests are repeatable).
  explicit ManualClock(Time start = fromUnixSeconds(1767225600.0));

  Time now() const override;
  std::shared_ptr<ScheduledCall> schedule(Time deadline, std::shared_ptr<Queue> queue,
                                          std::function<void()> work) override;

  void advance(Duration by);
  void set(Time to);  // REQUIRES: to >= now(); an earlier time leaves the clock where it is
  // Timers scheduled and neither fired nor cancelled.
  size_t pendingCountForTesting() const;

 private:
  mutable std::mutex mu_;
  Time now_;
  uint64_t nextSeq_ = 0;
  // Cancelled calls stay listed until their time comes (a handle does not know its clock); they are
  // skipped then and not counted by pendingCountForTesting().
  std::map<std::pair<Time, uint64_t>, std::shared_ptr<ScheduledWork>> pending_;
};

}  // namespace vorlen
