// BackgroundActivityScheduler: the platform service that grants background work periods. A component
// registers an activity under an identifier with a criteria dictionary (when it is due, whether it
// repeats, what the device must be doing) and a handler; the scheduler calls the handler with the activity
// when a period is granted, and the handler reports through setState() how the work goes on.
//
// Criteria keys (a Value::Dict; absent keys take the defaults in brackets):
//   kActivityDelay              integer seconds before the first run [0]
//   kActivityRepeating          bool [false]
//   kActivityInterval           integer seconds between the due times of a repeating activity [0]
//   kActivityGracePeriod        integer seconds a due run may wait for its device conditions; when they
//                               still do not hold after it, a repeating activity skips to its next due
//                               time [none: wait for as long as it takes]
//   kActivityAllowBattery       bool: may run while the device runs on battery [false]
//   kActivityPriority           string kActivityPriorityMaintenance or kActivityPriorityUtility [utility]
//   kActivityRequireScreenSleep bool: runs only while the screen is asleep (the session is idle) [false]
//   kActivityRequiresClassC     bool: runs only once the device was unlocked since boot [false]
//
// States (the numbers are part of the contract):
//   0 check-in   the handler runs for a check-in-only registration; it may give criteria (setCriteria)
//   1 wait       scheduled, not running
//   2 run        the handler runs a granted period
//   3 defer      the work stopped early and waits for the next period its conditions allow
//   4 continue   the work goes on after the handler returned
//   5 done       the period is over; a repeating activity waits for its next due time
//
// Accepted transitions through setState() (anything else returns false and changes nothing):
//   run (2)      -> continue (4), defer (3), done (5)
//   continue (4) -> defer (3), done (5)
// A handler that returns in state run ends the period as done. Only the registration an activity handle
// came from may be changed through it: a handle of an unregistered or re-registered activity is refused.
//
// Threading: every method is safe from any thread. Handlers run on the scheduler's own serial queue, one
// at a time; they should only decide and queue work elsewhere. setState() and getState() never wait on
// that queue, so a handler may call them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/Value.h"

namespace vorlen {

inline constexpr const char* kActivityDelay = "Delay";
inline constexpr const char* kActivityRepeating = "Repeating";
inline constexpr const char* kActivityInterval = "Interval";
inline constexpr const char* kActivityGracePeriod = "GracePeriod";
inline constexpr const char* kActivityAllowBattery = "AllowBattery";
inline constexpr const char* kActivityPriority = "Priority";
inline constexpr const char* kActivityRequireScreenSleep = "RequireScreenSleep";
inline constexpr const char* kActivityRequiresClassC = "RequiresClassC";
inline constexpr const char* kActivityPriorityMaintenance = "Maintenance";
inline constexpr const char* kActivityPriorityUtility = "Utility";

enum ActivityState : int64_t {
  kActivityStateCheckIn = 0,
  kActivityStateWait = 1,
  kActivityStateRun = 2,
  kActivityStateDefer = 3,
  kActivityStateContinue = 4,
  kActivityStateDone = 5,
};

// One registration as its handler sees it. Opaque: pass it back to the scheduler.
class BackgroundActivity {
 public:
  virtual ~BackgroundActivity() = default;
  virtual const std::string& identifier() const = 0;
};

using ActivityHandler = std::function<void(const std::shared_ptr<BackgroundActivity>& activity)>;

class BackgroundActivityScheduler {
 public:
  virtual ~BackgroundActivityScheduler() = default;

  // Registers (or replaces) the activity `identifier`. With criteria, the first run is scheduled from
  // them. Without (check-in only), the handler is called once in state check-in and the activity waits
  // until the handler gives it criteria.
  virtual void registerActivity(const std::string& identifier, std::optional<Value::Dict> criteria,
                                ActivityHandler handler) = 0;
  // Forgets the activity; a run in progress finishes, but its later state changes are refused.
  virtual void unregisterActivity(const std::string& identifier) = 0;
  // Gives a checked-in activity its criteria and schedules it. False for a stale handle.
  virtual bool setCriteria(const std::shared_ptr<BackgroundActivity>& activity,
                           const Value::Dict& criteria) = 0;
  // Moves the activity to `state`; false when the transition is not accepted (table above).
  virtual bool setState(const std::shared_ptr<BackgroundActivity>& activity, int64_t state) = 0;
  virtual int64_t getState(const std::shared_ptr<BackgroundActivity>& activity) = 0;
  // Whether the running activity is asked to stop early (its device conditions stopped holding).
  virtual bool shouldDefer(const std::shared_ptr<BackgroundActivity>& activity) = 0;
};

}  // namespace vorlen
