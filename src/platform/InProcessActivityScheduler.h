// InProcessActivityScheduler: the background activity scheduler realised inside the daemon, on the
// Assembly's clock (a ManualClock drives it in tests). It honours the criteria and states of
// BackgroundActivityScheduler.h as follows:
//
//   - The first run is due `delay` after registration (or after setCriteria for a checked-in activity);
//     without a delay a repeating activity is first due one interval later, any other at once.
//   - A repeating activity is next due at the first multiple of its interval after its previous due time
//     that lies in the future once its period is done (a period that outlasts the interval skips the runs
//     it covered; they are never queued up). Intervals under 1 s count as 1 s.
//   - At its due time a run starts when its device conditions hold: not on battery unless allowed, the
//     screen asleep when required. Otherwise they are checked again every kConditionRecheckSeconds; with
//     a grace period, a repeating activity whose conditions still fail when it has passed skips to its
//     next due time. "Unlocked since boot" always holds here: this platform has no data that stays
//     locked until the first unlock.
//   - A probe that cannot read its source counts as met; empty probes are always met.
//   - `timeScale` (default 1) divides every span above: 60 makes a 300 s delay one of 5 s. The daemon takes
//     it from VORLEND_ACTIVITY_TIMESCALE, for tests of the real program and for watching a drain without
//     waiting minutes.
//
// Threading: as BackgroundActivityScheduler. Handlers run on the serial queue
// "com.velmo.vorlend.activityscheduler". The probes are called on that queue, outside any lock.
#pragma once

#include <functional>
#include <map>
#include <mutex>

#include "base/Clock.h"
#include "base/Queue.h"
#include "platform/BackgroundActivityScheduler.h"

namespace vorlen {

class InProcessActivityScheduler final : public BackgroundActivityScheduler,
                                         public std::enable_shared_from_this<InProcessActivityScheduler> {
 public:
  // Device conditions; an empty function is always met.
  struct Probes {
    std::function<bool()> onBattery;     // true while the device runs on battery
    std::function<bool()> screenAsleep;  // true while the user's session is idle
  };

  static constexpr double kConditionRecheckSeconds = 60;

  static std::shared_ptr<InProcessActivityScheduler> create(std::shared_ptr<Clock> clock, Probes probes = {},
                                                            double timeScale = 1.0);

  void registerActivity(const std::string& identifier, std::optional<Value::Dict> criteria,
                        ActivityHandler handler) override;
  void unregisterActivity(const std::string& identifier) override;
  bool setCriteria(const std::shared_ptr<BackgroundActivity>& activity, const Value::Dict& criteria) override;
  bool setState(const std::shared_ptr<BackgroundActivity>& activity, int64_t state) override;
  int64_t getState(const std::shared_ptr<BackgroundActivity>& activity) override;
  bool shouldDefer(const std::shared_ptr<BackgroundActivity>& activity) override;

  const std::shared_ptr<Queue>& queue() const { return queue_; }

 private:
  struct Registration;

  InProcessActivityScheduler(std::shared_ptr<Clock> clock, Probes probes, double timeScale);
  // `seconds` of the criteria as time on the clock.
  Duration _span(double seconds) const;
  // The registration behind a handle when it is still the current one. REQUIRES: mu_ held.
  std::shared_ptr<Registration> _current(const std::shared_ptr<BackgroundActivity>& activity) const;
  // Arms the registration's one call at `when`. REQUIRES: mu_ held.
  void _scheduleAt(const std::shared_ptr<Registration>& reg, Time when);
  // Schedules the first run after criteria were given. REQUIRES: mu_ held.
  void _scheduleFirst(const std::shared_ptr<Registration>& reg);
  // The period is over: a repeating activity waits for its next due time. REQUIRES: mu_ held.
  void _finish(const std::shared_ptr<Registration>& reg);
  // The due time has come. REQUIRES: on queue_.
  void _due(const std::shared_ptr<Registration>& reg);
  bool _conditionsMet(const Value::Dict& criteria) const;

  const std::shared_ptr<Clock> clock_;
  const Probes probes_;
  const double timeScale_;
  const std::shared_ptr<Queue> queue_;
  mutable std::mutex mu_;
  std::map<std::string, std::shared_ptr<Registration>> activities_;  // guarded by mu_
};

}  // namespace vorlen
