#include "base/Queue.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "base/ConcurrentQueue.h"
#include "base/Log.h"
#include "base/SerialQueue.h"

namespace vorlen {

namespace {

// The queues whose work the calling thread is running, innermost last. A sync chain stacks every queue
// it passes through, so the outer queues stay current while the inner work runs.
thread_local std::vector<const Queue*> tCurrent;

const char* priorityName(QueuePriority priority) {
  switch (priority) {
    case QueuePriority::Background:
      return "background";
    case QueuePriority::Utility:
      return "utility";
    case QueuePriority::Default:
      return "default";
    case QueuePriority::UserInitiated:
      return "user-initiated";
  }
  return "default";
}

}  // namespace

Queue::Queue(std::string label, QueuePriority priority, std::shared_ptr<Clock> clock)
    : label_(std::move(label)), priority_(priority), clock_(std::move(clock)) {}

std::shared_ptr<Queue> Queue::serial(std::string label, QueuePriority priority, std::shared_ptr<Clock> clock,
                                     std::shared_ptr<WorkerPool> pool) {
  return std::make_shared<SerialQueue>(std::move(label), priority, std::move(clock),
                                       pool ? std::move(pool) : WorkerPool::shared());
}

std::shared_ptr<Queue> Queue::concurrent(std::string label, QueuePriority priority,
                                         std::shared_ptr<Clock> clock, std::shared_ptr<WorkerPool> pool) {
  return std::make_shared<ConcurrentQueue>(std::move(label), priority, std::move(clock),
                                           pool ? std::move(pool) : WorkerPool::shared());
}

std::shared_ptr<Queue> Queue::global(QueuePriority priority) {
  // Never destroyed, like the shared pool they run on.
  static auto* queues = [] {
    auto* q = new std::vector<std::shared_ptr<Queue>>();
    for (QueuePriority p : {QueuePriority::Background, QueuePriority::Utility, QueuePriority::Default,
                            QueuePriority::UserInitiated}) {
      q->push_back(concurrent(std::string("com.velmo.vorlend.global.") + priorityName(p), p));
    }
    return q;
  }();
  return (*queues)[static_cast<size_t>(priority)];
}

void Queue::after(Duration delay, Work work) {
  std::shared_ptr<Clock> clock = clock_ ? clock_ : Clock::system();
  // The handle is dropped: an after() cannot be cancelled (use a Timer for that).
  clock->scheduleAfter(delay, shared_from_this(), std::move(work));
}

bool Queue::isCurrent() const {
  return std::find(tCurrent.begin(), tCurrent.end(), this) != tCurrent.end();
}

void Queue::assertCurrent() const {
  if (!isCurrent()) fault("expected to run on this queue");
}

Queue::CurrentScope::CurrentScope(const Queue* queue, bool alone) : alone_(alone) {
  if (alone_) hidden_.swap(tCurrent);
  tCurrent.push_back(queue);
}

Queue::CurrentScope::~CurrentScope() {
  tCurrent.pop_back();
  if (alone_) hidden_.swap(tCurrent);
}

void Queue::fault(std::string_view what) const {
  VorlenDefaultLog().fault("queue \"{}\": {}", label_, what);
  std::abort();
}

}  // namespace vorlen
