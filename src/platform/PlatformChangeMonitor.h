// PlatformChangeMonitor: runs the change checks of the Linux platform adapters (locale, geo configuration,
// installed applications, subscriptions, media store,
// location, restrictions) every kInterval on its own queue, so that an edit of the preferences behind them
// is announced without a signal. checkNow() runs them at once (the daemon's SIGHUP handler calls it).
//
// The checks themselves only stat the preferences file unless it changed, so a round costs a few system
// calls.
//
// Threading: start(), stop() and checkNow() are safe from any thread; checks run on the serial queue
// "com.velmo.vorlend.platformchanges", never two at a time.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "base/Clock.h"
#include "base/Queue.h"
#include "base/Timer.h"

namespace vorlen {

class PlatformChangeMonitor : public std::enable_shared_from_this<PlatformChangeMonitor> {
 public:
  static constexpr Duration kInterval = std::chrono::seconds(5);

  static std::shared_ptr<PlatformChangeMonitor> create(std::shared_ptr<Clock> clock,
                                                       std::vector<std::function<void()>> checks);

  // Arms the periodic check; idempotent.
  void start();
  void stop();
  // Queues one round of checks now.
  void checkNow();

 private:
  PlatformChangeMonitor(std::shared_ptr<Clock> clock, std::vector<std::function<void()>> checks);
  void _round();

  std::shared_ptr<Clock> clock_;
  std::vector<std::function<void()>> checks_;
  std::shared_ptr<Queue> queue_;
  std::shared_ptr<Timer> timer_;
};

}  // namespace vorlen
