// VorlenNetEventFeedback and its two kinds: named network measurements (a duration, a statistics object)
// that travel beside feedback events in memory. They are not feedback events: they have no event type,
// no JSON form and are never stored.
//
// Threading: plain values.
#pragma once

#include <string>

#include "base/Value.h"

namespace vorlen {

struct VorlenNetEventFeedback {
  std::string name;
};

struct VorlenNetEventTimingFeedback : VorlenNetEventFeedback {
  double value = 0.0;
};

struct VorlenNetEventStatsFeedback : VorlenNetEventFeedback {
  Value stats;
};

}  // namespace vorlen
