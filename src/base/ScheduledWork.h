// ScheduledWork: one call scheduled on a Clock: the work, the queue it runs on, and the once-only choice
// between running it and cancelling it. Clocks keep these in their deadline lists and hand them out as
// the ScheduledCall handle (or wrap them in one).
//
// The choice is made when the work is about to start on its queue, not when the clock posts it, so a
// cancel() that returns before that moment always wins. Once run or cancelled the work and the queue are
// released, which breaks any cycle through the work's captures.
//
// Threading: every method is safe from any thread. Internal header of the clocks.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "base/Clock.h"

namespace vorlen {

class ScheduledWork final : public ScheduledCall {
 public:
  ScheduledWork(std::shared_ptr<Queue> queue, std::function<void()> work);

  // Cancels the call unless it has started; the work's captures die here, on the caller's thread.
  void cancel() override;
  // True until the call has started or been cancelled. `queue` (may be null) receives the target queue.
  bool pending(std::shared_ptr<Queue>* queue = nullptr) const;
  // Runs the work on the calling thread unless it was cancelled or has run already.
  void run();

 private:
  enum class State { Pending, Started, Cancelled };
  mutable std::mutex mu_;
  State state_ = State::Pending;
  std::shared_ptr<Queue> queue_;
  std::function<void()> work_;
};

}  // namespace vorlen
