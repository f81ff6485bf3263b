#include "storage/VorlenPeriodicTask.h"

#include <algorithm>

#include <fmt/format.h>

#include "platform/BackgroundActivityScheduler.h"
#include "storage/VorlenIPCCriteria.h"

namespace vorlen {

std::shared_ptr<VorlenPeriodicTask> VorlenPeriodicTask::taskWithName(std::string name, uint64_t periodSeconds,
                                                                     std::function<void()> handler) {
  if (name.empty() || !handler) return nullptr;
  return std::shared_ptr<VorlenPeriodicTask>(
      new VorlenPeriodicTask(std::move(name), periodSeconds, std::move(handler)));
}

VorlenPeriodicTask::VorlenPeriodicTask(std::string name, uint64_t periodSeconds,
                                       std::function<void()> handler)
    : name_(std::move(name)),
      periodSeconds_(std::max(periodSeconds, kMinimumPeriodSeconds)),
      handler_(std::move(handler)),
      queue_(Queue::serial("com.velmo._VorlenPeriodicTasks.defaultQueue", QueuePriority::Utility)) {
  executionCriteria_ = VorlenIPCCriteria::createCriteria();
  VorlenIPCCriteria::setInterval(static_cast<int64_t>(std::min<uint64_t>(periodSeconds_, INT64_MAX)),
                                 executionCriteria_);
  VorlenIPCCriteria::setRepeating(true, executionCriteria_);
  executionCriteria_.insert_or_assign(kActivityPriority, Value(kActivityPriorityMaintenance));
  executionCriteria_.insert_or_assign(kActivityRequireScreenSleep, Value(true));
  executionCriteria_.insert_or_assign(kActivityRequiresClassC, Value(true));
}

std::string VorlenPeriodicTask::description() const {
  return fmt::format("<VorlenPeriodicTask name={}, period={}s>", name_, periodSeconds_);
}

}  // namespace vorlen
