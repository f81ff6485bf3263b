// VorlenPeriodicTaskManager: registers periodic tasks with the background activity scheduler. Each task's
// activity checks in without criteria and is given the task's criteria at check-in; each granted period
// asks to continue, runs the task's handler on the task's queue under a keep-alive transaction and a raised
// CPU allowance (95% over 15 s), and marks the period done afterwards when the scheduler let it continue.
// A task registered under a name already taken replaces the earlier one.
//
// Log lines (default log): "Registered CTS task %@", "Checking-in activity %@", "Running activity %@,
// extended=%d", "Done running activity %@, extended=%d".
//
// Threading: every method is safe from any thread; the task map is guarded by a mutex. Scheduler handlers
// only decide and queue; the task handler runs on the task's queue.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/BackgroundActivityScheduler.h"
#include "storage/VorlenPeriodicTask.h"

namespace vorlen {

class Assembly;

class VorlenPeriodicTaskManager : public std::enable_shared_from_this<VorlenPeriodicTaskManager> {
 public:
  // The process-wide manager, made on first use with that Assembly's scheduler.
  static std::shared_ptr<VorlenPeriodicTaskManager> sharedInstance(const Assembly& assembly);
  // A manager of its own over `scheduler` (tests).
  static std::shared_ptr<VorlenPeriodicTaskManager> create(
      std::shared_ptr<BackgroundActivityScheduler> scheduler);

  void registerTask(const std::shared_ptr<VorlenPeriodicTask>& task);
  void unregisterTask(const std::shared_ptr<VorlenPeriodicTask>& task);
  std::map<std::string, std::shared_ptr<VorlenPeriodicTask>> allTasks() const;

 private:
  explicit VorlenPeriodicTaskManager(std::shared_ptr<BackgroundActivityScheduler> scheduler);
  void _handle(const std::shared_ptr<VorlenPeriodicTask>& task,
               const std::shared_ptr<BackgroundActivity>& activity);

  const std::shared_ptr<BackgroundActivityScheduler> scheduler_;
  mutable std::mutex mu_;
  std::map<std::string, std::shared_ptr<VorlenPeriodicTask>> allTasks_;  // guarded by mu_
};

}  // namespace vorlen
