// VorlenIPCCriteria: builds the criteria dictionaries of background activities, so that no other part of
// the service spells the scheduler's keys (platform/BackgroundActivityScheduler.h).
//
// Threading: class operations on values the caller owns; safe from any thread.
#pragma once

#include <cstdint>

#include "base/Value.h"

namespace vorlen {

class VorlenIPCCriteria {
 public:
  static Value::Dict createCriteria() { return {}; }
  static void setRepeating(bool repeating, Value::Dict& criteria);
  static void setDelay(int64_t seconds, Value::Dict& criteria);
  static void setGracePeriod(int64_t seconds, Value::Dict& criteria);
  static void setInterval(int64_t seconds, Value::Dict& criteria);
  static void setAllowBatteryUsage(bool allow, Value::Dict& criteria);
};

}  // namespace vorlen
