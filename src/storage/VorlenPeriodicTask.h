// VorlenPeriodicTask: a named maintenance task run at a fixed period, only while the screen is asleep and
// after the first unlock, at maintenance priority. Immutable once made; the period is at least 5 s.
//
// Threading: every accessor is safe from any thread. The handler runs on the task's own serial queue
// "com.velmo._VorlenPeriodicTasks.defaultQueue" (every task has its own queue with that label).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/Queue.h"
#include "base/Value.h"

namespace vorlen {

class VorlenPeriodicTask {
 public:
  static constexpr uint64_t kMinimumPeriodSeconds = 5;

  // Null when the name is empty or the handler is missing.
  static std::shared_ptr<VorlenPeriodicTask> taskWithName(std::string name, uint64_t periodSeconds,
                                                          std::function<void()> handler);

  const std::string& name() const { return name_; }
  uint64_t periodSeconds() const { return periodSeconds_; }
  const std::function<void()>& handler() const { return handler_; }
  const std::shared_ptr<Queue>& queue() const { return queue_; }
  // { interval: period, repeating, priority maintenance, requires screen asleep, requires unlocked }.
  const Value::Dict& executionCriteria() const { return executionCriteria_; }
  // "<VorlenPeriodicTask name=..., period=...s>", for log lines.
  std::string description() const;

 private:
  VorlenPeriodicTask(std::string name, uint64_t periodSeconds, std::function<void()> handler);

  const std::string name_;
  const uint64_t periodSeconds_;
  const std::function<void()> handler_;
  const std::shared_ptr<Queue> queue_;
  Value::Dict executionCriteria_;
};

}  // namespace vorlen
