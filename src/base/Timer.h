// Timer: a one-shot, re-armable timer that runs its handler on a queue.
//
// Every arm() and cancel() bumps a generation counter; a firing whose generation is not the current one
// does nothing, so re-arming or cancelling always wins over a firing already on its way (even one the
// clock could no longer stop). The handler is held by the timer; use Timer::weak() to hold the owner
// weakly so that a timer outliving its owner is a no-op. The scheduled firing holds the timer itself
// weakly: dropping the last reference to a timer disarms it.
//
// A null clock means the system clock; a null queue runs the handler on the clock's firing thread.
//
// Threading: arm/cancel/isArmed are safe from any thread, also from the handler. The handler runs on the
// timer's queue.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <type_traits>

#include "base/Clock.h"
#include "base/Queue.h"

namespace vorlen {

class Timer : public std::enable_shared_from_this<Timer> {
 public:
  static std::shared_ptr<Timer> create(std::shared_ptr<Clock> clock, std::shared_ptr<Queue> queue,
                                       std::function<void()> handler);

  // A timer whose handler receives the owner, and does nothing once the owner is gone.
  template <class Owner>
  static std::shared_ptr<Timer> weak(std::shared_ptr<Clock> clock, std::shared_ptr<Queue> queue,
                                     const std::shared_ptr<Owner>& owner,
                                     std::type_identity_t<std::function<void(Owner&)>> handler) {
    std::weak_ptr<Owner> w = owner;
    return create(std::move(clock), std::move(queue), [w, h = std::move(handler)] {
      if (auto o = w.lock()) h(*o);
    });
  }

  // Fires once `delay` from now, replacing any earlier arming.
  void arm(Duration delay);
  // Disarms; a handler already running finishes.
  void cancel();
  bool isArmed() const;
  uint64_t generation() const { return generation_.load(); }

  ~Timer();

 private:
  Timer(std::shared_ptr<Clock> clock, std::shared_ptr<Queue> queue, std::function<void()> handler);
  void fire(uint64_t generation);

  std::shared_ptr<Clock> clock_;
  std::shared_ptr<Queue> queue_;
  std::function<void()> handler_;
  std::atomic<uint64_t> generation_{0};
  mutable std::mutex mu_;
  std::shared_ptr<ScheduledCall> call_;  // guarded by mu_, like armed_
  bool armed_ = false;
};

}  // namespace vorlen
