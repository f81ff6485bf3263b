#include "base/Clock.h"

#include "base/SystemClock.h"

namespace vorlen {

std::shared_ptr<Clock> Clock::system() {
  // Never destroyed: timers may be scheduled and fire while static objects are torn down at exit.
  static auto* clock = new std::shared_ptr<Clock>(std::make_shared<SystemClock>());
  return *clock;
}

}  // namespace vorlen
