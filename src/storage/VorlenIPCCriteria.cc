#include "storage/VorlenIPCCriteria.h"

#include "platform/BackgroundActivityScheduler.h"

namespace vorlen {

void VorlenIPCCriteria::setRepeating(bool repeating, Value::Dict& criteria) {
  criteria.insert_or_assign(kActivityRepeating, Value(repeating));
}
void VorlenIPCCriteria::setDelay(int64_t seconds, Value::Dict& criteria) {
  criteria.insert_or_assign(kActivityDelay, Value(static_cast<long long>(seconds)));
}
void VorlenIPCCriteria::setGracePeriod(int64_t seconds, Value::Dict& criteria) {
  criteria.insert_or_assign(kActivityGracePeriod, Value(static_cast<long long>(seconds)));
}
void VorlenIPCCriteria::setInterval(int64_t seconds, Value::Dict& criteria) {
  criteria.insert_or_assign(kActivityInterval, Value(static_cast<long long>(seconds)));
}
void VorlenIPCCriteria::setAllowBatteryUsage(bool allow, Value::Dict& criteria) {
  criteria.insert_or_assign(kActivityAllowBattery, Value(allow));
}

}  // namespace vorlen
