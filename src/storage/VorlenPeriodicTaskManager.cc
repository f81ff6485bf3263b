#include "storage/VorlenPeriodicTaskManager.h"

#include "base/Log.h"
#include "base/Transaction.h"
#include "platform/Assembly.h"
#include "platform/CpuUsageMonitor.h"
#include "storage/VorlenIPCActivity.h"

namespace vorlen {

std::shared_ptr<VorlenPeriodicTaskManager> VorlenPeriodicTaskManager::sharedInstance(
    const Assembly& assembly) {
  static std::shared_ptr<VorlenPeriodicTaskManager> instance = create(assembly.platform.activityScheduler);
  return instance;
}

std::shared_ptr<VorlenPeriodicTaskManager> VorlenPeriodicTaskManager::create(
    std::shared_ptr<BackgroundActivityScheduler> scheduler) {
  return std::shared_ptr<VorlenPeriodicTaskManager>(new VorlenPeriodicTaskManager(std::move(scheduler)));
}

VorlenPeriodicTaskManager::VorlenPeriodicTaskManager(std::shared_ptr<BackgroundActivityScheduler> scheduler)
    : scheduler_(std::move(scheduler)) {}

void VorlenPeriodicTaskManager::registerTask(const std::shared_ptr<VorlenPeriodicTask>& task) {
  if (!task) return;
  {
    std::lock_guard lock(mu_);
    allTasks_.insert_or_assign(task->name(), task);
  }
  VorlenDefaultLog().notice("Registered CTS task {}", task->description());
  if (!scheduler_) return;
  std::weak_ptr<VorlenPeriodicTaskManager> weak = weak_from_this();
  VorlenIPCActivity::registerActivityWithIdentifier(
      *scheduler_, task->name().c_str(), std::nullopt,
      [weak, task](const std::shared_ptr<BackgroundActivity>& activity) {
        if (auto self = weak.lock()) self->_handle(task, activity);
      });
}

void VorlenPeriodicTaskManager::unregisterTask(const std::shared_ptr<VorlenPeriodicTask>& task) {
  if (!task) return;
  {
    std::lock_guard lock(mu_);
    allTasks_.erase(task->name());
  }
  if (scheduler_) VorlenIPCActivity::unregister(*scheduler_, task->name().c_str());
}

std::map<std::string, std::shared_ptr<VorlenPeriodicTask>> VorlenPeriodicTaskManager::allTasks() const {
  std::lock_guard lock(mu_);
  return allTasks_;
}

void VorlenPeriodicTaskManager::_handle(const std::shared_ptr<VorlenPeriodicTask>& task,
                                        const std::shared_ptr<BackgroundActivity>& activity) {
  const int64_t state = VorlenIPCActivity::getStateForActivity(*scheduler_, activity);
  if (state == kActivityStateCheckIn) {
    VorlenDefaultLog().notice("Checking-in activity {}", task->name());
    VorlenIPCActivity::setCriteria(*scheduler_, task->executionCriteria(), activity);
    return;
  }
  if (state != kActivityStateRun) return;
  const bool extended = VorlenIPCActivity::setState(*scheduler_, kActivityStateContinue, activity);
  VorlenDefaultLog().notice("Running activity {}, extended={}", task->name(), extended ? 1 : 0);
  std::shared_ptr<BackgroundActivityScheduler> scheduler = scheduler_;
  task->queue()->async([scheduler, task, activity, extended] {
    CpuUsageMonitor::setLimit(95, 15);
    {
      Transaction transaction(task->name());
      task->handler()();
    }
    CpuUsageMonitor::restoreDefaults();
    // Without the extension the scheduler already ended the period when the handler above returned.
    if (extended) {
      VorlenIPCActivity::setState(*scheduler, kActivityStateDone, activity);
      VorlenDefaultLog().notice("Done running activity {}, extended={}", task->name(), 1);
    }
  });
}

}  // namespace vorlen
