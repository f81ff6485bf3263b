// SystemClock: the real Clock behind Clock::system(). now() is the wall clock; timers run on one timer
// thread that sleeps on std::chrono::steady_clock until the earliest deadline and then posts the work with
// queue->async (null queue: runs it on the timer thread, so such work must be short).
//
// A wall-clock deadline is turned into a steady one when it is scheduled, with the offset between the two
// clocks at that moment; a later jump of the wall clock neither fires nor stalls a scheduled call.
//
// Threading: every method is safe from any thread. Internal header of the queue runtime; the one instance
// lives for the whole process.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "base/Clock.h"
#include "base/ScheduledWork.h"

namespace vorlen {

class SystemClock final : public Clock {
 public:
  SystemClock();            // starts the timer thread
  ~SystemClock() override;  // drops pending calls and joins the timer thread

  Time now() const override;
  std::shared_ptr<ScheduledCall> schedule(Time deadline, std::shared_ptr<Queue> queue,
                                          std::function<void()> work) override;

  size_t pendingCount() const;

 private:
  class Call;
  using Key = std::pair<std::chrono::steady_clock::time_point, uint64_t>;

  void run();
  void cancel(const Key& key);

  mutable std::mutex mu_;
  std::condition_variable changed_;  // a new earliest deadline, or stop
  uint64_t nextSeq_ = 0;
  std::map<Key, std::shared_ptr<ScheduledWork>> pending_;
  bool stopping_ = false;
  // While the timer thread sleeps: the time it wakes by itself (max() without a deadline); min() while it
  // runs. A new deadline wakes it only when earlier than this, so a long time-out re-armed per call (and
  // cancelled before it is due) costs the timer thread no wake-up.
  std::chrono::steady_clock::time_point wakeAt_ = std::chrono::steady_clock::time_point::min();
  std::thread thread_;  // last member: starts once everything above exists
};

}  // namespace vorlen
