#include "base/Timer.h"

namespace vorlen {

std::shared_ptr<Timer> Timer::create(std::shared_ptr<Clock> clock, std::shared_ptr<Queue> queue,
                                     std::function<void()> handler) {
  return std::shared_ptr<Timer>(new Timer(std::move(clock), std::move(queue), std::move(handler)));
}

Timer::Timer(std::shared_ptr<Clock> clock, std::shared_ptr<Queue> queue, std::function<void()> handler)
    : clock_(clock ? std::move(clock) : Clock::system()),
      queue_(std::move(queue)),
      handler_(std::move(handler)) {}

Timer::~Timer() {
  if (call_) call_->cancel();
}

void Timer::arm(Duration delay) {
  std::shared_ptr<ScheduledCall> previous;
  {
    std::lock_guard lock(mu_);
    uint64_t generation = ++generation_;
    previous = std::move(call_);
    armed_ = true;
    // The scheduled work holds the timer weakly: a timer dropped by its owner never fires.
    call_ = clock_->scheduleAfter(delay, queue_, [weak = weak_from_this(), generation] {
      if (auto timer = weak.lock()) timer->fire(generation);
    });
  }
  if (previous) previous->cancel();
}

void Timer::cancel() {
  std::shared_ptr<ScheduledCall> previous;
  {
    std::lock_guard lock(mu_);
    ++generation_;
    armed_ = false;
    previous = std::move(call_);
  }
  if (previous) previous->cancel();
}

bool Timer::isArmed() const {
  std::lock_guard lock(mu_);
  return armed_;
}

void Timer::fire(uint64_t generation) {
  {
    std::lock_guard lock(mu_);
    if (generation != generation_.load() || !armed_) return;  // re-armed or cancelled since
    armed_ = false;
    call_.reset();
  }
  handler_();
}

}  // namespace vorlen
