// Clock: the one source of time for every component, and the scheduler of timers.
//
// Components never read std::chrono clocks directly; they take the Assembly's Clock so that tests can
// run 900-second and 4-hour rules in microseconds with a ManualClock.
//
// Time is wall-clock time (`Time`, std::chrono::system_clock). The system clock schedules against the
// steady clock internally so that a wall-clock jump does not fire or stall timers.
//
// Threading: every method is safe from any thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace vorlen {

class Queue;

using Time = std::chrono::system_clock::time_point;
using Duration = std::chrono::nanoseconds;

// Seconds as a double, the unit most rules are written in.
inline Duration seconds(double s) {
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(s));
}
inline double toSeconds(Duration d) {
  return std::chrono::duration<double>(d).count();
}
// Seconds since 1970-01-01 as a double, and back.
inline double toUnixSeconds(Time t) {
  return std::chrono::duration<double>(t.time_since_epoch()).count();
}
inline Time fromUnixSeconds(double s) {
  return Time(std::chrono::duration_cast<Time::duration>(std::chrono::duration<double>(s)));
}

// A scheduled call; cancel() guarantees the call has not started after it returns, unless it was already
// running (then it finishes). Dropping the handle does not cancel.
class ScheduledCall {
 public:
  virtual ~ScheduledCall() = default;
  virtual void cancel() = 0;
};

class Clock {
 public:
  virtual ~Clock() = default;

  virtual Time now() const = 0;

  // Runs `work` on `queue` once now() >= deadline. The system clock posts it with queue->async; the
  // manual clock runs it with queue->sync from the thread that advances time, so the work has finished
  // when advance() returns. A null queue runs the work on the firing thread.
  virtual std::shared_ptr<ScheduledCall> schedule(Time deadline, std::shared_ptr<Queue> queue,
                                                  std::function<void()> work) = 0;

  std::shared_ptr<ScheduledCall> scheduleAfter(Duration delay, std::shared_ptr<Queue> queue,
                                               std::function<void()> work) {
    return schedule(now() + delay, std::move(queue), std::move(work));
  }

  // The process-wide real clock.
  static std::shared_ptr<Clock> system();
};

}  // namespace vorlen
