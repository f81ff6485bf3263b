// VorlenIPCActivity: the service's only calls into the background activity scheduler, each a direct
// pass-through (states and accepted transitions: platform/BackgroundActivityScheduler.h).
//
// Threading: as the scheduler: safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/BackgroundActivityScheduler.h"

namespace vorlen {

class VorlenIPCActivity {
 public:
  // Without criteria the activity only checks in: its handler is called in state check-in.
  static void registerActivityWithIdentifier(BackgroundActivityScheduler& scheduler, const char* identifier,
                                             std::optional<Value::Dict> criteria, ActivityHandler handler) {
    scheduler.registerActivity(identifier, std::move(criteria), std::move(handler));
  }
  static void unregister(BackgroundActivityScheduler& scheduler, const char* identifier) {
    scheduler.unregisterActivity(identifier);
  }
  static bool setCriteria(BackgroundActivityScheduler& scheduler, const Value::Dict& criteria,
                          const std::shared_ptr<BackgroundActivity>& activity) {
    return scheduler.setCriteria(activity, criteria);
  }
  // Whether the scheduler accepted the transition.
  static bool setState(BackgroundActivityScheduler& scheduler, int64_t state,
                       const std::shared_ptr<BackgroundActivity>& activity) {
    return scheduler.setState(activity, state);
  }
  static int64_t getStateForActivity(BackgroundActivityScheduler& scheduler,
                                     const std::shared_ptr<BackgroundActivity>& activity) {
    return scheduler.getState(activity);
  }
  static bool shouldDefer(BackgroundActivityScheduler& scheduler,
                          const std::shared_ptr<BackgroundActivity>& activity) {
    return scheduler.shouldDefer(activity);
  }
};

}  // namespace vorlen
